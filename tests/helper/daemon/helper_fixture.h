// SPDX-License-Identifier: MIT
#pragma once

#include "files.h"
#include "private_bus.h"
#include "scripted_authority.h"
#include "wait_for.h"

#include <QDBusPendingCallWatcher>
#include <QProcess>

#include <csignal>
#include <gmock/gmock.h>
#include <grp.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using testing::HasSubstr;

inline const QString name = u"com.corvale.macos.helper"_s;
inline constexpr char profile[] = "client\ndev tun\nremote vpn.corvale.example 1194\nauth-user-pass\n";
inline constexpr uid_t otherUser = 65534; // nobody: the bus turns away users that the system does not know

/// An orphan may stay a zombie for as long as the machine's first process pleases.
inline bool hasEnded(pid_t pid)
{
    QFile words(u"/proc/%1/cmdline"_s.arg(pid));
    return !words.open(QIODevice::ReadOnly) || words.readAll().isEmpty();
}

/// The helper as a process of its own on a private bus, with shell scripts in the place of OpenVPN.
class HelperTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "the helper is root's";
        constexpr gid_t root = 0;
        ASSERT_EQ(::setgroups(1, &root), 0); // the helper may be started with groups of root's
        QDir(folder).removeRecursively();
        script(u"client.up", "");
        script(u"client.down", "echo >>restored");
        writeFile(path(u"profile.ovpn"), profile, 0600);
        openvpn("trap 'exit 7' TERM; " + readAndStay("cat \"$9\" >>reread"));
        shell("mkfifo gate");
        bus.configure("<limit name='max_replies_per_connection'>1000</limit>");
        ASSERT_TRUE(bus.start());
        helpers(60'000, 10'000);
        QDBusConnection::connectToBus(QDBusConnection::SystemBus, u"test"_s);
        // The bus knows a connection by the user that makes it.
        ASSERT_EQ(::seteuid(otherUser), 0);
        QDBusConnection::connectToBus(QDBusConnection::SystemBus, u"other"_s);
        ASSERT_EQ(::seteuid(0), 0);
        ASSERT_TRUE(authority.offer(client()));
    }
    void TearDown() override
    {
        if (const pid_t pid = helperPid(); pid > 0) {
            ::kill(pid, SIGTERM);
            EXPECT_TRUE(waitFor([pid] { return hasEnded(pid); }));
            ::kill(pid, SIGKILL);
        }
        // What a failed test leaves would hold on to the output of this program. Each leads a process group.
        for (const QByteArray &pid : contentOf(path(u"started")).split('\n'))
            if (pid.toInt() > 0)
                ::kill(-pid.toInt(), SIGKILL);
        QDBusConnection::disconnectFromBus(u"test"_s);
        QDBusConnection::disconnectFromBus(u"other"_s);
    }

    /// Helpers that start from now on leave after `idle` milliseconds without work and kill an OpenVPN that takes
    /// `ending` milliseconds to end. `mishap` is what goes wrong for them, as helper_under_test.cpp lists it.
    void helpers(int idle, int ending, const QString &mishap = {})
    {
        command = {QStringLiteral(HELPER_UNDER_TEST), folder, QString::number(idle), QString::number(ending), mishap};
        bus.activate(name, command);
    }

    /// Not the shared connection of Qt, which would still mean the bus of an earlier test.
    static QDBusConnection client() { return QDBusConnection(u"test"_s); }
    static QDBusConnection other() { return QDBusConnection(u"other"_s); } ///< another user's
    QString path(QStringView file) const { return folder + u'/' + file.toString(); }
    bool exists(QStringView file) const { return QFile::exists(path(file)); }
    qsizetype lines(QStringView file) const { return contentOf(path(file)).count('\n'); }
    void shell(const QByteArray &commands) const
    {
        const QString all = u"cd %1\n"_s.arg(folder) + QString::fromUtf8(commands);
        EXPECT_EQ(QProcess::execute(u"sh"_s, {u"-ec"_s, all}), 0) << commands.constData();
    }
    void script(QStringView file, const QByteArray &commands) const
    {
        writeFile(path(file), "#!/bin/sh\ncd " + folder.toUtf8() + '\n' + commands + '\n', 0755);
    }
    /// What OpenVPN does this time; it is noted in "started".
    void openvpn(const QByteArray &commands) const { script(u"openvpn", "echo $$ >>started\n" + commands); }
    /// The rest of a script: like OpenVPN it ignores SIGHUP while it reads its file and for a moment after, and runs
    /// on.
    static QByteArray readAndStay(const QByteArray &onReload)
    {
        return "trap '' HUP; cat \"$9\" >/dev/null; sleep 0.05; trap '" + onReload +
               "' HUP; echo >ready; while :; do read -r line <>gate; done";
    }
    /// The process number that OpenVPN, or what it started, has written last.
    pid_t pidIn(QStringView file) const { return contentOf(path(file)).trimmed().split('\n').last().toInt(); }

    static QDBusPendingCall send(const QString &member, const QVariantList &arguments = {},
                                 const QDBusConnection &sender = client())
    {
        auto call = QDBusMessage::createMethodCall(name, u"/com/corvale/macos/helper"_s, name, member);
        call.setArguments(arguments);
        return sender.asyncCall(call);
    }
    static QDBusPendingCall kill(const QDBusConnection &sender = client())
    {
        return send(u"killOpenVPN"_s, {}, sender);
    }
    QDBusPendingCall run(QStringView config = u"profile.ovpn", const QDBusConnection &sender = client(),
                         QStringView up = u"client.up", QStringView down = u"client.down") const
    {
        return send(u"runOpenVPN"_s, {path(config), path(up), path(down)}, sender);
    }
    /// With an OpenVPN that has read its file and stays.
    QDBusPendingCall runUntilReady(QStringView config = u"profile.ovpn", const QDBusConnection &sender = client()) const
    {
        QFile::remove(path(u"ready"));
        const auto call = run(config, sender);
        EXPECT_TRUE(waitFor([&] { return exists(u"ready"); }));
        return call;
    }
    /// A reply's value, or the last part of an error's name.
    static std::string outcome(const QDBusPendingCall &call)
    {
        QDBusPendingCallWatcher watcher(call);
        if (!waitFor([&] { return watcher.isFinished(); }))
            return "no answer";
        if (watcher.isError())
            return watcher.error().name().section(u'.', -1).toStdString();
        return watcher.reply().arguments().value(0).toString().toStdString();
    }
    static std::string version() { return outcome(send(u"getVersion"_s)); }
    static pid_t helperPid()
    {
        auto call = QDBusMessage::createMethodCall(u"org.freedesktop.DBus"_s, u"/"_s, u"org.freedesktop.DBus"_s,
                                                   u"GetConnectionUnixProcessID"_s);
        call << name;
        return client().call(call).arguments().value(0).toInt(); // an error's argument is no number
    }

    const QString folder = PrivateBus::folder() + u"/helper"_s;
    PrivateBus bus;
    QStringList command;
    ScriptedAuthority authority;
};

/// For tests in which another user has a part.
class TwoUsersTest : public HelperTest {
protected:
    void SetUp() override
    {
        if (!canActForOthers())
            GTEST_SKIP() << "no other user gets at files here";
        HelperTest::SetUp();
    }
};
