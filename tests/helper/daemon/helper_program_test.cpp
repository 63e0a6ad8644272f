// SPDX-License-Identifier: MIT
#include "helper_fixture.h"
#include "tcp_peer.h"

#include <QDBusPendingReply>

TEST_F(HelperTest, anyoneMayAskTheVersionWhichIsTheOneInTheExecutable)
{
    authority.answer = ScriptedAuthority::Answer::No;
    const std::string version = outcome(send(u"getVersion"_s));
    EXPECT_THAT(contentOf(QStringLiteral(HELPER_TOOL)).toStdString(),
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
    const QDBusMessage first = authority.held[0];
    for (const Answer answer : {Answer::No, Answer::Error, Answer::Unreadable}) {
        authority.answer = answer;
        EXPECT_EQ(outcome(run()), "NotAuthorized");
        EXPECT_EQ(outcome(send(u"killOpenVPN"_s)), "NotAuthorized");
    }
    client().unregisterService(u"org.freedesktop.PolicyKit1"_s);
    EXPECT_EQ(outcome(run()), "NotAuthorized");
    EXPECT_FALSE(QFile::exists(path(u"started")));
    EXPECT_EQ(authority.asked.mid(0, 3), QStringList({name + u".run"_s, name + u".run"_s, name + u".kill"_s}));

    {
        auto leaving = QDBusConnection::connectToBus(QDBusConnection::SystemBus, u"leaving"_s);
        authority.held.clear();
        ASSERT_TRUE(client().registerService(u"org.freedesktop.PolicyKit1"_s));
        authority.answer = Answer::Hold;
        auto call = message(u"runOpenVPN"_s);
        call << path(u"profile.ovpn") << path(u"client.up") << path(u"client.down");
        leaving.asyncCall(call);
        ASSERT_TRUE(waitFor([&] { return authority.held.size() == 1; }));
    }
    QDBusConnection::disconnectFromBus(u"leaving"_s);
    client().send(authority.held[0].createReply(ScriptedAuthority::verdict(true)));
    EXPECT_NE(outcome(send(u"getVersion"_s)), "no answer");
    EXPECT_FALSE(QFile::exists(path(u"started"))) << "it was started for somebody who had left";

    openvpn("exit 3");
    client().send(first.createReply(ScriptedAuthority::verdict(true)));
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
        QString down = u"client.down"_s;
    };
    const auto file = [this] { return path(u"bad.ovpn").toUtf8(); };
    const auto make = [&, this](mode_t mode) { writeFile(path(u"bad.ovpn"), profile, mode); };
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
         [&] { writeFile(path(u"bad.ovpn"), QByteArray(profile) + "up /tmp/secret\n", 0600); }, u"bad.ovpn"_s,
         u"client.up"_s, "ConfigRejected"},
        {"a changed script", [&] { writeFile(path(u"other.up"), "#!/bin/sh\nid\n", 0755); }, u"profile.ovpn"_s,
         u"other.up"_s, "ScriptRejected"},
        {"the other changed script", [] {}, u"profile.ovpn"_s, u"client.up"_s, "ScriptRejected", u"other.up"_s},
        {"a missing script", [] {}, u"profile.ovpn"_s, u"missing.up"_s, "ScriptRejected"},
    };
    for (const Row &row : rows) {
        QFile::remove(path(u"bad.ovpn"));
        QFile::remove(path(u"bad.ovpn2"));
        row.prepare();
        const auto call = send(u"runOpenVPN"_s, {path(row.config), path(row.up), path(row.down)});
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
    writeFile(path(u"client.down"), "#!/bin/sh\nsleep 0.1\necho restored >>" + path(u"restored").toUtf8() + "\n", 0755);
    int runs = 0;
    for (const Row &row : {Row{"exit 0", "0"}, {"exit 3", "3"}, {"kill -KILL $$", "137"}, {"kill -SEGV $$", "139"}}) {
        openvpn(row.script);
        EXPECT_EQ(outcome(runCopy()), row.status);
        EXPECT_EQ(contentOf(path(u"restored")).count('\n'), ++runs) << "answered before everything was cleaned up";
        EXPECT_TRUE(QDir(path(u"run")).isEmpty());
    }

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
    const std::string seen = contentOf(path(u"seen")).toStdString();
    // Descriptors: the three standard ones, and as number 10 the script, which the shell itself has opened.
    EXPECT_THAT(seen, testing::StartsWith("PATH=/usr/sbin:/usr/bin:/sbin:/bin\nLC_ALL=C\n0077\n0\n1\n10\n2\n"));
    EXPECT_THAT(seen, HasSubstr("SigBlk: 0000000000000000\n"));
    EXPECT_THAT(seen, testing::ContainsRegex("SigIgn: [0-9a-f]{12}0000\n")); // SIGPIPE, above all
    EXPECT_THAT(seen, HasSubstr("own session\n600 0\n700 0\n"));
    EXPECT_THAT(seen, HasSubstr("remote vpn.corvale.example 1194\n"));
    EXPECT_THAT(seen, HasSubstr("<--syslog>\n<corvale-openvpn>\n<--config>\n")); // so it also tells of a wrong file
    EXPECT_THAT(seen, HasSubstr("<--verb>\n<2>\n<--client>\n"));
    EXPECT_THAT(seen, HasSubstr("<--pull-filter>\n<accept>\n<redirect-gateway>\n"));
    EXPECT_THAT(seen, HasSubstr("<--pull-filter>\n<accept>\n<route >\n"));
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

TEST_F(HelperTest, withoutAWatchAFreshOpenvpnTakesThePlaceOfTheRunningOne)
{
    bus.activate(name, command(60'000, 10'000) << u"unwatched"_s);
    const auto first = run();
    ASSERT_TRUE(ready());
    QFile::remove(path(u"ready"));
    const auto second = run();
    EXPECT_EQ(outcome(first), "7");
    EXPECT_TRUE(waitFor([&] { return contentOf(path(u"started")).count('\n') == 2; }));
    ASSERT_TRUE(ready());
    EXPECT_EQ(outcome(send(u"killOpenVPN"_s)), "");
    EXPECT_EQ(outcome(second), "7");
}

TEST_F(HelperTest, aRequestThatComesWhileOpenvpnReadsItsFirstFileHasItReadTheNewOne)
{
    const auto first = run();
    ASSERT_TRUE(waitFor([&] { return QFile::exists(path(u"started")); }));
    writeFile(path(u"profile.ovpn"), QByteArray(profile) + "verb 4\n", 0600);
    const auto second = run();
    EXPECT_TRUE(waitFor([&] { return contentOf(path(u"reread")).contains("verb 4"); }));
    EXPECT_EQ(outcome(send(u"killOpenVPN"_s)), "");
    EXPECT_EQ(outcome(second), "7");
    EXPECT_EQ(contentOf(path(u"started")).count('\n'), 1) << "the end of a tunnel started another";
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
    writeFile(path(u"profile.ovpn"), QByteArray(profile) + "verb 4\n", 0600);
    const auto second = run();
    ASSERT_TRUE(waitFor([&] { return contentOf(path(u"run/openvpn.conf")).contains("verb 4"); }));
    EXPECT_FALSE(first.isFinished());
    QFile gate(path(u"gate"));
    ASSERT_TRUE(gate.open(QIODevice::ReadWrite | QIODevice::Unbuffered));
    // More than once: the shell may take a line before it looks at the signal.
    EXPECT_TRUE(waitFor([&] { return gate.write("\n") == 1 && first.isFinished(); }));
    EXPECT_EQ(outcome(first), "5");
    EXPECT_EQ(outcome(stopped), "");
    EXPECT_EQ(outcome(second), "6");
}

TEST_F(HelperTest, anotherUserCanNeitherTakeOverNorEndTheTunnelButHaveTheNextOne)
{
    const auto mine = run();
    ASSERT_TRUE(ready());
    runAsOther();
    EXPECT_THAT(othersAnswer(), HasSubstr("Error.Busy"));
    sendAsOther("killOpenVPN");
    EXPECT_THAT(othersAnswer(), HasSubstr("Error.NotAuthorized"));
    EXPECT_EQ(contentOf(path(u"started")).count('\n'), 1);
    EXPECT_EQ(outcome(send(u"killOpenVPN"_s)), "");
    EXPECT_EQ(outcome(mine), "7");

    QFile::remove(path(u"ready"));
    runAsOther();
    ASSERT_TRUE(ready());
    EXPECT_EQ(outcome(run()), "Busy");
    EXPECT_EQ(outcome(send(u"killOpenVPN"_s)), "") << "root may end it";
    EXPECT_THAT(othersAnswer(), HasSubstr("int32 7"));
}

TEST_F(HelperTest, ofTwoUsersWhoAskAtOnceOneGetsTheTunnel)
{
    authority.answer = ScriptedAuthority::Answer::Hold;
    const auto mine = run();
    runAsOther();
    ASSERT_TRUE(waitFor([&] { return authority.held.size() == 2; }));
    for (const QDBusMessage &question : authority.held)
        client().send(question.createReply(ScriptedAuthority::verdict(true)));
    const auto othersIs = [this](const char *text) { return contentOf(path(u"other")).contains(text); };
    EXPECT_TRUE(waitFor([&] { return mine.isFinished() || othersIs("Error.Busy"); }));
    EXPECT_NE(mine.isFinished() && mine.error().name().endsWith(u".Busy"), othersIs("Error.Busy"));
    EXPECT_TRUE(ready());
}

TEST_F(HelperTest, theFilesOfARequestAreReadWithTheRightsOfItsSender)
{
    // Root could read it, and it is a file of the right kind: but the sender is neither.
    sendAsOther("runOpenVPN string:" + path(u"profile.ovpn").toUtf8() + " string:/x string:/x");
    EXPECT_THAT(othersAnswer(), HasSubstr("cannot be opened in the caller's name"));
}

TEST_F(HelperTest, openvpnDiesWithTheHelperAndTheNextHelperCleansUp)
{
    const std::string version = outcome(send(u"getVersion"_s));
    const auto lost = run();
    ASSERT_TRUE(ready());
    const pid_t tunnel = contentOf(path(u"started")).trimmed().toInt();
    ::kill(helperPid(), SIGKILL);
    EXPECT_EQ(outcome(lost), "NoReply");
    EXPECT_TRUE(waitFor([&] { return hasEnded(tunnel); }));
    EXPECT_TRUE(QFile::exists(path(u"run/openvpn.conf")));
    EXPECT_EQ(outcome(send(u"getVersion"_s)), version);
    EXPECT_TRUE(waitFor([&] { return QDir(path(u"run")).isEmpty() && contentOf(path(u"restored")).count('\n') == 1; }));
}

TEST_F(HelperTest, theHelpersEndEndsTheTunnelCleanly)
{
    const auto call = run();
    ASSERT_TRUE(ready());
    ::kill(helperPid(), SIGTERM);
    EXPECT_EQ(outcome(call), "7");
    EXPECT_TRUE(waitFor([&] { return helperPid() < 0; }));
    EXPECT_EQ(contentOf(path(u"restored")).count('\n'), 1);
    EXPECT_TRUE(QDir(path(u"run")).isEmpty());
}
