// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QVariantMap>

/// One client for each session: the first owns a name on the session bus, and every later start asks it to show its
/// window. Main thread.
class SingleInstance final : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Application")

public:
    using QObject::QObject;

    /// Returns true when this process goes on: it owns the name now, or there is no session bus. Returns false after it
    /// asked another instance to show its window. Blocks for up to two calls to the bus, one second each.
    bool claim();

    /// Called over the bus by another start of the client.
    Q_SCRIPTABLE Q_INVOKABLE void Activate(const QVariantMap &platformData);

signals:
    /// Another start asks for the window. `token` lets the window come to the front; it is empty when the desktop gave
    /// none.
    void activated(const QString &token);
};
