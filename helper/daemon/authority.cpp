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
    findUser(sender, [=, this](const Result<uid_t> &uid) {
        if (!uid)
            handler(tl::make_unexpected(uid.error()));
        else if (const Caller caller{*uid, takeQuota(*uid)}; caller.quota)
            askPolkit(sender, action, caller, handler);
        else
            handler(tl::make_unexpected(tooMany));
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
            handler(tl::make_unexpected(notAuthorized));
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
        // The sender may have left while the person was asked.
        findUser(sender, [caller, handler](const Result<uid_t> &uid) {
            if (uid)
                handler(caller);
            else
                handler(tl::make_unexpected(uid.error()));
        });
    });
}
