// SPDX-License-Identifier: MIT
#pragma once

#include "target_paths.h"

/// Installs the helper named by the only argument, or with --remove or --stop removes or stops the one that is there,
/// in the name of the user in PKEXEC_UID or else of root. What goes wrong is said on standard error. Returns the
/// program's exit status: 0, 1 when it failed, 2 when the arguments are others; none of them is pkexec's own.
int blessMain(int argc, char *argv[], const BlessPaths &paths);
