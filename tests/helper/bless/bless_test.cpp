// SPDX-License-Identifier: MIT
// The bless tool as a process of its own, on folders and a bus of the test's own, with shell commands for whoever
// wants to deceive it.

#include "files.h"
#include "private_bus.h"
#include "spoilt_helper.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QElapsedTimer>
#include <QProcess>

#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using testing::HasSubstr;

namespace {

const QString name = u"com.corvale.macos.helper"_s;

/// What a shell says to these commands, and its status at the end.
std::string shell(const QString &commands)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(u"sh"_s, {u"-c"_s, commands + u"\necho =$?"_s});
    process.waitForFinished(-1);
    return process.readAll().toStdString();
}

class BlessTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "the bless tool is root's";
        QDir(root).removeRecursively();
        writeFile(root + u"/source/good"_s, good, 0755);
        ASSERT_TRUE(bus.start());
    }
    void TearDown() override { QDBusConnection::disconnectFromBus(u"test"_s); }

    /// In the folder of sources; `environment` goes before the command.
    std::string bless(const QString &arguments, const QString &environment = {}) const
    {
        return shell(u"cd %1/source && umask 0 && %2 %3 %1 %4"_s.arg(root, environment, tool, arguments));
    }
    /// Every file, with its mode and its sum.
    std::string installed() const
    {
        return shell(
            u"cd %1 && find libexec policies services units -type f -printf '%m ' -exec sha256sum {} ';' | sort"_s.arg(
                root));
    }
    /// Runs the tool until the `count`th of these system calls, and lets `interfere` happen there, before it goes on.
    /// False when it makes fewer. What it says is in the file "said".
    bool atCall(const QList<long> &calls, int count, const std::function<void(pid_t)> &interfere) const
    {
        const QByteArray arguments[] = {tool.toUtf8(), root.toUtf8(), root.toUtf8() + "/source/good",
                                        root.toUtf8() + "/said"};
        const pid_t process = ::fork();
        if (process == 0) {
            ::dup2(::open(arguments[3].constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
            ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            ::execl(arguments[0].constData(), "bless", arguments[1].constData(), arguments[2].constData(), nullptr);
            ::_exit(127);
        }
        int status = 0;
        ::waitpid(process, &status, 0);
        ::ptrace(PTRACE_SETOPTIONS, process, nullptr, PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD);
        for (int signal = 0; count > 0;) {
            ::ptrace(PTRACE_SYSCALL, process, nullptr, signal);
            ::waitpid(process, &status, 0);
            if (!WIFSTOPPED(status))
                return false;
            const bool isCall = WSTOPSIG(status) == (SIGTRAP | 0x80);
            signal = isCall ? 0 : WSTOPSIG(status);
            __ptrace_syscall_info call{};
            ::ptrace(PTRACE_GET_SYSCALL_INFO, process, sizeof call, &call);
            if (isCall && call.op == PTRACE_SYSCALL_INFO_ENTRY && calls.contains(static_cast<long>(call.entry.nr)))
                --count;
        }
        interfere(process);
        ::ptrace(PTRACE_DETACH, process, nullptr, nullptr);
        ::waitpid(process, &status, 0);
        return true;
    }

    PrivateBus bus;
    const QString root = PrivateBus::folder() + u"/bless"_s;
    const QString helper = root + u"/libexec/"_s + name;
    const QString tool = QStringLiteral(BLESS_UNDER_TEST);
    const QByteArray good = spoiltHelper();
    const QByteArray older =
        spoiltHelper("<string>" CORVALE_VERSION, "<string>" + QByteArray(CORVALE_VERSION).fill('0'));
};

} // namespace

