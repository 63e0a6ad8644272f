// SPDX-License-Identifier: MIT
#pragma once

#include <QSocketNotifier>

/// While it lives, SIGINT and SIGTERM end the event loop of the application instead of the process. A process that has
/// not ended by itself 90 ms later is ended wherever it stands: nothing of the client's is lost by that. One at a time;
/// main thread.
class QuitSignals final {
public:
    QuitSignals();

    /// The same limit from now on for an end that no signal asked for.
    static void startDeadline();

private:
    QSocketNotifier asked_;
};
