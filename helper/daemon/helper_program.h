// SPDX-License-Identifier: MIT
#pragma once

#include "helper_paths.h"
#include "helper_service.h"

/// Offers the helper on the system bus until there is nothing left to do, SIGTERM comes or the bus is lost; a tunnel
/// is ended first. Returns the program's exit status.
int helperMain(int argc, char *argv[], const HelperPaths &paths, const HelperService::Timeouts &timeouts = {});
