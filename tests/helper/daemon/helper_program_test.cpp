// SPDX-License-Identifier: MIT
#include "helper_fixture.h"
#include "tcp_peer.h"

#include <QDBusPendingReply>

TEST_F(HelperTest, anyoneMayAskTheVersionWhichIsTheOneInTheExecutable)
{
    authority.answer = ScriptedAuthority::Answer::No;
    const std::string version = outcome(send(u"getVersion"_s));
    EXPECT_THAT(contents(QStringLiteral(HELPER_TOOL)).toStdString(),
                HasSubstr("<key>CFBundleVersion</key>\n    <string>" + version + "</string>"));
    EXPECT_TRUE(authority.asked.isEmpty());
}

TEST_F(HelperTest, onlyAClearYesOfPolkitLetsAMessagePassAndAnOpenQuestionDelaysNobody)
{
    using Answer = ScriptedAuthority::Answer;
    authority.answer = Answer::Hold;
    const auto open = run();
    ASSERT_TRUE(waitFor([&] { return authority.held.size() == 1; }));
    EXPECT_EQ(authority.flags, 1U); // the person may be asked
    for (const Answer answer : {Answer::No, Answer::Error, Answer::Unreadable}) {
        authority.answer = answer;
        EXPECT_EQ(outcome(run()), "NotAuthorized");
        EXPECT_EQ(outcome(send(u"killOpenVPN"_s)), "NotAuthorized");
    }
    client().unregisterService(u"org.freedesktop.PolicyKit1"_s);
    EXPECT_EQ(outcome(run()), "NotAuthorized");
    EXPECT_FALSE(QFile::exists(path(u"started")));
    EXPECT_EQ(authority.asked.mid(0, 3), QStringList({name + u".run"_s, name + u".run"_s, name + u".kill"_s}));

    openvpn("exit 3");
    client().send(authority.held[0].createReply(ScriptedAuthority::verdict(true)));
    EXPECT_EQ(outcome(open), "3");
}

TEST_F(HelperTest, whatIsUnsafeOrNotListedIsRefusedAndNothingStarts)
{
    struct Row {
        const char *what;
        std::function<void()> prepare;
        QString config = u"profile.ovpn"_s;
        QString up = u"client.up"_s;
        const char *error = "ConfigUnsafe";
    };
    const auto file = [this] { return path(u"bad.ovpn").toUtf8(); };
    const auto make = [&, this](mode_t mode) { write(path(u"bad.ovpn"), profile, mode); };
    const Row rows[] = {
        {"a missing file", [] {}, u"missing.ovpn"_s},
        {"a link", [&] { ASSERT_EQ(::symlink(qPrintable(path(u"profile.ovpn")), file()), 0); }, u"bad.ovpn"_s},
        {"a second link",
         [&] {
             make(0600);
             ASSERT_EQ(::link(file(), file() + "2"), 0);
         },
         u"bad.ovpn"_s},
        {"another's file",
         [&] {
             make(0644);
             ASSERT_EQ(::chown(file(), otherUser, 0), 0);
         },
         u"bad.ovpn"_s},
        {"a file the group may write", [&] { make(0660); }, u"bad.ovpn"_s},
        {"a pipe", [&] { ASSERT_EQ(::mkfifo(file(), 0600), 0); }, u"bad.ovpn"_s},
        {"a folder", [] {}, u"."_s},
        {"a huge file",
         [&] {
             make(0600);
             ASSERT_EQ(::truncate(file(), 256 * 1024 + 1), 0);
         },
         u"bad.ovpn"_s},
        {"a directive that runs a program",
         [&] { write(path(u"bad.ovpn"), QByteArray(profile) + "up /tmp/secret\n", 0600); }, u"bad.ovpn"_s,
         u"client.up"_s, "ConfigRejected"},
        {"a changed script", [&] { write(path(u"other.up"), "#!/bin/sh\nid\n", 0755); }, u"profile.ovpn"_s,
         u"other.up"_s, "ScriptRejected"},
        {"a missing script", [] {}, u"profile.ovpn"_s, u"missing.up"_s, "ScriptRejected"},
    };
    for (const Row &row : rows) {
        QFile::remove(path(u"bad.ovpn"));
        QFile::remove(path(u"bad.ovpn2"));
        row.prepare();
        const auto call = send(u"runOpenVPN"_s, {path(row.config), path(row.up), path(u"client.down")});
        EXPECT_EQ(outcome(call), row.error) << row.what;
        EXPECT_THAT(call.error().message().toStdString(), Not(HasSubstr("secret")));
    }
    EXPECT_FALSE(QFile::exists(path(u"started")));
    EXPECT_FALSE(QFile::exists(path(u"run/openvpn.conf")));
}

