// SPDX-License-Identifier: MIT
#include "standard_output.h"
#include "system_log.h"

#include <QByteArrayList>
#include <QRegularExpression>

#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

/// Gives this process, which must not be the test program itself, an empty folder in the place of the machine's.
void onlyHere(const char *folder)
{
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("test", folder, "tmpfs", 0, nullptr) != 0)
        ::_exit(2);
}

/// A socket bound or connected to the path.
int socketAt(const char *path, int type, decltype(::connect) *how)
{
    const int made = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    ::strncpy(where.sun_path, path, sizeof where.sun_path - 1);
    return how(made, reinterpret_cast<const sockaddr *>(&where), sizeof where) == 0 ? made : -1;
}

} // namespace

TEST(StandardOutput, KeepsTheLinesOfManyThreadsWhole)
{
    testing::internal::CaptureStdout();
    std::vector<std::thread> threads;
    for (char letter = 'a'; letter < 'e'; ++letter)
        threads.emplace_back([letter] {
            for (int i = 0; i < 200; ++i)
                StandardOutput::writeLine(QByteArray(1 + i % 50, letter));
        });
    for (auto &thread : threads)
        thread.join();
    const QByteArrayList lines = QByteArray::fromStdString(testing::internal::GetCapturedStdout()).split('\n');
    ASSERT_EQ(lines.size(), 4 * 200 + 1);
    for (const QByteArray &line : lines)
        EXPECT_EQ(line.count(line.isEmpty() ? 'x' : line.front()), line.size()) << line.constData();
}

TEST(SystemLog, WritesOneLineACallWhateverTheTextHolds)
{
    testing::internal::CaptureStderr();
    SystemLog::write(u"XPC Connection Invalidated\n"_s);
    SystemLog::write(u"a\nb %s ñ"_s);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "XPC Connection Invalidated\na\\nb %s ñ\n");
}

TEST(SystemLog, WaitsForNoDaemonAndFindsTheNextOne)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root has a place for a log of its own";
    EXPECT_EXIT(
        {
            onlyHere("/dev");
            auto first = [log = -1]() mutable {
                char bytes[100]{};
                ::close(std::exchange(log, -1));
                ::unlink("/dev/log");
                log = socketAt("/dev/log", SOCK_DGRAM, ::bind);
                ::alarm(5); // ends a write that waits
                for (int i = 0; i < 1000; ++i)
                    SystemLog::write(QStringLiteral("line %1").arg(i));
                ::alarm(0);
                ::recv(log, bytes, sizeof bytes - 1, MSG_DONTWAIT);
                return QByteArray(bytes);
            };
            const QRegularExpression form(QStringLiteral("^<13>[A-Z][a-z]{2} [ 1-3]\\d \\d\\d:\\d\\d:\\d\\d "
                                                         "platform_tests: line 0$"));
            for (int daemon = 0; daemon < 2; ++daemon)
                if (!form.match(QString::fromUtf8(first())).hasMatch())
                    ::_exit(1);
            ::_exit(0);
        },
        testing::ExitedWithCode(0), "");
}
