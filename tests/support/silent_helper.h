// SPDX-License-Identifier: MIT
#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>

/// Has the helper's name on the system bus and does not answer: every launch goes on with it, and none installs
/// anything. The bus must be one of the program's own.
class SilentHelper final : public QDBusVirtualObject {
public:
    SilentHelper()
    {
        auto bus = QDBusConnection::systemBus();
        bus.registerVirtualObject(QStringLiteral("/com/corvale/macos/helper"), this);
        // A death test's own process finds it taken, by this one.
        bus.registerService(QStringLiteral("com.corvale.macos.helper"));
    }

    QString introspect(const QString & /*path*/) const override { return {}; }
    bool handleMessage(const QDBusMessage &message, const QDBusConnection & /*bus*/) override
    {
        messages << message;
        return true;
    }

    QList<QDBusMessage> messages; ///< for a test to answer after all
};
