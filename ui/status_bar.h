// SPDX-License-Identifier: MIT
#pragma once

#include <QAbstractNativeEventFilter>
#include <QObject>

#include <cstdint>

/// Finds out when there is a status bar. It is either of the kind that listens on the session bus, or of the kind that
/// owns a selection of the X screen. Qt chooses the kind for the whole process when it makes the first status item, so
/// the first item must wait for the bar. Main thread.
class StatusBar final : public QObject, public QAbstractNativeEventFilter {
    Q_OBJECT

public:
    /// Starts looking for a status bar. Asks the X server and waits for its answers, but not for the bus. Call once.
    void await();

    bool nativeEventFilter(const QByteArray &eventType, void *message, qintptr *result) override;

signals:
    /// Emitted once: within `await` when there is a status bar on the screen, or later, when one is found.
    void appeared();

private:
    Q_SLOT void askHost();
    bool isOnScreen();
    void listenToBus();
    void announce();

    std::uint32_t selection_ = 0; ///< the X selection that a status bar owns
    std::uint32_t manager_ = 0;   ///< the X message that a new status bar sends
    bool announced_ = false;
};
