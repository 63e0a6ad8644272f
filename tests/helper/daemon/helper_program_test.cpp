// SPDX-License-Identifier: MIT
#include "helper_fixture.h"
#include "tcp_peer.h"

#include <QDBusConnectionInterface>

TEST_F(HelperTest, anyoneMayAskTheVersionWhichIsTheOneInTheExecutable)
{
    authority.answer = ScriptedAuthority::Answer::No;
    EXPECT_THAT(contentOf(QStringLiteral(HELPER_TOOL)).toStdString(),
                HasSubstr("<key>CFBundleVersion</key>\n    <string>" + version() + "</string>"));
    EXPECT_TRUE(authority.asked.isEmpty());
}

TEST_F(TwoUsersTest, onlyAClearYesOfPolkitLetsAMessagePassAndAnOpenQuestionDelaysNobody)
{
    using Answer = ScriptedAuthority::Answer;
    authority.answer = Answer::Hold;
    const auto open = run();
    ASSERT_TRUE(waitFor([&] { return authority.held.size() == 1; }));
    EXPECT_EQ(authority.flags, 1U); // the person may be asked
    writeFile(path(u"others.ovpn"), profile, 0644);
    shell("chown nobody others.ovpn");
    run(u"others.ovpn", other());
    ASSERT_TRUE(waitFor([&] { return authority.held.size() == 2; }));
    for (const Answer answer : {Answer::No, Answer::Error, Answer::Unreadable}) {
        authority.answer = answer;
        EXPECT_EQ(outcome(run()), "NotAuthorized");
        EXPECT_EQ(outcome(kill()), "NotAuthorized");
    }
    client().unregisterService(u"org.freedesktop.PolicyKit1"_s);
    EXPECT_EQ(outcome(run()), "NotAuthorized");
    EXPECT_EQ(authority.asked.mid(1, 3), QStringList({name + u".run"_s, name + u".run"_s, name + u".kill"_s}));

    const QString left = other().baseService();
    QDBusConnection::disconnectFromBus(u"other"_s);
    ASSERT_TRUE(waitFor([&] { return !client().interface()->isServiceRegistered(left); }));
    ASSERT_TRUE(client().registerService(u"org.freedesktop.PolicyKit1"_s));
    client().send(authority.held[1].createReply(ScriptedAuthority::verdict(true)));
    openvpn("exit 3");
    client().send(authority.held[0].createReply(ScriptedAuthority::verdict(true)));
    EXPECT_EQ(outcome(open), "3");
    EXPECT_EQ(lines(u"started"), 1) << "it was started for somebody who had left";
}

