// SPDX-License-Identifier: MIT
#pragma once

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>

#include <limits>
#include <utility>

/// For calls on the bus that may take as long as they take. For Qt, and for the bus library below it, this very number
/// means no timeout; -1 would mean 25 seconds.
inline constexpr int noTimeout = std::numeric_limits<int>::max();

/// Calls `handler` with the reply or the error, once, later, on the thread of `context`; not at all once that is gone.
template <typename Handler>
void whenAnswered(const QDBusPendingCall &call, QObject *context, Handler handler)
{
    auto *const watcher = new QDBusPendingCallWatcher(call, context);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, context, [watcher, handler = std::move(handler)] {
        watcher->deleteLater();
        handler(watcher->reply());
    });
}
