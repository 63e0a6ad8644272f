// SPDX-License-Identifier: MIT
#pragma once

/// The application's main routine: makes the application and its delegate, runs the event loop, and returns the exit
/// status when the person quits. Main thread.
int applicationMain(int &argc, char **argv);
