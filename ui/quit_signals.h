#pragma once

#include <QSocketNotifier>

/// While it lives, SIGINT and SIGTERM end the event loop of the application instead of the process. A process that is
/// too busy to end by itself in a moment is ended where it stands: nothing of the client's needs its end. One at a
/// time; main thread.
class QuitSignals final {
public:
    QuitSignals();

private:
    QSocketNotifier arrived_;
};