TEST_F(BlessTest, whatIsNotOursOrNotTheirsIsRefusedAndNothingIsTouched)
{
    struct Row {
        const char *preparation;
        const char *arguments;
        const char *answer;
        const char *caller = "0";
    };
    const char *const x = "$PWD/x";
    const char *const use = "usage: ";
    const Row rows[] = {
        {"ln -s good x", x, "not a regular file"},
        {"ln -s . x", "$PWD/x/good", "folder that is not yours alone"},
        {"cp good x; chown 65534 x", x, "somebody else's"},
        {"cp good x; chown 65533 x", x, "somebody else's", "65534"},
        {"cp good x; chmod 775 x", x, "Others can write"},
        {"cp good x; chown 65534 x; ln x y", x, "further names", "65534"},
        {"mkdir -m 777 x; cp good x", "$PWD/x/good", "folder that is not yours alone"},
        {"mkdir -m 775 x; mkdir x/y; cp good x/y", "$PWD/x/y/good", "folder that is not yours alone"},
        {"mkdir -m 1777 x; chown 65534 x; cp good x", "$PWD/x/good", "folder that is not yours alone"},
        {"mkdir -m 1777 x; mkdir x/y; chown 65534 x/y; cp good x/y", "$PWD/x/y/good", "not yours alone"},
        {"mkfifo x", x, "not a regular file"},
        {":", x, "No such file"},
        {"truncate -s 65M x", x, "too large"},
        {": >x", x, "is empty"},
        {"echo '#!/bin/sh' >x", x, "not a program for this machine"},
        {"head -c 200 good >x", x, "not this product's"},
        {"cp good x; printf '\\377' | dd of=x bs=1 seek=18 conv=notrunc status=none", x, "not a program for this"},
        {"cp /bin/true x", x, "not this product's"},
        {"LC_ALL=C sed 's/<string>com.corvale/<string>com.corsair/' good >x", x, "not this product's"},
        {"LC_ALL=C sed 's/CFBundleVersion/CFBundleEdition/' good >x", x, "no version"},
        {"cp good x", "x", use},
        {":", "''", use},
        {":", "", use},
        {":", "--remove", use, "65534"},
        {":", "--stop", use, "65534"},
        {"cp good x", "$PWD/x --stop", use},
        {"cp good x", x, use, "0x"},
        {"cp good x", x, use, "-1"},
        {"cp good x", "$PWD/../source/x", "takes turns"},
        {"cp good x", "${PWD%/*}//source/x", "takes turns"},
    };
    const std::string before = installed();
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.preparation) + " | " + row.arguments + " | " + row.caller);
        shell(u"cd %1/source && chmod 755 . && rm -rf x y && "_s.arg(root) + QLatin1String(row.preparation));
        const std::string answer = bless(QLatin1String(row.arguments), u"PKEXEC_UID="_s + QLatin1String(row.caller));
        EXPECT_THAT(answer, HasSubstr(row.answer));
        EXPECT_THAT(answer, testing::EndsWith(row.answer == use ? "\n=2\n" : "\n=1\n"));
        EXPECT_EQ(installed(), before);
    }
}

TEST_F(BlessTest, theCallersHelperIsInstalledWhateverTheEnvironmentAndRemovedOnceNothingIsLeftToRestore)
{
    QDir().mkpath(root + u"/systemd"_s);
    shell(u"cd %1/source && chown 65534 . good && mkdir -p ../libexec && ln -s /etc/passwd ../libexec/client.up.new"_s
              .arg(root));
    // No standard streams, no folder, no rights for new files, and variables that libraries listen to.
    const std::string answer = bless(
        root + u"/source/good <&- >&- 2>&-"_s,
        u"mkdir gone; cd gone; rmdir ../gone; umask 777; env -i PKEXEC_UID=65534 PATH=/nonexistent TMPDIR=/nonexistent "
        "DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent QT_PLUGIN_PATH=/nonexistent LC_ALL=nonsense"_s);
    EXPECT_EQ(answer.substr(answer.rfind('=')), "=1\n"); // systemd is said to run here, and does not answer
    const std::string whole = installed();
    EXPECT_TRUE(contentOf(helper) == good);
    EXPECT_THAT(whole, testing::ContainsRegex("^(644 [^\n]*\n){5}(755 [^\n]*\n){3}=0\n$"));
    QDir().rmdir(root + u"/systemd"_s);
    EXPECT_EQ(bless(root + u"/source/good"_s, u"PKEXEC_UID=65534"_s), "=0\n");
    EXPECT_EQ(installed(), whole);

    // Only a helper can take this back, and none starts: so it stays, with all that it needs.
    writeFile(root + u"/run/dns"_s, "file tun0\n");
    EXPECT_THAT(bless(u"--remove"_s), testing::AllOf(HasSubstr("does not start"), testing::EndsWith("\n=1\n")));
    EXPECT_EQ(std::ranges::count(installed(), '\n'), 8); // without what lets the bus start it
    QFile::remove(root + u"/run/dns"_s);
    writeFile(root + u"/policies/%1.conf.new"_s.arg(name), {});
    for (int times = 0; times < 2; ++times) {
        EXPECT_EQ(bless(u"--remove"_s), "=0\n");
        EXPECT_EQ(installed(), "=0\n");
    }
}

