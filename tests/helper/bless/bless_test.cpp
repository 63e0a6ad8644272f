// SPDX-License-Identifier: MIT
// The bless tool as a process of its own, on folders and a bus of the test's own, with shell commands for whoever
// wants to deceive it.

#include "private_bus.h"
#include "spoilt_helper.h"
#include "wait_for.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QElapsedTimer>

#include <algorithm>
#include <csignal>
#include <gmock/gmock.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace Qt::StringLiterals;
using testing::HasSubstr;

namespace {

const QString name = u"com.corvale.macos.helper"_s;

QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// What a shell says to these commands, and its status at the end.
std::string shell(const QString &commands)
{
    FILE *const output = ::popen(qPrintable(u"exec 2>&1\n"_s + commands + u"\necho =$?"_s), "r");
    std::string all;
    for (int next = std::fgetc(output); next != EOF; next = std::fgetc(output))
        all.push_back(static_cast<char>(next));
    ::pclose(output);
    return all;
}

class BlessTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "the bless tool is root's";
        QDir(root).removeRecursively();
        QDir().mkpath(root + u"/source"_s);
        QDir().mkpath(root + u"/systemd"_s);
        put(u"good"_s, spoiltHelper());
        ASSERT_TRUE(bus.start());
    }
    void TearDown() override { QDBusConnection::disconnectFromBus(u"test"_s); }

    void put(const QString &file, const QByteArray &bytes) const
    {
        QFile out(root + u"/source/"_s + file);
        ASSERT_TRUE(out.open(QIODevice::WriteOnly) && out.write(bytes) == bytes.size());
        out.setPermissions(QFile::Permissions(0x7755));
    }
    /// In the folder of sources; `environment` goes before the command.
    std::string bless(const QString &arguments, const QString &environment = {}) const
    {
        return shell(u"cd %1/source && umask 0 && %2 "_s.arg(root, environment) + QStringLiteral(BLESS_UNDER_TEST) +
                     u' ' + root + u' ' + arguments);
    }
    std::string installed() const
    {
        return shell(
            u"cd %1 && find libexec policies services units -type f -printf '%m %p ' -exec sha256sum {} ';' | sort"_s
                .arg(root));
    }
    /// Every file as it is to be: what `cmake --install` would put there, and this helper.
    void expectInstalled(const QByteArray &helper) const
    {
        const QString sources = QStringLiteral(CORVALE_SOURCES);
        const std::pair<QString, QByteArray> files[] = {
            {u"libexec/"_s + name, helper},
            {u"libexec/client.up"_s, contents(sources + u"/resources/client.up"_s)},
            {u"libexec/client.down"_s, contents(sources + u"/resources/client.down"_s)},
            {u"policies/"_s + name + u".conf"_s, contents(sources + u"/packaging/"_s + name + u".conf"_s)},
            {u"services/"_s + name + u".service"_s, contents(sources + u"/packaging/"_s + name + u".service"_s)},
            {u"units/"_s + name + u".service"_s, contents(sources + u"/packaging/systemd/"_s + name + u".service"_s)},
            {u"units/corvale-restore.service"_s, contents(sources + u"/packaging/systemd/corvale-restore.service"_s)},
            {u"units/sysinit.target.d/corvale.conf"_s, contents(sources + u"/packaging/systemd/sysinit.target.conf"_s)},
        };
        for (const auto &[file, bytes] : files) {
            const QFile found(root + u'/' + file);
            EXPECT_TRUE(contents(found.fileName()) == bytes) << file.toStdString();
            EXPECT_EQ(found.permissions() & 0xfff, file.startsWith("libexec"_L1) ? 0x755 : 0x644);
        }
        EXPECT_EQ(std::ranges::count(installed(), '\n'), std::ssize(files) + 1); // and nothing else
    }
    QString owner() const
    {
        const auto connection = QDBusConnection::connectToBus(QDBusConnection::SystemBus, u"test"_s);
        return connection.interface()->serviceOwner(name).value();
    }

    PrivateBus bus;
    const QString root = PrivateBus::folder() + u"/bless"_s;
};

/// Runs the tool until its `count`th step that changes a file, and kills it there; false when it has fewer.
bool killedAtStep(const QByteArray &root, const QByteArray &source, int count)
{
    const pid_t tool = ::fork();
    if (tool == 0) {
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        ::execl(BLESS_UNDER_TEST, "bless", root.constData(), source.constData(), nullptr);
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(tool, &status, 0);
    ::ptrace(PTRACE_SETOPTIONS, tool, nullptr, PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD);
    for (int signal = 0;;) {
        ::ptrace(PTRACE_SYSCALL, tool, nullptr, signal);
        ::waitpid(tool, &status, 0);
        if (!WIFSTOPPED(status))
            return false;
        const bool atCall = WSTOPSIG(status) == (SIGTRAP | 0x80);
        signal = atCall ? 0 : WSTOPSIG(status);
        __ptrace_syscall_info call{};
        ::ptrace(PTRACE_GET_SYSCALL_INFO, tool, sizeof call, &call);
        constexpr unsigned long long changing[] = {SYS_write, SYS_fchmod, SYS_fsync, SYS_rename, SYS_unlink};
        if (atCall && call.op == PTRACE_SYSCALL_INFO_ENTRY &&
            std::ranges::find(changing, call.entry.nr) != std::end(changing) && --count == 0)
            break;
    }
    ::kill(tool, SIGKILL);
    ::waitpid(tool, &status, 0);
    return true;
}

} // namespace

