// SPDX-License-Identifier: MIT
#include <QCoreApplication>

#include <csignal>
#include <gmock/gmock.h>

int main(int argc, char *argv[])
{
    (void)std::signal(SIGPIPE, SIG_IGN); // as the programs do
    const QCoreApplication application(argc, argv);
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
