// SPDX-License-Identifier: MIT
// What hostile or broken callers, files and programs can cost the helper.

#include "helper_fixture.h"

#include <QProcess>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <linux/fuse.h>
#include <sys/mount.h>

using std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {

/// A file system of the test's own that answers nothing: whoever opens a file there is stuck, beyond SIGKILL even, once
/// the question was taken. Ends with the object.
class HangingFileSystem {
public:
    explicit HangingFileSystem(const QString &where)
        : where_(where.toUtf8()), device_(::open("/dev/fuse", O_RDWR | O_NONBLOCK | O_CLOEXEC))
    {
        QDir().mkpath(where);
        const QByteArray options = "rootmode=40000,user_id=0,group_id=0,allow_other,fd=" + QByteArray::number(device_);
        mounted_ = ::mount("hanging", where_, "fuse", MS_NOSUID | MS_NODEV, options) == 0;
        char request[8192 + FUSE_MIN_READ_BUFFER];
        if (!mounted_ || !waitFor([&] { return ::read(device_, request, sizeof request) > 0; }))
            return;
        struct {
            fuse_out_header header;
            fuse_init_out init;
        } answer{};
        answer.header = {sizeof answer, 0, reinterpret_cast<fuse_in_header *>(request)->unique};
        answer.init.major = FUSE_KERNEL_VERSION;
        answer.init.minor = FUSE_KERNEL_MINOR_VERSION;
        answer.init.max_write = 4096;
        mounted_ = ::write(device_, &answer, sizeof answer) == sizeof answer;
    }
    ~HangingFileSystem()
    {
        ::close(device_);
        ::umount2(where_, MNT_DETACH);
    }
    HangingFileSystem(const HangingFileSystem &) = delete;
    HangingFileSystem &operator=(const HangingFileSystem &) = delete;

    [[nodiscard]] bool works() const { return mounted_; }
    [[nodiscard]] bool takesQuestion() const
    {
        char request[FUSE_MIN_READ_BUFFER];
        return waitFor([&] { return ::read(device_, request, sizeof request) > 0; });
    }

private:
    const QByteArray where_;
    const int device_;
    bool mounted_ = false;
};

} // namespace

TEST_F(HelperTest, aFileSystemThatHangsCostsItsCallerTwoSecondsAndNobodyElseAnything)
{
    auto hanging = std::make_unique<HangingFileSystem>(path(u"hanging"));
    if (!hanging->works())
        GTEST_SKIP() << "no FUSE here";
    const auto began = steady_clock::now();
    std::vector<QDBusPendingCall> stuck;
    for (int i = 0; i < 5; ++i)
        stuck.push_back(run(u"hanging/profile.ovpn"));
    ASSERT_TRUE(hanging->takesQuestion());
    EXPECT_NE(outcome(send(u"getVersion"_s)), "no answer");
    sendAsOther("runOpenVPN string:/missing string:/x string:/x");
    EXPECT_THAT(othersAnswer(), HasSubstr("Error.ConfigUnsafe"));
    EXPECT_LT(steady_clock::now() - began, 1500ms);
    for (const auto &call : stuck)
        EXPECT_EQ(outcome(call), "ConfigUnsafe");
    EXPECT_GT(steady_clock::now() - began, 1900ms);
    EXPECT_LT(steady_clock::now() - began, 4000ms);
    // The child cannot be ended, so there is not a second one.
    const auto again = steady_clock::now();
    EXPECT_EQ(outcome(run()), "ConfigUnsafe");
    EXPECT_LT(steady_clock::now() - again, 1000ms);

    hanging.reset();
    openvpn("exit 3");
    EXPECT_TRUE(waitFor([&] { return outcome(run()) == "3"; }));
}

TEST_F(HelperTest, aRequestWhoseFilesAreBeingReadCanBeEnded)
{
    const HangingFileSystem hanging(path(u"hanging"));
    if (!hanging.works())
        GTEST_SKIP() << "no FUSE here";
    const auto reading = run(u"hanging/profile.ovpn");
    ASSERT_TRUE(hanging.takesQuestion());
    EXPECT_EQ(outcome(send(u"killOpenVPN"_s)), "");
    EXPECT_EQ(outcome(reading), "Internal");
    EXPECT_EQ(reading.error().message(), u"The tunnel was ended before it began."_s);
}

TEST_F(HelperTest, aUserHasSixteenMessagesUnderWayAndAnotherUserItsOwn)
{
    authority.answer = ScriptedAuthority::Answer::Hold;
    for (int i = 0; i < 16; ++i)
        send(u"killOpenVPN"_s);
    ASSERT_TRUE(waitFor([&] { return authority.held.size() == 16; }));
    EXPECT_EQ(outcome(run()), "Busy");
    EXPECT_EQ(authority.held.size(), 16);
    authority.answer = ScriptedAuthority::Answer::No;
    sendAsOther("killOpenVPN");
    EXPECT_THAT(othersAnswer(), HasSubstr("Error.NotAuthorized"));

    client().send(authority.held[0].createReply(ScriptedAuthority::verdict(false)));
    EXPECT_TRUE(waitFor([&] { return outcome(run()) == "NotAuthorized"; }));
}