TEST_F(BlessTest, whatIsNotOursOrNotTheirsIsRefusedAndNothingIsTouched)
{
    struct Row {
        QString preparation;
        QString arguments;
        const char *answer;
        const char *caller = "";
    };
    const QString x = root + u"/source/x"_s;
    const char *const use = "usage: ";
    const Row rows[] = {
        {u"ln -s good x"_s, x, "not a regular file"},
        {u"ln -s . y"_s, root + u"/source/y/good"_s, "folder that is not yours alone"},
        {u"cp good x; chown 65534 x"_s, x, "somebody else's"},
        {u"cp good x; chown 65533 x"_s, x, "somebody else's", "65534"},
        {u"cp good x; chmod 775 x"_s, x, "Others can write"},
        {u"cp good x; chown 65534 x; ln x y"_s, x, "further names", "65534"},
        {u"mkdir -m 777 x; cp good x"_s, x + u"/good"_s, "folder that is not yours alone"},
        {u"mkdir -m 775 x; mkdir x/y; cp good x/y"_s, x + u"/y/good"_s, "folder that is not yours alone"},
        {u"mkdir -m 1777 x; chown 65534 x; cp good x"_s, x + u"/good"_s, "folder that is not yours alone"},
        {u"mkdir -m 1777 x; mkdir x/y; chown 65534 x/y; cp good x/y"_s, x + u"/y/good"_s, "not yours alone"},
        {u"mkfifo x"_s, x, "not a regular file"},
        {u"mkdir x"_s, x, "not a regular file"},
        {u":"_s, x, "No such file"},
        {u"truncate -s 65M x"_s, x, "too large"},
        {u": >x"_s, x, "is empty"},
        {u"echo '#!/bin/sh' >x"_s, x, "not a program for this machine"},
        {u"head -c 200 good >x"_s, x, "not this product's"},
        {u"cp good x; printf '\\377' | dd of=x bs=1 seek=18 conv=notrunc status=none"_s, x, "not a program for this"},
        {u"cp /bin/true x"_s, x, "not this product's"},
        {u"LC_ALL=C sed 's/<string>com.corvale/<string>com.corsair/' good >x"_s, x, "not this product's"},
        {u"LC_ALL=C sed 's/CFBundleVersion/CFBundleEdition/' good >x"_s, x, "no version"},
        {u"cp good x"_s, u"x"_s, use},
        {u":"_s, u"./good"_s, use},
        {u":"_s, u"''"_s, use},
        {u":"_s, u""_s, use},
        {u":"_s, u"--help"_s, use},
        {u":"_s, u"--remove --stop"_s, use},
        {u":"_s, u"--remove"_s, use, "65534"},
        {u":"_s, u"--stop"_s, use, "65534"},
        {u"cp good x"_s, x + u" --stop"_s, use},
        {u"cp good x"_s, x, use, "0x"},
        {u"cp good x"_s, x, use, "-1"},
        {u"cp good x"_s, root + u"/source/../source/x"_s, "takes turns"},
        {u"cp good x"_s, root + u"/source//x"_s, "takes turns"},
    };
    const std::string before = installed();
    for (const Row &row : rows) {
        SCOPED_TRACE((row.preparation + u" | "_s + row.arguments).toStdString());
        shell(u"cd %1/source && chmod 755 . && rm -rf x y && "_s.arg(root) + row.preparation);
        const QString environment = *row.caller ? u"PKEXEC_UID="_s + QLatin1String(row.caller) : QString();
        const std::string answer = bless(row.arguments, environment);
        EXPECT_THAT(answer, HasSubstr(row.answer));
        EXPECT_THAT(answer, testing::EndsWith(row.answer == use ? "\n=2\n" : "\n=1\n"));
        EXPECT_EQ(installed(), before);
    }
}

TEST_F(BlessTest, theCallersHelperIsInstalledWhateverTheEnvironmentAndRemovedAgain)
{
    shell(u"cd %1/source && chown 65534 . good && mkdir -p ../libexec && ln -s /etc/passwd ../libexec/client.up.bless"_s
              .arg(root));
    // No standard streams, no folder, no rights for new files, and variables that libraries listen to.
    const std::string answer = bless(
        root + u"/source/good <&- >&- 2>&-"_s,
        u"mkdir gone; cd gone; rmdir ../gone; umask 777; env -i PKEXEC_UID=65534 PATH=/nonexistent TMPDIR=/nonexistent "_s +
            u"DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent QT_PLUGIN_PATH=/nonexistent LC_ALL=nonsense"_s);
    EXPECT_EQ(answer.substr(answer.rfind('=')), "=1\n"); // systemd is said to run here, and does not answer
    expectInstalled(spoiltHelper());
    QDir().rmdir(root + u"/systemd"_s);
    EXPECT_EQ(bless(root + u"/source/good"_s, u"PKEXEC_UID=65534"_s), "=0\n");
    expectInstalled(spoiltHelper());

    shell(u": >%1/policies/com.corvale.macos.helper.conf.bless"_s.arg(root));
    EXPECT_EQ(bless(u"--remove"_s), "=0\n");
    EXPECT_EQ(installed(), "=0\n");
    EXPECT_EQ(bless(u"--remove"_s), "=0\n");
}

