// SPDX-License-Identifier: MIT
// What hostile or broken callers, files and programs can cost the helper.

#include "helper_fixture.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <linux/fuse.h>
#include <sys/mount.h>
#include <sys/uio.h>

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
        if (::mount("hanging", where_, "fuse", MS_NOSUID | MS_NODEV, options) != 0 || !takesQuestion())
            return;
        struct {
            fuse_out_header header;
            fuse_init_out init;
        } answer{};
        answer.header = {sizeof answer, 0, question_.unique};
        answer.init.major = FUSE_KERNEL_VERSION;
        answer.init.minor = FUSE_KERNEL_MINOR_VERSION;
        answer.init.max_write = 4096;
        works_ = ::write(device_, &answer, sizeof answer) == sizeof answer;
    }
    ~HangingFileSystem()
    {
        ::close(device_);
        ::umount2(where_, MNT_DETACH);
    }
    HangingFileSystem(const HangingFileSystem &) = delete;
    HangingFileSystem &operator=(const HangingFileSystem &) = delete;

    [[nodiscard]] bool works() const { return works_; }
    [[nodiscard]] bool takesQuestion()
    {
        char rest[8192 + FUSE_MIN_READ_BUFFER];
        const iovec parts[] = {{&question_, sizeof question_}, {rest, sizeof rest}};
        return waitFor([&] { return ::readv(device_, parts, 2) > 0; });
    }

private:
    const QByteArray where_;
    const int device_;
    fuse_in_header question_{};
    bool works_ = false;
};

} // namespace

