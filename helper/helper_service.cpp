#include "helper_service.h"

#include "helper_protocol.h"

#include <algorithm>
#include <climits>

using namespace Qt::StringLiterals;
using Kind = HelperError::Kind;

namespace {

/// Whether the arguments are short enough to be the names of files.
bool areNames(const QVariantList &arguments)
{
    return std::ranges::all_of(arguments, [](const QVariant &one) { return one.toString().size() < PATH_MAX; });
}

} // namespace

HelperService::HelperService(const QDBusConnection &bus, const HelperPaths &paths, const HelperLimits &limits)
    : bus_(bus), authority_(bus), judge_(paths), tunnel_(paths, limits)
{
    idle_.setSingleShot(true);
    idle_.setInterval(limits.idle);
    connect(&idle_, &QTimer::timeout, this, &HelperService::leave);
}

bool HelperService::offer()
{
    idle_.start();
    if (!bus_.registerVirtualObject(QLatin1String(HelperNames::path), this) ||
        !bus_.registerService(QLatin1String(HelperNames::service)))
        return false;
    // Not before: a helper that may not have the name must not touch the tunnel of the one that has it.
    tunnel_.begin();
    return true;
}

void HelperService::finish()
{
    ending_ = true;
    tunnel_.stop([this] { emit finished(); });
}

QString HelperService::introspect(const QString & /*path*/) const
{
    return {};
}

bool HelperService::handleMessage(const QDBusMessage &message, const QDBusConnection & /*bus*/)
{
    const bool mine = message.interface().isEmpty() || message.interface() == QLatin1String(HelperNames::service);
    const QString call = message.member() + u'(' + message.signature() + u')';
    if (!mine)
        return false;
    if (call == QLatin1String(HelperNames::getVersion) + "()"_L1) {
        ++open_;
        answer(message, message.createReply(QStringLiteral(CORVALE_VERSION)));
    } else if (call == QLatin1String(HelperNames::runOpenVPN) + "(sss)"_L1) {
        if (!areNames(message.arguments())) {
            // Before it is kept for polkit's answer: such messages are as large as their sender likes.
            ++open_;
            answer(message, errorReply(message, {Kind::ConfigUnsafe, "A file's name is too long."}));
            return true;
        }
        admit(message, u"com.corvale.macos.helper.run"_s, [=, this](const auto &caller) { run(message, caller); });
    } else if (call == QLatin1String(HelperNames::killOpenVPN) + "()"_L1) {
        admit(message, u"com.corvale.macos.helper.kill"_s, [=, this](const auto &caller) { kill(message, caller); });
    } else {
        return false;
    }
    return true;
}

void HelperService::admit(const QDBusMessage &message, const QString &action,
                          std::function<void(const Authority::Caller &)> next)
{
    ++open_;
    authority_.check(message.service(), action, [this, message, next = std::move(next)](const auto &verdict) {
        if (const auto *error = std::get_if<HelperError>(&verdict))
            answer(message, errorReply(message, *error));
        else
            next(std::get<Authority::Caller>(verdict));
    });
}

/// Why no tunnel of this user can run now.
std::optional<HelperError> HelperService::obstacle(uid_t uid) const
{
    if (ending_)
        return HelperError{Kind::Internal, "The helper is ending."};
    if (tunnel_.owner() && tunnel_.owner() != uid)
        return HelperError{Kind::Busy, "Another user's tunnel is running."};
    return std::nullopt;
}

void HelperService::run(const QDBusMessage &message, const Authority::Caller &caller)
{
    if (const auto found = obstacle(caller.uid)) {
        answer(message, errorReply(message, *found));
        return;
    }
    const QVariantList arguments = message.arguments();
    const TunnelRequest request{arguments[0].toString(), arguments[1].toString(), arguments[2].toString()};
    // The caller's place is kept until the files are judged; the tunnel has a limit of its own.
    judge_.judge(caller.uid, request, [this, message, caller](const auto &verdict) {
        if (const auto *error = std::get_if<HelperError>(&verdict))
            answer(message, errorReply(message, *error));
        else
            start(message, caller.uid, std::get<QByteArray>(verdict));
    });
}

void HelperService::start(const QDBusMessage &message, uid_t uid, const QByteArray &configuration)
{
    // Another's tunnel may have begun while the files were read.
    if (const auto found = obstacle(uid)) {
        answer(message, errorReply(message, *found));
        return;
    }
    tunnel_.run(uid, configuration, [this, message](const std::variant<int, HelperError> &end) {
        const auto *status = std::get_if<int>(&end);
        answer(message, status ? message.createReply(*status) : errorReply(message, std::get<HelperError>(end)));
    });
}

void HelperService::kill(const QDBusMessage &message, const Authority::Caller &caller)
{
    if (tunnel_.owner() && tunnel_.owner() != caller.uid && caller.uid != 0) {
        answer(message, errorReply(message, {Kind::NotAuthorized, "It is another user's tunnel."}));
        return;
    }
    judge_.abandon(caller.uid);
    tunnel_.stop([this, message, caller] { answer(message, message.createReply()); });
}

void HelperService::answer(const QDBusMessage &message, const QDBusMessage &reply)
{
    // A sender that wants no answer may not get one, or the bus would log it.
    if (message.isReplyRequired())
        bus_.send(reply);
    --open_;
    idle_.start();
}

void HelperService::leave()
{
    if (open_ > 0 || !tunnel_.isIdle() || !judge_.isIdle()) {
        idle_.start();
        return;
    }
    // Without the name first: a message that came in until then is in the queue and is served; a later one has the bus
    // start a new helper.
    bus_.unregisterService(QLatin1String(HelperNames::service));
    QTimer::singleShot(0, this, [this] {
        if (open_ == 0)
            emit finished();
        else if (bus_.registerService(QLatin1String(HelperNames::service)))
            idle_.start();
        else
            finish(); // another helper has begun, and there is but one tunnel
    });
}
