// SPDX-License-Identifier: MIT
#include "private_bus.h"

#include "files.h"

#include <QTemporaryDir>

#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

QByteArray configuration(const QString &folder, const QByteArray &extra)
{
    QByteArray xml = R"(<busconfig><type>system</type><auth>EXTERNAL</auth>
<listen>unix:path=FOLDER/socket</listen><servicedir>FOLDER/services</servicedir>
<policy context="default"><allow user="*"/><allow own="*"/>
<allow send_destination="*" eavesdrop="true"/><allow receive_sender="*"/></policy>EXTRA</busconfig>)";
    return xml.replace("FOLDER", folder.toUtf8()).replace("EXTRA", extra);
}

/// Not QProcess: its way of starting a program confuses the thread sanitizer about the thread that does it.
pid_t spawn(const QList<QByteArray> &command, const posix_spawn_file_actions_t *actions = nullptr)
{
    std::vector<char *> arguments;
    for (const QByteArray &word : command)
        arguments.push_back(const_cast<char *>(word.constData()));
    arguments.push_back(nullptr);
    pid_t process = -1;
    return ::posix_spawnp(&process, arguments[0], actions, nullptr, arguments.data(), environ) == 0 ? process : -1;
}

} // namespace

QString PrivateBus::folder()
{
    static const QTemporaryDir made(QDir::tempPath() + u"/corvale-bus-XXXXXX"_s);
    return made.path();
}

PrivateBus::PrivateBus()
{
    // Other users must reach the socket, as they do the system's.
    QFile::setPermissions(folder(), QFile::Permissions(0x7755));
    QDir(folder() + u"/services"_s).removeRecursively();
    QDir(folder()).mkpath(u"services"_s);
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + folder().toUtf8() + "/socket");
}

PrivateBus::~PrivateBus()
{
    kill();
}

bool PrivateBus::start()
{
    QFile::remove(folder() + u"/socket"_s);
    writeFile(folder() + u"/bus.conf"_s, configuration(folder(), extra_));
    int printed[2];
    if (::pipe2(printed, O_CLOEXEC) != 0)
        return false;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, printed[1], STDOUT_FILENO);
    daemon_ = spawn({"setpriv", "--pdeathsig", "KILL", "dbus-daemon", "--nofork", "--nopidfile", "--nosyslog",
                     "--print-address", "--config-file=" + folder().toUtf8() + "/bus.conf"},
                    &actions);
    posix_spawn_file_actions_destroy(&actions);
    ::close(printed[1]);
    // The address is printed once the bus listens; a daemon that fails closes the pipe without a word.
    char first = 0;
    const bool listens = ::read(printed[0], &first, 1) == 1;
    ::close(printed[0]);
    return listens;
}

void PrivateBus::kill()
{
    if (daemon_ <= 0)
        return;
    ::kill(daemon_, SIGKILL);
    ::waitpid(daemon_, nullptr, 0);
    daemon_ = -1;
}

void PrivateBus::activate(const QString &name, const QStringList &command)
{
    writeFile(folder() + u"/services/"_s + name + u".service"_s,
              "[D-BUS Service]\nName=" + name.toUtf8() + "\nUser=root\nExec=" + command.join(u' ').toUtf8() + '\n');
    reload();
}

void PrivateBus::forgetActivation(const QString &name)
{
    QFile::remove(folder() + u"/services/"_s + name + u".service"_s);
    reload();
}

void PrivateBus::reload() const
{
    // The daemon watches the folder too, but says nothing when it has read it.
    if (daemon_ <= 0)
        return;
    const pid_t request = spawn({"dbus-send", "--system", "--print-reply=literal", "--dest=org.freedesktop.DBus",
                                 "/org/freedesktop/DBus", "org.freedesktop.DBus.ReloadConfig"});
    ::waitpid(request, nullptr, 0);
}
