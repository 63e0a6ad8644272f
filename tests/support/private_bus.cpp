// SPDX-License-Identifier: MIT
#include "private_bus.h"

#include "files.h"

#include <QTemporaryDir>

#include <csignal>
#include <cstdlib>

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
    // Not QProcess: its way of starting a program confuses the thread sanitizer about the thread that does it.
    const std::string command = "exec setpriv --pdeathsig KILL dbus-daemon --nofork --nopidfile --nosyslog --print-pid "
                                "--config-file=" +
                                folder().toStdString() + "/bus.conf";
    daemon_ = ::popen(command.c_str(), "re");
    // Printed once the bus listens; a daemon that fails ends without a word.
    return daemon_ && std::fscanf(daemon_, "%d", &process_) == 1;
}

void PrivateBus::kill()
{
    if (process_ > 0)
        ::kill(std::exchange(process_, 0), SIGKILL);
    if (daemon_)
        ::pclose(std::exchange(daemon_, nullptr));
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
    constexpr char request[] = "dbus-send --system --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus "
                               "org.freedesktop.DBus.ReloadConfig >/dev/null";
    // The daemon watches the folder too, but says nothing when it has read it.
    if (process_ > 0 && std::system(request) != 0)
        qFatal("The bus does not read its folder again.");
}
