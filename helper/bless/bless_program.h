// SPDX-License-Identifier: MIT
#pragma once

#include "target_paths.h"

/// Installs the helper that the only argument names; with --remove or --stop, removes or stops the installed one. Acts
/// for the user in PKEXEC_UID, or for root. Says on standard error what goes wrong. Returns the program's exit status:
/// 0, 1 when it failed, 2 for wrong arguments; pkexec has none of these for itself. Call it once, first of all.
int blessMain(int argc, char *argv[], const TargetPaths &paths);
