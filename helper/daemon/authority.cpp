// SPDX-License-Identifier: MIT
#include "authority.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>

#include <limits>

using namespace Qt::StringLiterals;

namespace {

constexpr int noTimeLimit = std::numeric_limits<int>::max();
constexpr int places = 16;

const HelperError notAuthorized{HelperError::Kind::NotAuthorized, "You are not allowed to do this."};
const HelperError tooMany{HelperError::Kind::Busy, "Too many of your requests are still under way."};

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
    result.endStructure(); // without it Qt keeps the whole message for ever
    return authorized;
}

} // namespace

void Authority::check(const QString &sender, const QString &action, const Verdict &verdict)
{
    findUser(sender, [=, this](std::optional<uid_t> uid) {
        const Caller caller{uid.value_or(0), uid ? takePlace(*uid) : nullptr};
        if (!uid)
            verdict(notAuthorized);
        else if (!caller.place)
            verdict(tooMany);
        else
            askPolkit(sender, action, caller, verdict);
    });
}

void Authority::findUser(const QString &sender, Found found)
{
    auto question = QDBusMessage::createMethodCall(u"org.freedesktop.DBus"_s, u"/org/freedesktop/DBus"_s,
                                                   u"org.freedesktop.DBus"_s, u"GetConnectionUnixUser"_s);
    question << sender;
    auto *const watcher = new QDBusPendingCallWatcher(bus_.asyncCall(question), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [watcher, found = std::move(found)] {
        watcher->deleteLater();
        const QDBusMessage answer = watcher->reply();
        if (answer.type() == QDBusMessage::ReplyMessage && answer.signature() == "u"_L1)
            found(answer.arguments().constFirst().toUInt());
        else
            found(std::nullopt);
    });
}

std::shared_ptr<const void> Authority::takePlace(uid_t uid)
{
    std::shared_ptr<int> &taken = taken_[uid];
    if (!taken)
        taken = std::make_shared<int>(0);
    if (*taken == places)
        return nullptr;
    ++*taken;
    return {taken.get(), [taken](const void *) { --*taken; }};
}

void Authority::askPolkit(const QString &sender, const QString &action, const Caller &caller, const Verdict &verdict)
{
    auto *const watcher =
        new QDBusPendingCallWatcher(bus_.asyncCall(authorizationQuestion(sender, action), noTimeLimit), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [=, this] {
        watcher->deleteLater();
        if (!isAuthorized(watcher->reply())) {
            verdict(notAuthorized);
            return;
        }
        // Once more, so that a sender that has left meanwhile is nobody.
        findUser(sender, [caller, verdict](std::optional<uid_t> uid) {
            if (uid == caller.uid)
                verdict(caller);
            else
                verdict(notAuthorized);
        });
    });
}
