// SPDX-License-Identifier: MIT
#pragma once

#include "private_bus.h"
#include "scripted_authority.h"
#include "wait_for.h"

#include <QDBusPendingCallWatcher>
#include <QDir>
#include <QFile>

#include <csignal>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using testing::HasSubstr;

inline const QString name = u"com.corvale.macos.helper"_s;
inline constexpr char profile[] = "client\ndev tun\nremote vpn.corvale.example 1194\nauth-user-pass\n";
inline constexpr uid_t otherUser = 65534; // nobody: the bus turns away users that the system does not know

inline void write(const QString &path, const QByteArray &bytes, mode_t mode = 0644)
{
    QFile::remove(path);
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(bytes);
    file.close();
    ASSERT_EQ(::chmod(qPrintable(path), mode), 0);
}

inline QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// An orphan may stay a zombie for as long as the machine's first process pleases.
inline bool hasEnded(pid_t pid)
{
    return contents(u"/proc/%1/cmdline"_s.arg(pid)).isEmpty();
}

/// The helper as a process of its own on a private bus, with shell scripts in the place of OpenVPN.
class HelperTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "the helper is root's";
        folder = PrivateBus::folder() + u"/helper"_s;
        QDir(folder).removeRecursively();
        QDir().mkpath(folder);
        // Like client.down, it is run once more by the helper after OpenVPN.
        write(path(u"client.up"), "#!/bin/sh\n", 0755);
        write(path(u"client.down"), "#!/bin/sh\necho restored >>" + path(u"restored").toUtf8() + "\n", 0755);
        write(path(u"profile.ovpn"), profile, 0600);
        ASSERT_TRUE(bus.start());
        limits(60'000, 10'000);
        QDBusConnection::connectToBus(QDBusConnection::SystemBus, u"test"_s);
        ASSERT_TRUE(authority.offer(client()));
        openvpn("trap 'exit 7' TERM; " + readAndStay("cat \"$4\" >>" + path(u"reread").toUtf8()));
        ASSERT_EQ(::mkfifo(qPrintable(path(u"gate")), 0600), 0);
    }
    void TearDown() override
    {
        if (const pid_t pid = helperPid(); pid > 0) {
            ::kill(pid, SIGTERM);
            EXPECT_TRUE(waitFor([pid] { return hasEnded(pid); }));
        }
        QDBusConnection::disconnectFromBus(u"test"_s);
    }

    /// For helpers that start from now on: milliseconds without work, and with an OpenVPN that is to end.
    void limits(int idle, int ending) { bus.activate(name, command(idle, ending)); }
    QStringList command(int idle, int ending) const
    {
        return {QStringLiteral(HELPER_UNDER_TEST),
                path(u"openvpn"),
                path(u"client.up"),
                path(u"client.down"),
                path(u"run"),
                path(u"kept"),
                QString::number(idle),
                QString::number(ending),
                u"100"_s};
    }

    /// Not the shared connection of Qt, which would still mean the bus of an earlier test.
    static QDBusConnection client() { return QDBusConnection(u"test"_s); }
    QString path(QStringView file) const { return folder + u'/' + file.toString(); }
    /// What OpenVPN does this time; "started" is there once it does.
    void openvpn(const QByteArray &script)
    {
        write(path(u"openvpn"), "#!/bin/sh\necho $$ >>" + path(u"started").toUtf8() + "\n" + script + "\n", 0755);
    }
    /// The rest of a script: like OpenVPN it ignores SIGHUP while it reads its file and for a moment after, and runs
    /// on.
    QByteArray readAndStay(const QByteArray &onReload) const
    {
        return "trap '' HUP; cat \"$4\" >/dev/null; sleep 0.05; trap '" + onReload + "' HUP; echo >" +
               path(u"ready").toUtf8() + "; while :; do read -r line <>" + path(u"gate").toUtf8() + "; done";
    }
    bool ready() const
    {
        return waitFor([&] { return QFile::exists(path(u"ready")); });
    }

    static QDBusMessage message(const QString &member)
    {
        return QDBusMessage::createMethodCall(name, u"/com/corvale/macos/helper"_s, name, member);
    }
    static QDBusPendingCall send(const QString &member, const QVariantList &arguments = {})
    {
        auto call = message(member);
        call.setArguments(arguments);
        return client().asyncCall(call);
    }
    QDBusPendingCall run(QStringView config = u"profile.ovpn") const
    {
        return send(u"runOpenVPN"_s, {path(config), path(u"client.up"), path(u"client.down")});
    }
    /// A reply's status, or the last part of an error's name.
    static std::string outcome(const QDBusPendingCall &call)
    {
        QDBusPendingCallWatcher watcher(call);
        if (!waitFor([&] { return watcher.isFinished(); }))
            return "no answer";
        if (watcher.isError())
            return watcher.error().name().section(u'.', -1).toStdString();
        return watcher.reply().arguments().value(0).toString().toStdString();
    }
    static pid_t helperPid()
    {
        auto call = QDBusMessage::createMethodCall(u"org.freedesktop.DBus"_s, u"/"_s, u"org.freedesktop.DBus"_s,
                                                   u"GetConnectionUnixProcessID"_s);
        call << name;
        const QDBusMessage answer = client().call(call);
        return answer.type() == QDBusMessage::ReplyMessage ? answer.arguments()[0].toInt() : -1;
    }
    /// Sends as another user would; the outcome as above.
    std::string sendAsOther(const QByteArray &memberAndArguments) const
    {
        const QByteArray command = "setpriv --reuid=" + QByteArray::number(otherUser) +
                                   " --clear-groups dbus-send --system --print-reply --dest=com.corvale.macos.helper "
                                   "/com/corvale/macos/helper com.corvale.macos.helper." +
                                   memberAndArguments + " >" + path(u"other").toUtf8() + " 2>&1 &";
        // In the background, because this process answers for polkit meanwhile.
        write(path(u"other"), "");
        EXPECT_EQ(std::system(command.constData()), 0);
        EXPECT_TRUE(waitFor([&] { return contents(path(u"other")).contains('\n'); }));
        return contents(path(u"other")).toStdString();
    }

    /// The process number that OpenVPN, or what it started, has written last.
    pid_t pidIn(QStringView file) const { return contents(path(file)).trimmed().split('\n').last().toInt(); }

    QString folder;
    PrivateBus bus;
    ScriptedAuthority authority;
};