TEST_F(BlessTest, aKillAtAnyStepLeavesEveryFileWholeAndTheNextRunCompletes)
{
    const QList<long> changes{SYS_write, SYS_fchmod, SYS_fsync, SYS_rename, SYS_unlink};
    const auto kill = [](pid_t process) { ::kill(process, SIGKILL); };
    writeFile(root + u"/source/older"_s, older, 0755);
    ASSERT_EQ(bless(root + u"/source/good"_s), "=0\n");
    const std::string after = installed();
    ASSERT_EQ(bless(root + u"/source/older"_s), "=0\n");
    const std::string before = installed();
    int steps = 0;
    bool replaced = false;
    while (atCall(changes, steps + 1, kill)) {
        ++steps;
        replaced = contentOf(helper) == good;
        shell(u"find %1 -name '*.new' -delete"_s.arg(root));
        ASSERT_EQ(installed(), replaced ? after : before) << "after step " << steps;
    }
    EXPECT_TRUE(replaced);
    EXPECT_GT(steps, 32); // four for each file
    ASSERT_TRUE(atCall(changes, 3, kill));
    ASSERT_EQ(bless(root + u"/source/older"_s), "=0\n");
    EXPECT_EQ(installed(), before);
}

TEST_F(BlessTest, aSourceThatChangesAtAnyStepIsInstalledAsItWasJudgedOrRefused)
{
    const auto spoil = [this](pid_t) {
        QFile file(root + u"/source/good"_s);
        ASSERT_TRUE(file.open(QIODevice::ReadWrite) && file.seek(good.indexOf("<string>" + name.toUtf8())));
        file.write("<string>xxx");
    };
    bool changedWhileRead = false;
    bool changedAfterwards = false;
    for (int step = 1; atCall({SYS_pread64, SYS_read, SYS_copy_file_range, SYS_rename}, step, spoil); ++step) {
        const QByteArray now = contentOf(helper);
        ASSERT_TRUE(now == good || now == "(none)") << "after step " << step;
        changedWhileRead = changedWhileRead || contentOf(root + u"/said"_s).contains("changed while it was read");
        changedAfterwards = changedAfterwards || now == good;
        QFile::remove(helper);
        writeFile(root + u"/source/good"_s, good, 0755);
    }
    EXPECT_TRUE(changedWhileRead);
    EXPECT_TRUE(changedAfterwards);
}

TEST_F(BlessTest, theRunningHelperIsStoppedAndAnotherProgramIsNot)
{
    const auto connection = QDBusConnection::connectToBus(QDBusConnection::SystemBus, u"test"_s);
    const auto run = [&](const QString &program) {
        bus.activate(name, {program, u"1"_s});
        connection.interface()->startService(name);
        return static_cast<pid_t>(connection.interface()->servicePid(name).value());
    };
    for (const QString &arguments : {u"--stop"_s, root + u"/source/good"_s, u"--remove"_s}) {
        SCOPED_TRACE(arguments.toStdString());
        writeFile(helper, contentOf(QStringLiteral(SCRIPTED_HELPER)), 0755);
        const pid_t pid = run(helper);
        ASSERT_GT(pid, 0);
        ::kill(pid, SIGSTOP); // hears nothing by itself, and yet need not be killed
        QElapsedTimer time;
        time.start();
        EXPECT_EQ(bless(arguments), "=0\n");
        EXPECT_LT(time.elapsed(), 15'000);
        EXPECT_FALSE(connection.interface()->isServiceRegistered(name));
        EXPECT_THAT(contentOf(u"/proc/%1/cmdline"_s.arg(pid)), testing::AnyOf("", "(none)"));
    }
    const pid_t other = run(QStringLiteral(SCRIPTED_HELPER));
    ASSERT_GT(other, 0);
    EXPECT_THAT(bless(u"--stop"_s), HasSubstr("another program"));
    EXPECT_TRUE(connection.interface()->isServiceRegistered(name));
    ::kill(other, SIGKILL);
}