TEST_F(TwoUsersTest, whatIsUnsafeOrNotListedIsRefusedWithItsReasonAndNothingStarts)
{
    const struct {
        QByteArray prepare;
        const char *error;
        const char *reason;
        QString up = u"client.up"_s;
        QString down = u"client.down"_s;
    } rows[] = {
        {"", "ConfigUnsafe", "cannot be opened"},
        {"ln -s profile.ovpn bad", "ConfigUnsafe", "cannot be opened"},
        {"ln profile.ovpn bad", "ConfigUnsafe", "more than one link"},
        {"install -m 644 -o nobody profile.ovpn bad", "ConfigUnsafe", "belong to the caller"},
        {"install -m 620 profile.ovpn bad", "ConfigUnsafe", "written by other users"},
        {"install -m 602 profile.ovpn bad", "ConfigUnsafe", "written by other users"},
        {"mkfifo -m 600 bad", "ConfigUnsafe", "not a regular file"},
        {"mkdir bad", "ConfigUnsafe", "not a regular file"},
        {"truncate -s 262145 bad", "ConfigUnsafe", "too large"},
        {"truncate -s 262144 bad", "ConfigRejected", "Line 1"},
        {"{ cat profile.ovpn; echo up /tmp/secret; } >bad", "ConfigRejected", "Line 5"},
        {"cp profile.ovpn bad; echo id >changed", "ScriptRejected", "differs", u"changed"_s},
        {"cp profile.ovpn bad", "ScriptRejected", "differs", u"client.up"_s, u"changed"_s},
        {"cp profile.ovpn bad", "ScriptRejected", "cannot be opened", u"missing"_s},
        {"cp profile.ovpn bad; truncate -s 65537 changed", "ScriptRejected", "too large", u"changed"_s},
        {"cp profile.ovpn bad; ln -s / run", "Internal", "cannot be stored"},
        {"cp profile.ovpn bad; install -d -o nobody run", "Internal", "cannot be stored"},
        {"cp profile.ovpn bad; rm client.down", "Internal", "scripts are not installed"},
    };
    for (const auto &row : rows) {
        shell("rm -rf bad run; umask 077; " + row.prepare);
        const auto call = run(u"bad", client(), row.up, row.down);
        EXPECT_EQ(outcome(call), row.error) << row.prepare.constData();
        EXPECT_THAT(call.error().message().toStdString(), testing::AllOf(HasSubstr(row.reason), Not(HasSubstr("secr"))))
            << row.prepare.constData();
    }
    // Root could read it, and it is a file of the right kind: but the sender is neither root nor in its group.
    shell("chmod 640 profile.ovpn");
    const auto call = run(u"profile.ovpn", other());
    EXPECT_EQ(outcome(call), "ConfigUnsafe");
    EXPECT_THAT(call.error().message().toStdString(), HasSubstr("cannot be opened in the caller's name"));
    EXPECT_FALSE(exists(u"started"));
    EXPECT_FALSE(exists(u"run/openvpn.conf"));
}

TEST_F(HelperTest, aCopyOfTheScriptsIsAcceptedAndTheReplyIsHowOpenvpnEnded)
{
    script(u"client.down", "sleep 0.1; echo >>restored");
    shell("cp client.up copy.up; cp client.down copy.down");
    int runs = 0;
    for (const auto &[ending, status] : {std::pair("exit 0", "0"),
                                         {"exit 3", "3"},
                                         {"(read -r line <>gate) & echo $! >script; kill -KILL $$", "137"},
                                         {"kill -SEGV $$", "139"}}) {
        openvpn(ending);
        EXPECT_EQ(outcome(run(u"profile.ovpn", client(), u"copy.up", u"copy.down")), status);
        EXPECT_EQ(lines(u"restored"), ++runs) << "answered before everything was cleaned up";
        EXPECT_TRUE(QDir(path(u"run")).isEmpty());
    }
    EXPECT_TRUE(waitFor([&] { return hasEnded(pidIn(u"script")); })) << "a script outlived its OpenVPN";

    shell("rm openvpn");
    EXPECT_EQ(outcome(run()), "Internal");
}

