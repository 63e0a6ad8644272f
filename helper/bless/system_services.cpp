// SPDX-License-Identifier: MIT
#include "system_services.h"

#include "descriptor.h"
#include "helper_protocol.h"
#include "pidfd.h"

#include <QDBusError>
#include <QDBusMessage>
#include <QFile>
#include <QThread>

#include <climits>
#include <csignal>
#include <poll.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int patience = 30'000;      // ms; systemd takes its time
constexpr int tunnelsEnd = 40'000;    // ms; systemd's for the helper, longer than the helper's own limits together
constexpr int killedProcess = 5000;   // ms
constexpr int namesEnd = 5000;        // ms; the bus hears of the process's end a moment later
constexpr unsigned long nextLook = 5; // ms

const QString ourName = u"bless"_s;
const QString daemonName = u"org.freedesktop.DBus"_s;
const QString daemonPath = u"/org/freedesktop/DBus"_s;
const QString helperName = QString::fromLatin1(HelperNames::service);

/// The file that a process runs, also when another one has taken its place since.
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

bool endsWithin(int process, int limit)
{
    pollfd watched{process, POLLIN, 0};
    return ::poll(&watched, 1, limit) > 0;
}

} // namespace

BlessBus::BlessBus(const QByteArray &address) : bus_(QDBusConnection::connectToBus(QString::fromUtf8(address), ourName))
{
}

BlessBus::~BlessBus()
{
    QDBusConnection::disconnectFromBus(ourName);
}

QByteArray BlessBus::command(const QString &service, const QString &path, const QString &interface,
                             const QString &member)
{
    const auto message = QDBusMessage::createMethodCall(service, path, interface, member);
    const QDBusMessage answer = bus_.call(message, QDBus::Block, patience);
    if (answer.type() == QDBusMessage::ReplyMessage)
        return {};
    return member.toUtf8() + " of " + service.toUtf8() + ": " + answer.errorMessage().toUtf8();
}

/// Nothing when there is a connection, or when nobody listens where the bus should be.
QByteArray BlessBus::obstacle() const
{
    const QString error = bus_.lastError().name();
    const bool isAbsent = error == u"org.freedesktop.DBus.Error.FileNotFound" || // no such socket
                          error == u"org.freedesktop.DBus.Error.NoServer";       // one that was left
    return bus_.isConnected() || isAbsent ? QByteArray() : "The system bus cannot be reached.";
}

QByteArray BlessBus::reload(bool systemdRuns)
{
    if (!bus_.isConnected())
        return obstacle();
    QByteArray error = command(daemonName, daemonPath, daemonName, u"ReloadConfig"_s);
    if (!error.isEmpty() || !systemdRuns)
        return error;
    return command(u"org.freedesktop.systemd1"_s, u"/org/freedesktop/systemd1"_s, u"org.freedesktop.systemd1.Manager"_s,
                   u"Reload"_s);
}

/// The bus daemon's answer, or an invalid value.
QVariant BlessBus::ask(const QString &member, const QString &argument)
{
    auto message = QDBusMessage::createMethodCall(daemonName, daemonPath, daemonName, member);
    message << argument;
    const QDBusMessage answer = bus_.call(message, QDBus::Block, patience);
    return answer.type() == QDBusMessage::ReplyMessage ? answer.arguments().value(0) : QVariant();
}

QByteArray BlessBus::stopHelper(const QByteArray &program)
{
    if (!bus_.isConnected())
        return obstacle();
    const QString owner = ask(u"GetNameOwner"_s, helperName).toString();
    if (owner.isEmpty())
        return {};
    const QVariant pid = ask(u"GetConnectionUnixProcessID"_s, owner);
    const QVariant user = ask(u"GetConnectionUnixUser"_s, owner);
    if (!pid.isValid() || !user.isValid())
        return {}; // it has just left
    // The program is that of the handle's process if that lives on afterwards: the number was nobody else's meanwhile.
    const Descriptor process(::pidfd_open(static_cast<pid_t>(pid.toUInt()), 0));
    const QByteArray running = programOf(pid.toUInt());
    const bool lives = process && !endsWithin(process.get(), 0);
    // One that has just been killed has no program any more.
    if (lives && !running.isEmpty() && (user.toUInt() != 0 || running != program))
        return "The helper's name on the bus belongs to another program.";
    return stop(lives ? process.get() : -1, owner) ? QByteArray() : "The running helper does not end.";
}

QByteArray BlessBus::startHelper()
{
    if (!bus_.isConnected())
        return obstacle();
    auto message = QDBusMessage::createMethodCall(helperName, QLatin1String(HelperNames::path), helperName,
                                                  u"getVersion"_s);
    const QDBusMessage answer = bus_.call(message, QDBus::Block, patience);
    return answer.type() == QDBusMessage::ReplyMessage
               ? QByteArray()
               : "The helper does not start, to restore what one that died has left: " + answer.errorMessage().toUtf8();
}

bool BlessBus::stop(int process, const QString &owner)
{
    if (process >= 0) {
        ::pidfd_send_signal(process, SIGTERM, nullptr, 0);
        ::pidfd_send_signal(process, SIGCONT, nullptr, 0); // one that somebody stopped would not hear it
        if (!endsWithin(process, tunnelsEnd)) {
            // OpenVPN dies with it, and the next helper cleans up.
            ::pidfd_send_signal(process, SIGKILL, nullptr, 0);
            endsWithin(process, killedProcess);
        }
    }
    for (int waited = 0; waited < namesEnd; waited += static_cast<int>(nextLook)) {
        // A new one may have been asked for at once.
        if (ask(u"GetNameOwner"_s, helperName).toString() != owner)
            return true;
        QThread::msleep(nextLook);
    }
    return false;
}
