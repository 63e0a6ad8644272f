// SPDX-License-Identifier: MIT
#include "polkit.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QMap>

using namespace Qt::StringLiterals;

QDBusMessage Polkit::question(const QString &busName, const QString &action, bool mayAskPerson)
{
    constexpr uint allowUserInteraction = 1;
    QDBusArgument subject;
    subject.beginStructure();
    subject << u"system-bus-name"_s << QVariantMap{{u"name"_s, busName}};
    subject.endStructure();
    QDBusArgument details;
    details.beginMap(QMetaType::fromType<QString>(), QMetaType::fromType<QString>());
    details.endMap();
    auto message =
        QDBusMessage::createMethodCall(u"org.freedesktop.PolicyKit1"_s, u"/org/freedesktop/PolicyKit1/Authority"_s,
                                       u"org.freedesktop.PolicyKit1.Authority"_s, u"CheckAuthorization"_s);
    message << QVariant::fromValue(subject) << action << QVariant::fromValue(details)
            << (mayAskPerson ? allowUserInteraction : 0U) << QString();
    return message;
}

Polkit::Answer Polkit::answer(const QDBusMessage &reply)
{
    if (reply.type() != QDBusMessage::ReplyMessage || reply.signature() != "(bba{ss})"_L1)
        return Answer::Unreadable;
    bool isAuthorized = false;
    bool isChallenge = false;
    QMap<QString, QString> details;
    const auto result = reply.arguments().constFirst().value<QDBusArgument>();
    result.beginStructure();
    result >> isAuthorized >> isChallenge >> details;
    result.endStructure(); // without it Qt keeps the whole message for ever
    if (isAuthorized)
        return Answer::Yes;
    if (details.contains(u"polkit.dismissed"_s))
        return Answer::Dismissed;
    return isChallenge ? Answer::NobodyToAsk : Answer::No;
}