TEST_F(HelperTest, aCopyOfTheScriptsIsAcceptedAndTheReplyIsHowOpenvpnEnded)
{
    QFile::copy(path(u"client.up"), path(u"copy.up"));
    const auto runCopy = [this] {
        return send(u"runOpenVPN"_s, {path(u"profile.ovpn"), path(u"copy.up"), path(u"client.down")});
    };
    struct Row {
        const char *script;
        const char *status;
    };
    for (const Row &row : {Row{"exit 0", "0"}, {"exit 3", "3"}, {"kill -KILL $$", "137"}, {"kill -SEGV $$", "139"}}) {
        openvpn(row.script);
        EXPECT_EQ(outcome(runCopy()), row.status);
    }
    EXPECT_EQ(contents(path(u"restored")).count('\n'), 4);
    EXPECT_TRUE(QDir(path(u"run")).isEmpty());

    QFile::remove(path(u"openvpn"));
    EXPECT_EQ(outcome(runCopy()), "Internal");
}

TEST_F(HelperTest, openvpnGetsAFixedCommandAndNothingOfTheHelpersOwnState)
{
    openvpn("exec >" + path(u"seen").toUtf8() +
            "\ntr '\\0' '\\n' </proc/$$/environ; umask; ls /proc/$$/fd; while read -r key value; do case $key "
            "in Sig[BI]*) echo $key $value;; esac; done </proc/$$/status;"
            "\n[ $(cut -d' ' -f6 /proc/$$/stat) = $$ ] && echo own session; stat -c '%a %u' \"$4\" " +
            path(u"run").toUtf8() + "; cat \"$4\"; for word; do echo \"<$word>\"; done");
    ASSERT_EQ(outcome(run()), "0");
    const std::string seen = contents(path(u"seen")).toStdString();
    // Descriptors: the three standard ones, and as number 10 the script, which the shell itself has opened.
    EXPECT_THAT(seen, testing::StartsWith("PATH=/usr/sbin:/usr/bin:/sbin:/bin\nLC_ALL=C\n0077\n0\n1\n10\n2\n"));
    EXPECT_THAT(seen, HasSubstr("SigBlk: 0000000000000000\n"));
    EXPECT_THAT(seen, testing::ContainsRegex("SigIgn: [0-9a-f]{12}0000\n")); // SIGPIPE, above all
    EXPECT_THAT(seen, HasSubstr("own session\n600 0\n700 0\n"));
    EXPECT_THAT(seen, HasSubstr("remote vpn.corvale.example 1194\n"));
    EXPECT_THAT(seen, HasSubstr("<--syslog>\n<corvale-openvpn>\n<--config>\n")); // so it also tells of a wrong file
    EXPECT_THAT(seen, HasSubstr("<--script-security>\n<2>\n<--up>\n<" + path(u"client.up").toStdString() + ">\n"));
    EXPECT_THAT(seen, HasSubstr("<--management>\n<127.0.0.1>\n<1337>\n<--management-query-passwords>\n"));
    EXPECT_THAT(seen, testing::EndsWith("<--pull-filter>\n<ignore>\n<>\n"));
}

TEST_F(HelperTest, aTakenPortIsReportedAndNothingStarts)
{
    const TCPPeer stranger(1337);
    EXPECT_EQ(outcome(run()), "PortBusy");
    EXPECT_FALSE(QFile::exists(path(u"started")));
}

TEST_F(HelperTest, theSameUsersNextRequestHasTheRunningOpenvpnReadTheNewFile)
{
    const auto first = run();
    ASSERT_TRUE(ready());
    write(path(u"profile.ovpn"), QByteArray(profile) + "verb 4\n", 0600);
    const auto second = run();
    ASSERT_TRUE(waitFor([&] { return contents(path(u"reread")).contains("verb 4"); }));
    EXPECT_EQ(outcome(send(u"killOpenVPN"_s)), "");
    EXPECT_EQ(outcome(first), "7");
    EXPECT_EQ(outcome(second), "7");
    EXPECT_EQ(contents(path(u"started")).count('\n'), 1);
}

TEST_F(HelperTest, withoutAWatchAFreshOpenvpnTakesThePlaceOfTheRunningOne)
{
    bus.activate(name, command(60'000, 10'000) << u"unwatched"_s);
    const auto first = run();
    ASSERT_TRUE(ready());
    QFile::remove(path(u"ready"));
    const auto second = run();
    EXPECT_EQ(outcome(first), "7");
    EXPECT_TRUE(waitFor([&] { return contents(path(u"started")).count('\n') == 2; }));
    ASSERT_TRUE(ready());
    EXPECT_EQ(outcome(send(u"killOpenVPN"_s)), "");
    EXPECT_EQ(outcome(second), "7");
}

TEST_F(HelperTest, aRequestThatComesWhileOpenvpnReadsItsFirstFileHasItReadTheNewOne)
{
    const auto first = run();
    ASSERT_TRUE(waitFor([&] { return QFile::exists(path(u"started")); }));
    write(path(u"profile.ovpn"), QByteArray(profile) + "verb 4\n", 0600);
    const auto second = run();
    EXPECT_TRUE(waitFor([&] { return contents(path(u"reread")).contains("verb 4"); }));
    EXPECT_EQ(outcome(send(u"killOpenVPN"_s)), "");
    EXPECT_EQ(outcome(second), "7");
    EXPECT_EQ(contents(path(u"started")).count('\n'), 1) << "the end of a tunnel started another";
}