TEST_F(HelperTest, openvpnGetsAFixedCommandAndNothingOfTheHelpersOwnState)
{
    shell("install -d -m 777 run");
    // The shell reads its signals itself: while it starts a program it blocks them.
    openvpn("exec >seen; tr '\\0' '\\n' </proc/$$/environ; umask; ls /proc/$$/fd; echo from $OLDPWD\n"
            "while read -r key value; do case $key in Sig[BI]*) echo $key $value; esac; done </proc/$$/status\n"
            "[ $(cut -d' ' -f6 /proc/$$/stat) = $$ ] && echo own session\n"
            "stat -c '%a %u' \"$9\" run; cat \"$9\"; for word; do echo \"<$word>\"; done");
    ASSERT_EQ(outcome(run()), "0");
    const std::string seen = contentOf(path(u"seen")).toStdString();
    // Descriptors: the three standard ones, and as number 10 the script, which the shell itself has opened.
    EXPECT_THAT(seen, testing::StartsWith("PATH=/usr/sbin:/usr/bin:/sbin:/bin\nLC_ALL=C\n0077\n0\n1\n10\n2\nfrom /\n"));
    EXPECT_THAT(seen, HasSubstr("SigBlk: 0000000000000000\n"));
    EXPECT_THAT(seen, testing::ContainsRegex("SigIgn: [0-9a-f]{12}0000\n")); // SIGPIPE, above all
    EXPECT_THAT(seen, HasSubstr("own session\n600 0\n700 0\n"));
    EXPECT_THAT(seen, HasSubstr("remote vpn.corvale.example 1194\n"));
    EXPECT_THAT(seen, HasSubstr("<--syslog>\n<corvale-openvpn>\n<--connect-retry>\n<1>\n<2>\n"
                                "<--server-poll-timeout>\n<10>\n<--config>\n")); // so it also tells of a wrong file
    EXPECT_THAT(seen, HasSubstr("<--persist-tun>\n"));
    EXPECT_THAT(seen, HasSubstr("<--verb>\n<2>\n<--client>\n"));
    EXPECT_THAT(seen, HasSubstr("<--script-security>\n<2>\n<--up>\n<" + path(u"client.up").toStdString() +
                                ">\n<--down>\n<" + path(u"client.down").toStdString() + ">\n"));
    EXPECT_THAT(seen, HasSubstr("<--management>\n<" + path(u"run/management").toStdString() +
                                ">\n<unix>\n<--management-client-user>\n<root>\n<--management-query-passwords>\n"));
    for (const std::string option : {"redirect-gateway", "route ", "dhcp-option DNS "})
        EXPECT_THAT(seen, HasSubstr("<--pull-filter>\n<accept>\n<" + option + ">\n"));
    EXPECT_THAT(seen, testing::EndsWith("<--pull-filter>\n<ignore>\n<>\n"));
}

TEST_F(HelperTest, aTakenPortIsReportedAndNothingStarts)
{
    const TCPPeer stranger(1337);
    EXPECT_EQ(outcome(run()), "PortBusy");
    EXPECT_FALSE(exists(u"started"));
}

TEST_F(HelperTest, aTunnelWhoseGateDiesIsEndedAndTheNextOneHasThePort)
{
    for (int tunnel = 0; tunnel < 2; ++tunnel) {
        const auto call = runUntilReady();
        const QByteArray helper = QByteArray::number(helperPid());
        const QString children = u"/proc/%1/task/%1/children"_s.arg(QString::fromLatin1(helper));
        const pid_t gate = contentOf(children).split(' ').first().toInt(); // the first to be started
        ASSERT_EQ(contentOf(u"/proc/%1/comm"_s.arg(gate)), "corvale-gate\n");
        ::kill(gate, SIGKILL);
        EXPECT_EQ(outcome(call), "7");
    }
}

TEST_F(HelperTest, withoutAWatchAFreshOpenvpnTakesTheRunningOnesPlace)
{
    helpers(60'000, 10'000, u"unwatched"_s);
    const auto first = runUntilReady();
    const auto second = runUntilReady();
    EXPECT_EQ(outcome(first), "7");
    EXPECT_EQ(lines(u"started"), 2);
    EXPECT_EQ(outcome(kill()), "");
    EXPECT_EQ(outcome(second), "7");
}

TEST_F(HelperTest, aRequestThatComesWhileOpenvpnReadsItsFirstFileHasItReadTheNewOne)
{
    const auto first = run();
    ASSERT_TRUE(waitFor([&] { return exists(u"started"); }));
    writeFile(path(u"profile.ovpn"), QByteArray(profile) + "verb 4\n", 0600);
    const auto second = run();
    EXPECT_TRUE(waitFor([&] { return contentOf(path(u"reread")).contains("verb 4"); }));
    EXPECT_FALSE(first.isFinished());
    EXPECT_EQ(outcome(kill()), "");
    EXPECT_EQ(outcome(second), "7");
    EXPECT_EQ(lines(u"started"), 1) << "the end of a tunnel started another";
}