TEST_F(TwoUsersTest, aFileSystemThatHangsCostsItsCallerTwoSecondsAndNobodyElseAnything)
{
    auto hanging = std::make_unique<HangingFileSystem>(path(u"hanging"));
    if (!hanging->works())
        GTEST_SKIP() << "no FUSE here";
    const auto began = steady_clock::now();
    std::vector<QDBusPendingCall> stuck;
    for (int i = 0; i < 16; ++i)
        stuck.push_back(run(u"hanging/profile.ovpn"));
    ASSERT_TRUE(hanging->takesQuestion());
    EXPECT_NE(version(), "no answer");
    EXPECT_EQ(outcome(run(u"missing", other())), "ConfigUnsafe");
    EXPECT_EQ(outcome(run()), "Busy") << "a request counts until its files are read";
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

TEST_F(TwoUsersTest, aRequestWhoseFilesAreBeingReadCanBeEndedByItsUser)
{
    HangingFileSystem hanging(path(u"hanging"));
    if (!hanging.works())
        GTEST_SKIP() << "no FUSE here";
    const auto reading = run(u"hanging/profile.ovpn");
    ASSERT_TRUE(hanging.takesQuestion());
    EXPECT_EQ(outcome(kill(other())), "");
    EXPECT_FALSE(reading.isFinished());
    EXPECT_EQ(outcome(kill()), "");
    EXPECT_EQ(outcome(reading), "Internal");
    EXPECT_EQ(reading.error().message(), u"The tunnel was ended before it began."_s);
    // The child that is stuck holds nothing of a helper that dies.
    ::kill(helperPid(), SIGKILL);
    EXPECT_TRUE(waitFor([] { return helperPid() == 0; }));
}

TEST_F(TwoUsersTest, aUserHasSixteenMessagesUnderWayAndAnotherUserItsOwn)
{
    authority.answer = ScriptedAuthority::Answer::Hold;
    for (int i = 0; i < 16; ++i)
        kill();
    ASSERT_TRUE(waitFor([&] { return authority.held.size() == 16; }));
    EXPECT_EQ(outcome(run()), "Busy");
    EXPECT_EQ(authority.held.size(), 16);
    authority.answer = ScriptedAuthority::Answer::No;
    EXPECT_EQ(outcome(kill(other())), "NotAuthorized");

    client().send(authority.held[0].createReply(ScriptedAuthority::verdict(false)));
    EXPECT_TRUE(waitFor([&] { return outcome(run()) == "NotAuthorized"; }));
}

TEST_F(HelperTest, messagesLeaveNoMemoryBehind)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "what was freed is kept for a while";
#endif
    const auto memoryAfter = [this](int messages) {
        for (int sent = 0; sent < messages; sent += 10) {
            std::vector<QDBusPendingCall> calls;
            while (calls.size() < 10)
                calls.push_back(kill());
            EXPECT_EQ(outcome(calls.back()), "");
        }
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
    EXPECT_NE(version(), "no answer");
    // So that they are there all at once.
    ::kill(helperPid(), SIGSTOP);
    for (int i = 0; i < 4; ++i)
        calls.push_back(run(huge));
    const pid_t helper = helperPid(); // answered by the bus after it has them all
    ::kill(helper, SIGCONT);
    for (const auto &call : calls)
        EXPECT_EQ(outcome(call), "ConfigUnsafe");
    EXPECT_NE(version(), "no answer");
    EXPECT_TRUE(authority.asked.isEmpty());
}

TEST_F(HelperTest, ofTheRequestsThatWaitForATunnelsEndTheOldestGivesWay)
{
    std::vector<QDBusPendingCall> calls{runUntilReady()};
    for (int i = 1; i <= 16; ++i)
        calls.push_back(run());
    EXPECT_EQ(outcome(calls[0]), "Busy");
    EXPECT_EQ(outcome(kill()), "");
    for (size_t i = 1; i < calls.size(); ++i)
        EXPECT_EQ(outcome(calls[i]), "7") << i;
}

TEST_F(HelperTest, whatDoesNotEndIsKilledWithAllThatItStarted)
{
    helpers(60'000, 200);
    script(u"client.down", "echo >>restored; read -r line <>gate");
    openvpn("trap '' TERM; (trap '' TERM; read -r line <>gate) & echo $! >script; wait");
    const auto call = run();
    ASSERT_TRUE(waitFor([&] { return pidIn(u"script") > 0; }));
    EXPECT_EQ(outcome(kill()), "");
    EXPECT_EQ(outcome(call), "137");
    EXPECT_TRUE(waitFor([&] { return hasEnded(pidIn(u"script")); }));
    EXPECT_EQ(lines(u"restored"), 1);
}

TEST_F(HelperTest, onlyTheNextHelperEndsAnOpenvpnThatOutlivedItsOwnAndNoOtherProcessOfThatNumber)
{
    helpers(60'000, 200);
    openvpn("trap '' TERM; (trap '' TERM; read -r line <>gate) & echo $! >script; " + readAndStay(":"));
    const auto lost = runUntilReady();
    ASSERT_TRUE(waitFor([&] { return exists(u"run/openvpn.process"); }));
    const QByteArray record = contentOf(path(u"run/openvpn.process"));
    EXPECT_EQ(QProcess::execute(command.first(), command.sliced(1)), EXIT_FAILURE) << "the name is taken";
    EXPECT_FALSE(exists(u"restored"));
    ::kill(helperPid(), SIGKILL);
    EXPECT_EQ(outcome(lost), "NoReply");
    EXPECT_FALSE(hasEnded(pidIn(u"started")));
    EXPECT_NE(version(), "no answer");
    EXPECT_TRUE(waitFor([&] { return hasEnded(pidIn(u"started")) && hasEnded(pidIn(u"script")); }));
    EXPECT_TRUE(waitFor([&] { return QDir(path(u"run")).isEmpty(); }));

    ::kill(helperPid(), SIGKILL);
    ASSERT_TRUE(waitFor([] { return helperPid() == 0; }));
    writeFile(path(u"run/openvpn.process"), QByteArray::number(::getpid()) + record.mid(record.indexOf(' ')));
    EXPECT_NE(version(), "no answer"); // and this process is still here to say so
    EXPECT_TRUE(waitFor([&] { return QDir(path(u"run")).isEmpty(); }));
}

TEST_F(HelperTest, aHelperWithoutATunnelLeavesOnceEverythingIsRestoredAndTheNextMessageStartsAnother)
{
    helpers(100, 10'000);
    for (const char *const left : {"run/dns", "kept"}) {
        QFile::remove(path(u"restored"));
        script(u"client.down", "echo >>restored; [ $(wc -l <restored) -lt 4 ] || rm " + QByteArray(left));
        openvpn("trap 'exit 7' TERM; echo >" + QByteArray(left) + "; " + readAndStay(":"));
        const auto running = runUntilReady();
        const pid_t helper = helperPid();
        EXPECT_FALSE(waitFor([&] { return helperPid() != helper; }, 400ms)) << "it left its tunnel alone";
        EXPECT_EQ(outcome(kill()), "");
        EXPECT_EQ(outcome(running), "7");
        EXPECT_TRUE(waitFor([&] { return hasEnded(helper); }));
        EXPECT_FALSE(exists(QString::fromUtf8(left))) << left;
        EXPECT_EQ(lines(u"restored"), 4);
    }
}

TEST_F(HelperTest, whatAPowerCutHasLeftIsRestoredAtTheFirstStart)
{
    script(u"client.down", "rm kept");
    writeFile(path(u"kept"), "");
    EXPECT_NE(version(), "no answer");
    EXPECT_TRUE(waitFor([&] { return !exists(u"kept"); }));
}

TEST_F(HelperTest, halfAFileIsNone)
{
    helpers(60'000, 10'000, u"halves"_s);
    EXPECT_EQ(outcome(run()), "ConfigUnsafe");
}

TEST_F(HelperTest, aRequestThatMeetsTheHelpersEndIsLeftToTheNextOneAfterThatEnd)
{
    openvpn("trap 'echo >told; read -r line <>gate; exit 7' TERM; " + readAndStay(":"));
    const auto running = runUntilReady();
    const pid_t first = helperPid();
    ::kill(first, SIGINT);
    ASSERT_TRUE(waitFor([&] { return exists(u"told"); }));
    std::vector<QDBusPendingCall> late;
    for (int i = 0; i < 256; ++i)
        late.push_back(run());
    EXPECT_EQ(outcome(late.back()), "Busy") << "more wait than the next helper may get";
    shell("echo >gate");
    EXPECT_EQ(outcome(late.front()), "Leaving");
    EXPECT_NE(helperPid(), first); // it has given up its name before it says so
    EXPECT_EQ(outcome(running), "7");
    EXPECT_EQ(lines(u"started"), 1);
    EXPECT_EQ(lines(u"restored"), 1);
    EXPECT_TRUE(QDir(path(u"run")).isEmpty());
}
