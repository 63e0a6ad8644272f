// SPDX-License-Identifier: MIT
#include "helper_service.h"

#include "bus_errors.h"
#include "helper_adaptor.h"
#include "helper_protocol.h"

#include <algorithm>
#include <climits>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr size_t maxHandedOver = 256; // requests; each may be as long as three names
constexpr int lastWordTimeout = 1000; // ms

/// Whether the arguments are short enough to be the names of files.
bool areNames(const QVariantList &arguments)
{
    return std::ranges::all_of(arguments, [](const QVariant &one) { return one.toString().size() < PATH_MAX; });
}

} // namespace

HelperService::HelperService(const QDBusConnection &bus, const HelperPaths &paths, const Timeouts &timeouts)
    : bus_(bus), authority_(bus), judge_(paths), tunnel_(paths, timeouts.tunnel)
{
    new HelperAdaptor(this); // owned by this
    idle_.setSingleShot(true);
    idle_.setInterval(timeouts.idle);
    connect(&idle_, &QTimer::timeout, this, &HelperService::leave);
}

bool HelperService::offer()
{
    idle_.start();
    if (!bus_.registerObject(QLatin1String(HelperNames::path), this) ||
        !bus_.registerService(QLatin1String(HelperNames::service)))
        return false;
    // Not before: a helper that may not have the name must not touch the tunnel of the one that has it.
    tunnel_.begin();
    return true;
}

void HelperService::finish()
{
    if (std::exchange(ending_, true))
        return;
    tunnel_.stop([this] {
        // Messages that have arrived are in the queue. For later ones the bus starts the next helper.
        bus_.unregisterService(QLatin1String(HelperNames::service));
        QTimer::singleShot(0, this, &HelperService::handOver);
    });
}

/// What this helper has not begun to do is left to the next one.
void HelperService::handOver()
{
    while (!open_.empty()) {
        const Request request = open_.front();
        answer(request, errorReply(*request, {ErrorCode::Leaving, "The helper is leaving. Send this again."}));
    }
    // A round trip, so that the answers have left this process before it ends.
    bus_.call(QDBusMessage::createMethodCall(u"org.freedesktop.DBus"_s, u"/org/freedesktop/DBus"_s,
                                             u"org.freedesktop.DBus.Peer"_s, u"Ping"_s),
              QDBus::Block, lastWordTimeout);
    emit finished();
}

HelperService::Request HelperService::accept()
{
    setDelayedReply(true);
    return open_.emplace_back(std::make_shared<const QDBusMessage>(message()));
}

QString HelperService::getVersion()
{
    const Request request = accept();
    answer(request, request->createReply(QStringLiteral(CORVALE_VERSION)));
    return {};
}

int HelperService::runOpenVPN(const QString & /*config*/, const QString & /*client_up*/,
                              const QString & /*client_down*/)
{
    const Request request = accept();
    if (!areNames(request->arguments()))
        // Not kept until polkit answers: such a message may be as large as its sender likes.
        answer(request, errorReply(*request, {ErrorCode::ConfigUnsafe, "A file's name is too long."}));
    else if (!isBeyondQuota(request) && !ending_)
        admit(request, u"com.corvale.macos.helper.run"_s, [=, this](const auto &caller) { run(request, caller); });
    return 0;
}

void HelperService::killOpenVPN()
{
    const Request request = accept();
    if (!isBeyondQuota(request))
        admit(request, u"com.corvale.macos.helper.kill"_s, [=, this](const auto &caller) { kill(request, caller); });
}

bool HelperService::isBeyondQuota(const Request &request)
{
    if (!ending_ || open_.size() <= maxHandedOver)
        return false;
    answer(request, errorReply(*request, {ErrorCode::Busy, "Too many requests wait for the next helper."}));
    return true;
}

void HelperService::admit(const Request &request, const QString &action,
                          std::function<void(const Authority::Caller &)> next)
{
    authority_.check(request->service(), action, [this, request, next = std::move(next)](const auto &caller) {
        if (caller)
            next(*caller);
        else
            answer(request, errorReply(*request, caller.error()));
    });
}

bool HelperService::isAnothers(const Request &request, uid_t uid)
{
    if (!tunnel_.owner() || tunnel_.owner() == uid)
        return false;
    answer(request, errorReply(*request, {ErrorCode::Busy, "Another user's tunnel is running."}));
    return true;
}

void HelperService::run(const Request &request, const Authority::Caller &caller)
{
    if (ending_ || isAnothers(request, caller.uid))
        return;
    const QVariantList arguments = request->arguments();
    const TunnelRequest files{arguments[0].toString(), arguments[1].toString(), arguments[2].toString()};
    // The message counts for the caller's quota until the files are judged; the tunnel has a quota of its own.
    judge_.judge(caller.uid, files, [this, request, caller](const auto &configuration) {
        if (configuration)
            start(request, caller.uid, *configuration);
        else
            answer(request, errorReply(*request, configuration.error()));
    });
}

void HelperService::start(const Request &request, uid_t uid, const QByteArray &configuration)
{
    // Another's tunnel may have begun while the files were read.
    if (ending_ || isAnothers(request, uid))
        return;
    tunnel_.run(uid, configuration, [this, request](const Result<int> &status) {
        answer(request, status ? request->createReply(*status) : errorReply(*request, status.error()));
    });
}

void HelperService::kill(const Request &request, const Authority::Caller &caller)
{
    if (tunnel_.owner() && tunnel_.owner() != caller.uid && caller.uid != 0) {
        answer(request, errorReply(*request, {ErrorCode::NotAuthorized, "It is another user's tunnel."}));
        return;
    }
    judge_.abandon(caller.uid);
    tunnel_.stop([this, request] { answer(request, request->createReply()); });
}

void HelperService::answer(const Request &request, const QDBusMessage &reply)
{
    if (std::erase(open_, request) == 0)
        return; // it has been left to the next helper
    // The bus logs an answer to a sender that wants none.
    if (request->isReplyRequired())
        bus_.send(reply);
    idle_.start();
}

void HelperService::leave()
{
    if (open_.empty() && tunnel_.isIdle() && judge_.isIdle())
        finish();
    else
        idle_.start();
}