TEST_F(HelperTest, messagesLeaveNoMemoryBehind)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "what was freed is kept for a while";
#endif
    const auto memoryAfter = [](int messages) {
        for (int i = 0; i < messages; ++i)
            EXPECT_EQ(outcome(send(u"killOpenVPN"_s)), "");
        const QByteArray status = contentOf(u"/proc/%1/status"_s.arg(helperPid()));
        return status.sliced(status.indexOf("RssAnon:") + 8).trimmed().split(' ').first().toInt(); // KiB
    };
    const int steady = memoryAfter(200);
    EXPECT_LT(memoryAfter(1000), steady + 500) << "an answer of polkit's alone has more than half of a KiB";
}

TEST_F(HelperTest, hugeMessagesAreRefusedAndDoNotMakeTheHelperDeaf)
{
    authority.answer = ScriptedAuthority::Answer::Hold;
    const QString huge(30'000'000, u'a');
    std::vector<QDBusPendingCall> calls;
    EXPECT_NE(outcome(send(u"getVersion"_s)), "no answer");
    // So that they are there all at once.
    ::kill(helperPid(), SIGSTOP);
    for (int i = 0; i < 4; ++i)
        calls.push_back(send(u"runOpenVPN"_s, {huge, path(u"client.up"), path(u"client.down")}));
    const pid_t helper = helperPid(); // answered by the bus after it has them all
    ::kill(helper, SIGCONT);
    for (const auto &call : calls)
        EXPECT_EQ(outcome(call), "ConfigUnsafe");
    EXPECT_NE(outcome(send(u"getVersion"_s)), "no answer");
    EXPECT_TRUE(authority.asked.isEmpty());
}

TEST_F(HelperTest, ofTheRequestsThatWaitForATunnelsEndTheOldestGivesWay)
{
    std::vector<QDBusPendingCall> calls{run()};
    ASSERT_TRUE(ready());
    for (int i = 1; i <= 16; ++i)
        calls.push_back(run());
    EXPECT_EQ(outcome(calls[0]), "Busy");
    EXPECT_EQ(outcome(send(u"killOpenVPN"_s)), "");
    for (size_t i = 1; i < calls.size(); ++i)
        EXPECT_EQ(outcome(calls[i]), "7") << i;
}

