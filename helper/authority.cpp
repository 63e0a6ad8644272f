#include "authority.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>

#include <limits>

using namespace Qt::StringLiterals;

namespace {

constexpr int noTimeLimit = std::numeric_limits<int>::max();

QDBusMessage authorizationQuestion(const QString &sender, const QString &action)
{
    // By bus name: a process number could be another process's by the time polkit looks.
    QDBusArgument subject;
    subject.beginStructure();
    subject << u"system-bus-name"_s << QVariantMap{{u"name"_s, sender}};
    subject.endStructure();
    QDBusArgument details;
    details.beginMap(QMetaType::fromType<QString>(), QMetaType::fromType<QString>());
    details.endMap();
    constexpr uint allowUserInteraction = 1;

    auto question =
        QDBusMessage::createMethodCall(u"org.freedesktop.PolicyKit1"_s, u"/org/freedesktop/PolicyKit1/Authority"_s,
                                       u"org.freedesktop.PolicyKit1.Authority"_s, u"CheckAuthorization"_s);
    question << QVariant::fromValue(subject) << action << QVariant::fromValue(details) << allowUserInteraction
             << QString();
    return question;
}

bool isAuthorized(const QDBusMessage &answer)
{
    if (answer.type() != QDBusMessage::ReplyMessage || answer.signature() != "(bba{ss})"_L1)
        return false;
    const auto result = answer.arguments().value(0).value<QDBusArgument>();
    bool authorized = false;
    result.beginStructure();
    result >> authorized;
    return authorized;
}

} // namespace

void Authority::check(const QString &sender, const QString &action, Verdict verdict)
{
    auto *const watcher =
        new QDBusPendingCallWatcher(bus_.asyncCall(authorizationQuestion(sender, action), noTimeLimit), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, watcher, sender, verdict = std::move(verdict)]() mutable {
                watcher->deleteLater();
                if (isAuthorized(watcher->reply()))
                    findUser(sender, std::move(verdict));
                else
                    verdict(std::nullopt);
            });
}

/// After the authorization, so that a sender that has left meanwhile is nobody.
void Authority::findUser(const QString &sender, Verdict verdict)
{
    auto question = QDBusMessage::createMethodCall(u"org.freedesktop.DBus"_s, u"/org/freedesktop/DBus"_s,
                                                   u"org.freedesktop.DBus"_s, u"GetConnectionUnixUser"_s);
    question << sender;
    auto *const watcher = new QDBusPendingCallWatcher(bus_.asyncCall(question), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [watcher, verdict = std::move(verdict)] {
        watcher->deleteLater();
        const QDBusMessage answer = watcher->reply();
        if (answer.type() == QDBusMessage::ReplyMessage && answer.signature() == "u"_L1)
            verdict(answer.arguments().constFirst().toUInt());
        else
            verdict(std::nullopt);
    });
}
