// SPDX-License-Identifier: MIT
#pragma once

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QStringList>

/// polkit's place on the bus, with an answer of the test's choice. Lives in the test's own process.
class ScriptedAuthority final : public QDBusVirtualObject {
public:
    enum class Answer { Yes, No, Error, Unreadable, Hold };

    bool offer(QDBusConnection bus)
    {
        return bus.registerVirtualObject(QStringLiteral("/org/freedesktop/PolicyKit1/Authority"), this) &&
               bus.registerService(QStringLiteral("org.freedesktop.PolicyKit1"));
    }
    QString introspect(const QString & /*path*/) const override { return {}; }
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &bus) override
    {
        asked << message.arguments().value(1).toString();
        flags = message.arguments().value(3).toUInt();
        switch (answer) {
        case Answer::Yes: bus.send(message.createReply(verdict(true))); break;
        case Answer::No: bus.send(message.createReply(verdict(false))); break;
        case Answer::Unreadable: bus.send(message.createReply(true)); break;
        case Answer::Error:
            bus.send(message.createErrorReply(QStringLiteral("org.freedesktop.PolicyKit1.Error.Failed"), QString()));
            break;
        case Answer::Hold: held << message; break;
        }
        return true;
    }
    static QVariant verdict(bool authorized)
    {
        constexpr bool isChallenge = false;
        QDBusArgument result;
        result.beginStructure();
        result << authorized << isChallenge << QMap<QString, QString>();
        result.endStructure();
        return QVariant::fromValue(result);
    }

    Answer answer = Answer::Yes;
    QStringList asked; ///< action names
    uint flags = 0;    ///< of the last question
    QList<QDBusMessage> held;
};
