// SPDX-License-Identifier: MIT
#pragma once

#include "files.h"
#include "private_bus.h"
#include "scripted_authority.h"
#include "wait_for.h"

#include <QDBusPendingCallWatcher>
#include <QDir>

#include <csignal>
#include <gmock/gmock.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using testing::HasSubstr;

inline const QString name = u"com.corvale.macos.helper"_s;
inline constexpr char profile[] = "client\ndev tun\nremote vpn.corvale.example 1194\nauth-user-pass\n";
inline constexpr uid_t otherUser = 65534; // nobody: the bus turns away users that the system does not know

/// An orphan may stay a zombie for as long as the machine's first process pleases.
inline bool hasEnded(pid_t pid)
{
    return contentOf(u"/proc/%1/cmdline"_s.arg(pid)).isEmpty();
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
        writeFile(path(u"client.up"), "#!/bin/sh\n", 0755);
        writeFile(path(u"client.down"), "#!/bin/sh\necho restored >>" + path(u"restored").toUtf8() + "\n", 0755);
        writeFile(path(u"profile.ovpn"), profile, 0600);
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
        // What a failed test leaves would hold on to the output of this program. Each leads a process group.
        if (QFile::exists(path(u"started")))
            for (const QByteArray &pid : contentOf(path(u"started")).split('\n'))
                if (pid.toInt() > 0)
                    ::kill(-pid.toInt(), SIGKILL);
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
        writeFile(path(u"openvpn"), "#!/bin/sh\necho $$ >>" + path(u"started").toUtf8() + "\n" + script + "\n", 0755);
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
    /// Sends as another user would. In the background, because this process answers for polkit meanwhile.
    void sendAsOther(const QByteArray &memberAndArguments) const
    {
        writeFile(path(u"other"), "");
        const QByteArray command =
            "setpriv --reuid=" + QByteArray::number(otherUser) +
            " --clear-groups dbus-send --system --print-reply --reply-timeout=60000 "
            "--dest=com.corvale.macos.helper /com/corvale/macos/helper com.corvale.macos.helper." +
            memberAndArguments + " >" + path(u"other").toUtf8() + " 2>&1 &";
        EXPECT_EQ(std::system(command.constData()), 0);
    }
    /// With a file of its own.
    void runAsOther() const
    {
        writeFile(path(u"others.ovpn"), profile, 0600);
        ASSERT_EQ(::chown(qPrintable(path(u"others.ovpn")), otherUser, 0), 0);
        sendAsOther("runOpenVPN string:" + path(u"others.ovpn").toUtf8() + " string:" + path(u"client.up").toUtf8() +
                    " string:" + path(u"client.down").toUtf8());
    }
    std::string othersAnswer() const
    {
        EXPECT_TRUE(waitFor([&] { return contentOf(path(u"other")).contains('\n'); }));
        return contentOf(path(u"other")).toStdString();
    }

    /// The process number that OpenVPN, or what it started, has written last.
    pid_t pidIn(QStringView file) const { return contentOf(path(file)).trimmed().split('\n').last().toInt(); }

    QString folder;
    PrivateBus bus;
    ScriptedAuthority authority;
};
