// SPDX-License-Identifier: MIT
#include "openvpn_service.h"

#include "bundle.h"
#include "connection_state.h"
#include "helper_client.h"
#include "helper_connection.h"
#include "standard_output.h"
#include "system_log.h"

#include <QCoreApplication>
#include <QThread>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr int maxAttempts = 8;
constexpr auto attemptTimeout = 3s;
constexpr unsigned long pauseAfterFailure = 300'000; // µs

} // namespace

OpenVPNService &OpenVPNService::shared()
{
    // Leaked on purpose: the reader and the helper connection's thread may use it until the process ends.
    static auto *const service = new OpenVPNService;
    return *service;
}

OpenVPNService::OpenVPNService() : state_(ConnectionState::noProcess)
{
    // Whoever comes first makes the service; its notifications belong to the main thread all the same.
    if (const auto *application = QCoreApplication::instance())
        moveToThread(application->thread());
}

QString OpenVPNService::state() const
{
    const std::scoped_lock lock(guard_);
    return state_;
}

void OpenVPNService::setState(const QString &name)
{
    const std::scoped_lock lock(guard_);
    state_ = name;
}

void OpenVPNService::startOpenVPN()
{
    const bool prepared = config && username && password;
    if (prepared)
        askHelper();
    if (!prepared || !connectManagement()) {
        StandardOutput::writeLine("error while starting mgmt interface");
        updateState(ConnectionState::noProcess);
        return;
    }
    management.sendCommand("state on\n");
    management.sendCommand("bytecount 1\n");
    management.sendCommand("log on\n");
    management.sendCommand("username 'Auth' " + username->toUtf8() + '\n');
    management.sendCommand("password 'Auth' " + password->toUtf8() + '\n');
    management.startReading();
}

void OpenVPNService::askHelper()
{
    auto *const delegate = HelperClient::shared();
    const auto connection = delegate ? delegate->helperConnection() : nullptr;
    if (!connection)
        return;
    const auto helper = connection->remoteObjectProxyWithErrorHandler(
        [](const MessageError &error) { SystemLog::write(u"XPCService error: "_s + error.text); });
    if (!helper)
        return;
    helper->runOpenVPNWithConfig(*config, Bundle::pathForResource(u"client.up"_s),
                                 Bundle::pathForResource(u"client.down"_s),
                                 [this](qint32 status) { openvpnDidExit(status); });
}

bool OpenVPNService::connectManagement()
{
    for (int attempt = 0; attempt < maxAttempts; ++attempt) {
        if (management.socket.connect(attemptTimeout))
            return true;
        QThread::usleep(pauseAfterFailure);
    }
    return false;
}

void OpenVPNService::stopOpenVPN()
{
    management.sendCommand("signal SIGINT\n");
}

void OpenVPNService::updateState(const QString &name)
{
    const std::scoped_lock lock(guard_);
    const bool repeated = name == ConnectionState::assignIp || name == ConnectionState::addRoutes;
    if (state_ == ConnectionState::connected && repeated)
        return;
    store(name);
}

void OpenVPNService::openvpnDidExit(qint32 status)
{
    SystemLog::write(u"OpenVPN exited: termiationStatus="_s + QString::number(status));
    // What OpenVPN said last may be unread still. Heard after its end, it would stay the state for ever.
    management.catchUp();
    const std::scoped_lock lock(guard_);
    if (state_ != ConnectionState::noProcess)
        store(ConnectionState::noProcess);
}

void OpenVPNService::store(const QString &name)
{
    state_ = name;
    // Queued under the guard, so that announcements are in the order of the updates; no observer runs here.
    QMetaObject::invokeMethod(
        this, [this] { emit OpenVPNStateDidChange(); }, Qt::QueuedConnection);
}