TEST_F(HelperTest, anOpenvpnThatDoesNotEndIsKilledWithAllThatItStarted)
{
    limits(60'000, 200);
    openvpn("trap '' TERM; (trap '' TERM; read -r line <>" + path(u"gate").toUtf8() + ") & echo $! >" +
            path(u"script").toUtf8() + "; wait");
    const auto call = run();
    ASSERT_TRUE(waitFor([&] { return pidIn(u"script") > 0; }));
    EXPECT_EQ(outcome(send(u"killOpenVPN"_s)), "");
    EXPECT_EQ(outcome(call), "137");
    EXPECT_TRUE(waitFor([&] { return hasEnded(pidIn(u"script")); }));
    EXPECT_EQ(contentOf(path(u"restored")).count('\n'), 1);
}

TEST_F(HelperTest, aScriptOfAnOpenvpnThatWasKilledEndsBeforeTheCleaningUp)
{
    openvpn("(read -r line <>" + path(u"gate").toUtf8() + ") & echo $! >" + path(u"script").toUtf8() +
            "; kill -KILL $$");
    EXPECT_EQ(outcome(run()), "137");
    EXPECT_TRUE(waitFor([&] { return hasEnded(pidIn(u"script")); }));
}

TEST_F(HelperTest, theNextHelperEndsAnOpenvpnThatOutlivedItsOwnAndNoOtherProcessOfThatNumber)
{
    limits(60'000, 200);
    openvpn("trap '' TERM; " + readAndStay(":"));
    const auto lost = run();
    ASSERT_TRUE(ready());
    ASSERT_TRUE(waitFor([&] { return QFile::exists(path(u"run/openvpn.process")); }));
    const QByteArray record = contentOf(path(u"run/openvpn.process"));
    const pid_t tunnel = pidIn(u"started");
    ::kill(helperPid(), SIGKILL);
    EXPECT_EQ(outcome(lost), "NoReply");
    EXPECT_FALSE(hasEnded(tunnel));
    EXPECT_NE(outcome(send(u"getVersion"_s)), "no answer");
    EXPECT_TRUE(hasEnded(tunnel));
    EXPECT_TRUE(waitFor([&] { return QDir(path(u"run")).isEmpty(); }));

    ::kill(helperPid(), SIGKILL);
    ASSERT_TRUE(waitFor([] { return helperPid() < 0; }));
    writeFile(path(u"run/openvpn.process"), QByteArray::number(::getpid()) + record.mid(record.indexOf(' ')));
    EXPECT_NE(outcome(send(u"getVersion"_s)), "no answer"); // and this process is still here to say so
    EXPECT_TRUE(waitFor([&] { return QDir(path(u"run")).isEmpty(); }));
}

TEST_F(HelperTest, whatCouldNotBeRestoredIsTriedAgainBeforeTheHelperLeaves)
{
    limits(100, 10'000);
    for (const char16_t *const note : {u"run/dns", u"kept"}) {
        const QString left = path(note);
        QFile::remove(path(u"restored"));
        writeFile(path(u"client.down"),
                  "#!/bin/sh\necho restored >>" + path(u"restored").toUtf8() + "\n[ $(wc -l <" +
                      path(u"restored").toUtf8() + ") -lt 4 ] || rm " + left.toUtf8() + "\n",
                  0755);
        openvpn("echo >" + left.toUtf8());
        EXPECT_EQ(outcome(run()), "0");
        const pid_t helper = helperPid();
        EXPECT_TRUE(waitFor([&] { return !QFile::exists(left); })) << left.toStdString();
        EXPECT_EQ(contentOf(path(u"restored")).count('\n'), 4);
        EXPECT_TRUE(waitFor([&] { return hasEnded(helper); }));
    }
}

TEST_F(HelperTest, whatAPowerCutHasLeftIsRestoredAtTheFirstStart)
{
    writeFile(path(u"kept"), "");
    EXPECT_NE(outcome(send(u"getVersion"_s)), "no answer");
    EXPECT_TRUE(waitFor([&] { return QFile::exists(path(u"restored")); }));
    QFile::remove(path(u"kept"));
}

TEST_F(HelperTest, aClientDownThatHangsIsKilled)
{
    limits(60'000, 200);
    writeFile(path(u"client.down"), "#!/bin/sh\nread -r line <>" + path(u"gate").toUtf8() + "\n", 0755);
    openvpn("exit 3");
    EXPECT_EQ(outcome(run()), "3");
}

TEST_F(HelperTest, halfAFileIsNone)
{
    bus.activate(name, command(60'000, 10'000) << u"halves"_s);
    EXPECT_EQ(outcome(run()), "ConfigUnsafe");
}

TEST_F(HelperTest, aSecondHelperLeavesTheTunnelOfTheFirstAlone)
{
    const auto tunnel = run();
    ASSERT_TRUE(ready());
    ASSERT_TRUE(waitFor([&] { return QFile::exists(path(u"run/openvpn.process")); }));
    const QStringList words = command(60'000, 10'000);
    EXPECT_EQ(QProcess::execute(words.first(), words.sliced(1)), EXIT_FAILURE);
    EXPECT_FALSE(QFile::exists(path(u"restored")));
    EXPECT_FALSE(hasEnded(pidIn(u"started")));
    EXPECT_EQ(outcome(send(u"killOpenVPN"_s)), "");
    EXPECT_EQ(outcome(tunnel), "7");
}

TEST_F(HelperTest, aRequestThatMeetsTheHelpersEndIsLeftToTheNextOneAfterThatEnd)
{
    openvpn("trap 'echo >" + path(u"told").toUtf8() + "; sleep 0.3; exit 7' TERM; " + readAndStay(":"));
    const auto running = run();
    ASSERT_TRUE(ready());
    const pid_t first = helperPid();
    ::kill(first, SIGTERM);
    ASSERT_TRUE(waitFor([&] { return QFile::exists(path(u"told")); }));
    EXPECT_EQ(outcome(run()), "Leaving");
    EXPECT_NE(helperPid(), first); // it has given up its name before it says so
    EXPECT_EQ(outcome(running), "7");
    EXPECT_EQ(contentOf(path(u"started")).count('\n'), 1);
}

TEST_F(HelperTest, aHelperWithoutWorkLeavesAndTheNextMessageStartsAnother)
{
    limits(100, 10'000);
    const auto running = run();
    ASSERT_TRUE(ready());
    const pid_t first = helperPid();
    ASSERT_FALSE(waitFor([&] { return helperPid() != first; }, 400ms)) << "it left its tunnel alone";
    EXPECT_EQ(outcome(send(u"killOpenVPN"_s)), "");
    EXPECT_TRUE(waitFor([&] { return hasEnded(first); }));
    EXPECT_NE(outcome(send(u"getVersion"_s)), "NoReply");
    EXPECT_NE(helperPid(), first);
}
