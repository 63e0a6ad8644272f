// SPDX-License-Identifier: MIT
#pragma once

#include <QSocketNotifier>

/// While it lives, SIGINT and SIGTERM end the event loop of the application instead of the process. A process that is
/// too busy to end by itself in a moment is ended where it stands: nothing of the client's needs its end. One at a
/// time; main thread.
class QuitSignals final {
public:
    QuitSignals();

    /// Grants the process no more than that moment from now on, as if it had been asked to end.
    static void limitTheEnd();

private:
    QSocketNotifier arrived_;
};
