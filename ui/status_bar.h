// SPDX-License-Identifier: MIT
#pragma once

#include <QAbstractNativeEventFilter>
#include <QObject>

#include <cstdint>

/// Finds out when there is a status bar: one that listens on the session's bus, or one that owns a place on an X
/// screen. Qt decides for the whole process which kind its items are for when it makes the first, so none is to be made
/// before there is a bar. Main thread.
class StatusBar final : public QObject, public QAbstractNativeEventFilter {
    Q_OBJECT

public:
    /// Begins to look for one. Does not block. Call once.
    void await();

    bool nativeEventFilter(const QByteArray &eventType, void *message, qintptr *result) override;

signals:
    /// Once: within `await`, or as soon as there is one.
    void appeared();

private:
    Q_SLOT void askHost();
    bool isOnScreen();
    void listenToBus();
    void announce();

    std::uint32_t place_ = 0;   ///< the X selection that a status bar owns
    std::uint32_t manager_ = 0; ///< the X message with which it comes
    bool announced_ = false;
};
