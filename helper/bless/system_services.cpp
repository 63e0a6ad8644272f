// SPDX-License-Identifier: MIT
#include "system_services.h"

#include "descriptor.h"
#include "helper_protocol.h"
#include "pidfd.h"

#include <QDBusError>
#include <QDBusMessage>
#include <QThread>

#include <array>
#include <climits>
#include <csignal>
#include <poll.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int callTimeout = 30'000;       // ms; systemd takes its time
constexpr int helperTimeout = 40'000;     // ms; systemd's for the helper, longer than the helper's own together
constexpr int killTimeout = 5000;         // ms
constexpr int nameTimeout = 5000;         // ms; the bus learns of the process's end a moment later
constexpr unsigned long nameInterval = 5; // ms

const QString connectionName = u"bless"_s;
const QString daemonName = u"org.freedesktop.DBus"_s;
const QString daemonPath = u"/org/freedesktop/DBus"_s;
const QString helperName = QString::fromLatin1(HelperNames::service);

/// The file that a process runs, even when another file has replaced it since.
QByteArray programOf(uint pid)
{
    std::array<char, PATH_MAX> target{};
    const QByteArray link = "/proc/" + QByteArray::number(pid) + "/exe";
    const ssize_t length = ::readlink(link.constData(), target.data(), target.size());
    QByteArray program(target.data(), length > 0 ? length : 0);
    if (program.endsWith(" (deleted)"))
        program.chop(10);
    return program;
}

bool endsWithin(int process, int timeout)
{
    pollfd watched{process, POLLIN, 0};
    return ::poll(&watched, 1, timeout) > 0;
}

} // namespace

SystemServices::SystemServices(const QByteArray &busAddress)
    : bus_(QDBusConnection::connectToBus(QString::fromUtf8(busAddress), connectionName))
{
}

SystemServices::~SystemServices()
{
    QDBusConnection::disconnectFromBus(connectionName);
}

/// The result of every operation when there is no connection.
Result<void> SystemServices::withoutBus() const
{
    const QString error = bus_.lastError().name();
    if (error == u"org.freedesktop.DBus.Error.FileNotFound" || // no such socket
        error == u"org.freedesktop.DBus.Error.NoServer")       // a socket that a bus has left behind
        return {};
    return failure("The system bus cannot be reached.");
}

Result<void> SystemServices::call(const QString &service, const QString &path, const QString &interface,
                                  const QString &member)
{
    const auto message = QDBusMessage::createMethodCall(service, path, interface, member);
    const QDBusMessage answer = bus_.call(message, QDBus::Block, callTimeout);
    if (answer.type() == QDBusMessage::ReplyMessage)
        return {};
    return failure(member.toUtf8() + " of " + service.toUtf8() + ": " + answer.errorMessage().toUtf8());
}

/// The bus daemon's answer, or an invalid value.
QVariant SystemServices::askBus(const QString &member, const QString &argument)
{
    auto message = QDBusMessage::createMethodCall(daemonName, daemonPath, daemonName, member);
    message << argument;
    const QDBusMessage answer = bus_.call(message, QDBus::Block, callTimeout);
    return answer.type() == QDBusMessage::ReplyMessage ? answer.arguments().value(0) : QVariant();
}

Result<void> SystemServices::reload(bool systemdRuns)
{
    if (!bus_.isConnected())
        return withoutBus();
    auto reloaded = call(daemonName, daemonPath, daemonName, u"ReloadConfig"_s);
    if (!reloaded || !systemdRuns)
        return reloaded;
    return call(u"org.freedesktop.systemd1"_s, u"/org/freedesktop/systemd1"_s, u"org.freedesktop.systemd1.Manager"_s,
                u"Reload"_s);
}

Result<void> SystemServices::stopHelper(const QByteArray &program)
{
    if (!bus_.isConnected())
        return withoutBus();
    const QString owner = askBus(u"GetNameOwner"_s, helperName).toString();
    if (owner.isEmpty())
        return {};
    const QVariant pid = askBus(u"GetConnectionUnixProcessID"_s, owner);
    const QVariant user = askBus(u"GetConnectionUnixUser"_s, owner);
    if (!pid.isValid() || !user.isValid())
        return {}; // it has just left
    // The handle's process still lives after its program was looked up: so the number was nobody else's meanwhile.
    const Descriptor process(::pidfd_open(static_cast<pid_t>(pid.toUInt()), 0));
    const QByteArray running = programOf(pid.toUInt());
    const bool lives = process && !endsWithin(process.get(), 0);
    // A process that has just been killed has no program any more.
    if (lives && !running.isEmpty() && (user.toUInt() != 0 || running != program))
        return failure("The helper's name on the bus belongs to another program.");
    if (!end(lives ? process.get() : -1, owner))
        return failure("The running helper does not end.");
    return {};
}

Result<void> SystemServices::startHelper()
{
    if (!bus_.isConnected())
        return withoutBus();
    const auto started = call(helperName, QLatin1String(HelperNames::path), helperName, u"getVersion"_s);
    if (!started)
        return failure("The helper does not start, to restore what one that died has left: " + started.error().detail);
    return {};
}

bool SystemServices::end(int process, const QString &owner)
{
    if (process >= 0) {
        ::pidfd_send_signal(process, SIGTERM, nullptr, 0);
        ::pidfd_send_signal(process, SIGCONT, nullptr, 0); // a stopped process would not notice the first signal
        if (!endsWithin(process, helperTimeout)) {
            // OpenVPN dies with it, and the next helper cleans up.
            ::pidfd_send_signal(process, SIGKILL, nullptr, 0);
            endsWithin(process, killTimeout);
        }
    }
    for (int waited = 0; waited < nameTimeout; waited += static_cast<int>(nameInterval)) {
        // Somebody may have asked for a new helper at once: then the name has another owner.
        if (askBus(u"GetNameOwner"_s, helperName).toString() != owner)
            return true;
        QThread::msleep(nameInterval);
    }
    return false;
}
