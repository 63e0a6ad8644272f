// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QVariantMap>

/// One client for each person: the first holds a name on the session bus, and every later start asks it to come back.
/// Main thread.
class SingleInstance final : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Application")

public:
    using QObject::QObject;

    /// True when this process is the one to go on: it took the name, or there is no bus that could tell. False after
    /// another one was asked to come back. Blocks for the bus's answers, at most about two seconds.
    bool claim();

    /// For the bus: another start of the client.
    Q_SCRIPTABLE Q_INVOKABLE void Activate(const QVariantMap &platformData);

signals:
    /// Another start asks for the window. With the token that lets it come to the front, where the desktop gave one.
    void activated(const QString &token);
};
