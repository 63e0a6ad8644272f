#include "standard_output.h"
#include "system_log.h"

#include <QByteArrayList>

#include <algorithm>
#include <gmock/gmock.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace Qt::StringLiterals;

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

TEST(StandardOutput, SurvivesAReaderThatHasLeft)
{
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const int before = ::dup(STDOUT_FILENO);
    ::dup2(ends[1], STDOUT_FILENO);
    ::close(ends[0]);
    StandardOutput::writeLine("nobody reads this"); // SIGPIPE would end the test program here
    ::dup2(before, STDOUT_FILENO);
    ::close(before);
    ::close(ends[1]);
}

TEST(SystemLog, WritesOneLineACallWhateverTheTextHolds)
{
    testing::internal::CaptureStderr();
    SystemLog::write(u"XPC Connection Invalidated\n"_s);
    SystemLog::write(u"a\nb %s ñ"_s);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "XPC Connection Invalidated\na\\nb %s ñ\n");
}
