#include "helper_service.h"

#include "helper_protocol.h"
#include "tunnel_request.h"

#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr auto idleLimit = 1min;
const HelperError notAuthorized{HelperError::Kind::NotAuthorized, "You are not allowed to do this."};

} // namespace

HelperService::HelperService(const QDBusConnection &bus, const HelperPaths &paths)
    : bus_(bus), paths_(paths), authority_(bus), tunnel_(paths)
{
    idle_.setSingleShot(true);
    idle_.setInterval(idleLimit);
    connect(&idle_, &QTimer::timeout, this, &HelperService::leave);
}

bool HelperService::offer()
{
    idle_.start();
    return bus_.registerVirtualObject(QLatin1String(HelperNames::path), this) &&
           bus_.registerService(QLatin1String(HelperNames::service));
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
        answer(message.createReply(QStringLiteral(CORVALE_VERSION)));
    } else if (call == QLatin1String(HelperNames::runOpenVPN) + "(sss)"_L1) {
        ++open_;
        run(message);
    } else if (call == QLatin1String(HelperNames::killOpenVPN) + "()"_L1) {
        ++open_;
        kill(message);
    } else {
        return false;
    }
    return true;
}

void HelperService::run(const QDBusMessage &message)
{
    authority_.check(message.service(), u"com.corvale.macos.helper.run"_s, [this, message](std::optional<uid_t> uid) {
        if (uid)
            authorizedToRun(message, *uid);
        else
            answer(errorReply(message, notAuthorized));
    });
}

void HelperService::authorizedToRun(const QDBusMessage &message, uid_t uid)
{
    if (ending_) {
        answer(errorReply(message, {HelperError::Kind::Internal, "The helper is ending."}));
        return;
    }
    if (tunnel_.owner() && tunnel_.owner() != uid) {
        answer(errorReply(message, {HelperError::Kind::Busy, "Another user's tunnel is running."}));
        return;
    }
    const QVariantList arguments = message.arguments();
    const TunnelRequest request{arguments[0].toString(), arguments[1].toString(), arguments[2].toString()};
    const auto configuration = acceptedConfiguration(uid, request, paths_);
    if (const auto *error = std::get_if<HelperError>(&configuration)) {
        answer(errorReply(message, *error));
        return;
    }
    tunnel_.run(uid, std::get<QByteArray>(configuration), [this, message](const std::variant<int, HelperError> &end) {
        const auto *status = std::get_if<int>(&end);
        answer(status ? message.createReply(*status) : errorReply(message, std::get<HelperError>(end)));
    });
}

void HelperService::kill(const QDBusMessage &message)
{
    authority_.check(message.service(), u"com.corvale.macos.helper.kill"_s, [this, message](std::optional<uid_t> uid) {
        if (uid)
            authorizedToKill(message, *uid);
        else
            answer(errorReply(message, notAuthorized));
    });
}

void HelperService::authorizedToKill(const QDBusMessage &message, uid_t uid)
{
    if (tunnel_.owner() && tunnel_.owner() != uid && uid != 0) {
        answer(errorReply(message, notAuthorized));
        return;
    }
    tunnel_.stop([this, message] { answer(message.createReply()); });
}

void HelperService::answer(const QDBusMessage &reply)
{
    bus_.send(reply);
    --open_;
    idle_.start();
}

void HelperService::leave()
{
    if (open_ > 0 || !tunnel_.isIdle()) {
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
    });
}