TEST_F(HelperTest, aRequestThatMeetsAnEndingOpenvpnGetsAFreshOne)
{
    // It has read its file and dies of the request to read it again.
    openvpn(readAndStay("exit 5"));
    const auto first = runUntilReady();
    openvpn("exit 6");
    const auto second = run();
    EXPECT_EQ(outcome(first), "5");
    EXPECT_EQ(outcome(second), "6");
}

TEST_F(HelperTest, aRequestThatComesWhileOpenvpnIsBeingStoppedIsServedAfterwards)
{
    openvpn("trap 'read -r line <>gate; exit 5' TERM; " + readAndStay(":"));
    const auto first = runUntilReady();
    const auto stopped = kill();
    openvpn("exit 6");
    writeFile(path(u"profile.ovpn"), QByteArray(profile) + "verb 4\n", 0600);
    const auto second = run();
    ASSERT_TRUE(waitFor([&] { return contentOf(path(u"run/openvpn.conf")).contains("verb 4"); }));
    EXPECT_FALSE(first.isFinished() || stopped.isFinished());
    QFile gate(path(u"gate"));
    ASSERT_TRUE(gate.open(QIODevice::ReadWrite | QIODevice::Unbuffered));
    // More than once: the shell may take a line before it looks at the signal.
    EXPECT_TRUE(waitFor([&] { return gate.write("\n") == 1 && first.isFinished(); }));
    EXPECT_EQ(outcome(first), "5");
    EXPECT_EQ(outcome(stopped), "");
    EXPECT_EQ(outcome(second), "6");
}

TEST_F(TwoUsersTest, anotherUserCanNeitherTakeOverNorEndTheTunnelButHaveTheNextOne)
{
    // With a script that only the user's group may read.
    shell("install -m 600 -o nobody profile.ovpn others.ovpn; install -m 640 -g nogroup client.up others.up");
    const auto runAsOther = [this] { return run(u"others.ovpn", other(), u"others.up"); };
    const auto mine = runUntilReady();
    EXPECT_EQ(outcome(runAsOther()), "Busy");
    EXPECT_EQ(outcome(kill(other())), "NotAuthorized");
    EXPECT_EQ(lines(u"started"), 1);
    EXPECT_EQ(outcome(kill()), "");
    EXPECT_EQ(outcome(mine), "7");

    QFile::remove(path(u"ready"));
    const auto others = runAsOther();
    ASSERT_TRUE(waitFor([&] { return exists(u"ready"); }));
    EXPECT_EQ(outcome(run()), "Busy");
    EXPECT_EQ(outcome(kill()), "") << "root may end it";
    EXPECT_EQ(outcome(others), "7");

    // Of two who ask at once, one gets the tunnel.
    authority.answer = ScriptedAuthority::Answer::Hold;
    const auto first = run();
    const auto second = runAsOther();
    ASSERT_TRUE(waitFor([&] { return authority.held.size() == 2; }));
    for (const QDBusMessage &question : authority.held)
        client().send(question.createReply(ScriptedAuthority::verdict(true)));
    EXPECT_TRUE(waitFor([&] { return first.isFinished() || second.isFinished(); }));
    EXPECT_NE(first.isFinished(), second.isFinished());
    EXPECT_EQ(outcome(first.isFinished() ? first : second), "Busy");
}

TEST_F(HelperTest, openvpnDiesWithTheHelperAndTheNextHelperCleansUp)
{
    const std::string before = version();
    const auto lost = runUntilReady();
    ::kill(helperPid(), SIGKILL);
    EXPECT_EQ(outcome(lost), "NoReply");
    EXPECT_TRUE(waitFor([&] { return hasEnded(pidIn(u"started")); }));
    EXPECT_TRUE(exists(u"run/openvpn.conf"));
    EXPECT_EQ(version(), before);
    EXPECT_TRUE(waitFor([&] { return QDir(path(u"run")).isEmpty() && lines(u"restored") == 1; }));
}