TEST_F(BlessTest, aKillAtAnyStepLeavesEveryFileWholeAndTheNextRunCompletes)
{
    QDir().rmdir(root + u"/systemd"_s);
    const QByteArray older =
        spoiltHelper("<string>" CORVALE_VERSION, "<string>" + QByteArray(strlen(CORVALE_VERSION), '0'));
    put(u"older"_s, older);
    ASSERT_EQ(bless(root + u"/source/older"_s), "=0\n");
    const QString helper = root + u"/libexec/"_s + name;
    const QByteArray newer = spoiltHelper();
    int steps = 0;
    bool replaced = false;
    while (killedAtStep(root.toUtf8(), root.toUtf8() + "/source/good", steps + 1)) {
        ++steps;
        const QByteArray now = contents(helper);
        ASSERT_TRUE(now == older || now == newer) << "after step " << steps;
        replaced = now == newer;
        shell(u"find %1 -name '*.bless' -delete"_s.arg(root)); // what must be left is as it was but for the helper
        expectInstalled(now);
    }
    EXPECT_TRUE(replaced);
    EXPECT_GT(steps, 32); // four for each file
    ASSERT_TRUE(killedAtStep(root.toUtf8(), root.toUtf8() + "/source/older", 3));
    ASSERT_EQ(bless(root + u"/source/older"_s), "=0\n");
    expectInstalled(older);
}

TEST_F(BlessTest, aSourceThatChangesMeanwhileIsInstalledWholeOrRefused)
{
    QDir().rmdir(root + u"/systemd"_s);
    const QByteArray good = spoiltHelper();
    const auto at = good.indexOf("<string>com.corvale.macos.helper");
    std::atomic_int runs = 0;
    std::jthread forger([&](const std::stop_token &stop) {
        QFile file(root + u"/source/good"_s);
        if (!file.open(QIODevice::ReadWrite | QIODevice::Unbuffered))
            return;
        for (bool spoil = true; !stop.stop_requested(); spoil = !spoil) {
            file.seek(at);
            file.write(spoil ? "<string>xxx" : "<string>com");
            std::this_thread::sleep_for(std::chrono::milliseconds(15));
        }
    });
    for (int refused = 0, taken = 0; (refused < 5 || taken < 5) && runs < 400; ++runs) {
        const bool isTaken = bless(root + u"/source/good"_s) == "=0\n";
        ++(isTaken ? taken : refused);
        ASSERT_TRUE(taken == 0 || contents(root + u"/libexec/"_s + name) == good);
    }
    EXPECT_LT(runs, 400);
}

TEST_F(BlessTest, theRunningHelperIsStoppedAndAnotherProgramIsNot)
{
    QDir().rmdir(root + u"/systemd"_s);
    const QString helper = root + u"/libexec/"_s + name;
    QDir().mkpath(root + u"/libexec"_s);
    const auto run = [&](const QString &program) {
        bus.activate(name, {program, u"1"_s});
        const auto connection = QDBusConnection::connectToBus(QDBusConnection::SystemBus, u"test"_s);
        connection.interface()->startService(name);
        return static_cast<pid_t>(connection.interface()->servicePid(name).value());
    };
    for (const QString &arguments : {u"--stop"_s, root + u"/source/good"_s, u"--remove"_s}) {
        SCOPED_TRACE(arguments.toStdString());
        QFile::remove(helper);
        ASSERT_TRUE(QFile::copy(QStringLiteral(SCRIPTED_HELPER), helper));
        const pid_t pid = run(helper);
        ASSERT_GT(pid, 0);
        ::kill(pid, SIGSTOP); // hears nothing by itself, and yet need not be killed
        QElapsedTimer time;
        time.start();
        EXPECT_EQ(bless(arguments), "=0\n");
        EXPECT_LT(time.elapsed(), 15'000);
        EXPECT_TRUE(owner().isEmpty());
        EXPECT_TRUE(contents(u"/proc/%1/cmdline"_s.arg(pid)).isEmpty());
    }
    const pid_t other = run(QStringLiteral(SCRIPTED_HELPER));
    ASSERT_GT(other, 0);
    EXPECT_THAT(bless(u"--stop"_s), HasSubstr("another program"));
    EXPECT_FALSE(owner().isEmpty());
    ::kill(other, SIGKILL);
}
