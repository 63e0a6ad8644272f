#include "private_bus.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <csignal>
#include <sys/prctl.h>

using namespace Qt::StringLiterals;

namespace {

void write(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        qFatal("cannot write %s", qPrintable(path));
}

QByteArray configuration(const QString &folder, const QByteArray &extra)
{
    QByteArray xml = R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=FOLDER/socket</listen>
  <servicedir>FOLDER/services</servicedir>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow receive_sender="*"/>
  </policy>
EXTRA
</busconfig>
)";
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
    daemon_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    daemon_.setChildProcessModifier([] { prctl(PR_SET_PDEATHSIG, SIGKILL); });
}

PrivateBus::~PrivateBus()
{
    kill();
}

bool PrivateBus::start()
{
    QFile::remove(folder() + u"/socket"_s);
    write(folder() + u"/bus.conf"_s, configuration(folder(), extra_));
    daemon_.start(u"dbus-daemon"_s, {u"--nofork"_s, u"--nopidfile"_s, u"--nosyslog"_s, u"--print-address"_s,
                                     u"--config-file="_s + folder() + u"/bus.conf"_s});
    // The address is printed once the bus listens.
    return daemon_.waitForReadyRead();
}

void PrivateBus::kill()
{
    daemon_.kill();
    daemon_.waitForFinished();
}

void PrivateBus::activate(const QString &name, const QStringList &command)
{
    write(folder() + u"/services/"_s + name + u".service"_s,
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
    if (daemon_.state() == QProcess::Running)
        QProcess::execute(u"dbus-send"_s, {u"--system"_s, u"--print-reply=literal"_s, u"--dest=org.freedesktop.DBus"_s,
                                           u"/org/freedesktop/DBus"_s, u"org.freedesktop.DBus.ReloadConfig"_s});
}
