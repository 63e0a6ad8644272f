// SPDX-License-Identifier: MIT
#include "authority.h"

#include "bus_call.h"
#include "polkit.h"

#include <QDBusMessage>

using namespace Qt::StringLiterals;

namespace {

constexpr int maxUnderWay = 16;

const Error notAuthorized{ErrorCode::NotAuthorized, "You are not allowed to do this."};
const Error tooMany{ErrorCode::Busy, "Too many of your requests are still under way."};

} // namespace

void Authority::check(const QString &sender, const QString &action, const Handler &handler)
{
    findUser(sender, [=, this](std::optional<uid_t> uid) {
        const Caller caller{uid.value_or(0), uid ? takeQuota(*uid) : nullptr};
        if (!uid)
            handler(tl::make_unexpected(notAuthorized));
        else if (!caller.quota)
            handler(tl::make_unexpected(tooMany));
        else
            askPolkit(sender, action, caller, handler);
    });
}

void Authority::findUser(const QString &sender, UserHandler handler)
{
    auto question = QDBusMessage::createMethodCall(u"org.freedesktop.DBus"_s, u"/org/freedesktop/DBus"_s,
                                                   u"org.freedesktop.DBus"_s, u"GetConnectionUnixUser"_s);
    question << sender;
    whenAnswered(bus_.asyncCall(question), this, [handler = std::move(handler)](const QDBusMessage &answer) {
        if (answer.type() == QDBusMessage::ReplyMessage && answer.signature() == "u"_L1)
            handler(answer.arguments().constFirst().toUInt());
        else
            handler(std::nullopt);
    });
}

std::shared_ptr<const void> Authority::takeQuota(uid_t uid)
{
    std::shared_ptr<int> &count = underWay_[uid];
    if (!count)
        count = std::make_shared<int>(0);
    if (*count == maxUnderWay)
        return nullptr;
    ++*count;
    return {count.get(), [count](const void *) { --*count; }};
}

void Authority::askPolkit(const QString &sender, const QString &action, const Caller &caller, const Handler &handler)
{
    const auto call = bus_.asyncCall(Polkit::question(sender, action, true), noTimeout);
    whenAnswered(call, this, [=, this](const QDBusMessage &answer) {
        if (Polkit::answer(answer) != Polkit::Answer::Yes) {
            handler(tl::make_unexpected(notAuthorized));
            return;
        }
        // Once more, so that a sender that has left meanwhile is nobody.
        findUser(sender, [caller, handler](std::optional<uid_t> uid) {
            if (uid == caller.uid)
                handler(caller);
            else
                handler(tl::make_unexpected(notAuthorized));
        });
    });
}
