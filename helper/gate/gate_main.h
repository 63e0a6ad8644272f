// SPDX-License-Identifier: MIT
#pragma once

/// The gate's main routine, in the helper's executable: `PROGRAM gate OWNER SOCKET`, with the listening port as
/// descriptor 3 and the helper as 4. Returns the exit status.
int gateMain(int argc, char *argv[]);

/// Whether the program is to be the gate. To be asked first of all.
bool isGate(int argc, char *argv[]);