TEST_F(HelperTest, aRequestThatMeetsAnEndingOpenvpnGetsAFreshOne)
{
    // It has read its file and dies of the request to read it again.
    openvpn(readAndStay("exit 5"));
    const auto first = run();
    ASSERT_TRUE(ready());
    openvpn("exit 6");
    const auto second = run();
    EXPECT_EQ(outcome(first), "5");
    EXPECT_EQ(outcome(second), "6");
}

TEST_F(HelperTest, aRequestThatComesWhileOpenvpnIsBeingStoppedIsServedAfterwards)
{
    openvpn("trap 'read -r line <>" + path(u"gate").toUtf8() + "; exit 5' TERM; " + readAndStay(":"));
    const auto first = run();
    ASSERT_TRUE(ready());
    const auto stopped = send(u"killOpenVPN"_s);
    openvpn("exit 6");
    write(path(u"profile.ovpn"), QByteArray(profile) + "verb 4\n", 0600);
    const auto second = run();
    ASSERT_TRUE(waitFor([&] { return contents(path(u"run/openvpn.conf")).contains("verb 4"); }));
    EXPECT_FALSE(first.isFinished());
    QFile gate(path(u"gate"));
    ASSERT_TRUE(gate.open(QIODevice::ReadWrite | QIODevice::Unbuffered));
    // More than once: the shell may take a line before it looks at the signal.
    EXPECT_TRUE(waitFor([&] { return gate.write("\n") == 1 && first.isFinished(); }));
    EXPECT_EQ(outcome(first), "5");
    EXPECT_EQ(outcome(stopped), "");
    EXPECT_EQ(outcome(second), "6");
}

TEST_F(HelperTest, anotherUserCanNeitherTakeOverNorEndTheTunnel)
{
    const auto mine = run();
    ASSERT_TRUE(ready());
    EXPECT_THAT(sendAsOther("runOpenVPN string:/x string:/x string:/x"), HasSubstr("Error.Busy"));
    EXPECT_THAT(sendAsOther("killOpenVPN"), HasSubstr("Error.NotAuthorized"));
    EXPECT_FALSE(waitFor([&] { return mine.isFinished(); }, std::chrono::milliseconds(300)));
    EXPECT_EQ(contents(path(u"started")).count('\n'), 1);
}

TEST_F(HelperTest, theFilesOfARequestAreReadWithTheRightsOfItsSender)
{
    // Root could read it, and it is a file of the right kind: but the sender is neither.
    EXPECT_THAT(sendAsOther("runOpenVPN string:" + path(u"profile.ovpn").toUtf8() + " string:/x string:/x"),
                HasSubstr("cannot be opened in the caller's name"));
}

TEST_F(HelperTest, theTunnelOutlivesTheClientThatAskedForIt)
{
    {
        auto leaving = QDBusConnection::connectToBus(QDBusConnection::SystemBus, u"client"_s);
        auto call = message(u"runOpenVPN"_s);
        call << path(u"profile.ovpn") << path(u"client.up") << path(u"client.down");
        const auto pending = leaving.asyncCall(call);
        ASSERT_TRUE(ready());
    }
    QDBusConnection::disconnectFromBus(u"client"_s);
    const auto next = run();
    ASSERT_TRUE(waitFor([&] { return !contents(path(u"reread")).isEmpty(); }));
    EXPECT_EQ(contents(path(u"started")).count('\n'), 1);
}

TEST_F(HelperTest, openvpnDiesWithTheHelperAndTheNextHelperCleansUp)
{
    const std::string version = outcome(send(u"getVersion"_s));
    const auto lost = run();
    ASSERT_TRUE(ready());
    const pid_t tunnel = contents(path(u"started")).trimmed().toInt();
    ::kill(helperPid(), SIGKILL);
    EXPECT_EQ(outcome(lost), "NoReply");
    EXPECT_TRUE(waitFor([&] { return hasEnded(tunnel); }));
    EXPECT_TRUE(QFile::exists(path(u"run/openvpn.conf")));
    EXPECT_EQ(outcome(send(u"getVersion"_s)), version);
    EXPECT_TRUE(waitFor([&] { return QDir(path(u"run")).isEmpty() && contents(path(u"restored")).count('\n') == 1; }));
}

TEST_F(HelperTest, theHelpersEndEndsTheTunnelCleanly)
{
    const auto call = run();
    ASSERT_TRUE(ready());
    ::kill(helperPid(), SIGTERM);
    EXPECT_EQ(outcome(call), "7");
    EXPECT_TRUE(waitFor([&] { return helperPid() < 0; }));
    EXPECT_EQ(contents(path(u"restored")).count('\n'), 1);
    EXPECT_TRUE(QDir(path(u"run")).isEmpty());
}
