// SPDX-License-Identifier: MIT
#pragma once

#include "helper_protocol.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QFile>
#include <QTimer>

#include <unistd.h>

/// A helper that does what the message says: the stand-in for every way in which the real one may answer or fail.
class ScriptedHelper final : public QDBusVirtualObject {
    Q_OBJECT
public:
    explicit ScriptedHelper(QString version) : version_(std::move(version)) {}

    QString introspect(const QString &) const override { return {}; }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &bus) override
    {
        if (message.member() == QLatin1String("getVersion")) {
            if (version_ == QLatin1String("error"))
                bus.send(message.createErrorReply(QStringLiteral("com.corvale.macos.helper.Error.Internal"),
                                                  QStringLiteral("It is ill.")));
            else if (version_ != QLatin1String("silence"))
                bus.send(message.createReply(version_));
            return true;
        }
        if (message.member() != QLatin1String("runOpenVPN"))
            return false;
        const QString action = message.arguments().value(0).toString();
        const QString first = message.arguments().value(1).toString();
        const QString second = message.arguments().value(2).toString();
        if (action == QLatin1String("reply"))
            bus.send(message.createReply(first.toInt()));
        else if (action == QLatin1String("reply text"))
            bus.send(message.createReply(first));
        else if (action == QLatin1String("error"))
            bus.send(message.createErrorReply(first, second));
        else if (action == QLatin1String("reply late"))
            QTimer::singleShot(first.toInt(), this, [=] { QDBusConnection(bus).send(message.createReply(5)); });
        else if (action == QLatin1String("die"))
            ::_exit(1);
        else if (action == QLatin1String("leave"))
            leave(bus, message, first);
        return true; // any other is never answered
    }

    Q_SLOT void busLost() { ::_exit(0); }

private:
    /// The one after it finds the file, and replies.
    static void leave(QDBusConnection bus, const QDBusMessage &message, const QString &file)
    {
        QFile mark(file);
        if (!mark.open(QIODevice::NewOnly)) {
            bus.send(message.createReply(7));
            return;
        }
        bus.unregisterService(QLatin1String(HelperNames::service));
        bus.send(message.createErrorReply(QLatin1String(HelperNames::leaving), QStringLiteral("Again.")));
        QCoreApplication::quit();
    }

    const QString version_;
};
