// SPDX-License-Identifier: MIT
#include "private_file.h"

#include "failures.h"
#include "files.h"

#include <QTemporaryDir>

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

class PrivateFileTest : public testing::Test {
protected:
    QByteArray write(const QByteArray &content) const
    {
        return failureOf(PrivateFile::write(qPrintable(path_), content));
    }

    const QTemporaryDir folder_;
    const QString path_ = folder_.filePath(QStringLiteral("file"));
    const QString other_ = folder_.filePath(QStringLiteral("other"));
};

TEST_F(PrivateFileTest, AFileIsMadeOrReplacedInPlaceForItsOwnerAlone)
{
    const mode_t before = ::umask(0);
    EXPECT_EQ(write("fresh and long"), "nothing");
    ::umask(before);
    EXPECT_EQ(modeOf(path_), "0600");

    writeFile(path_, "something longer than what comes", 0666);
    const int reader = ::open(qPrintable(path_), O_RDONLY);
    EXPECT_EQ(write("Contraseña\n"), "nothing");
    char seen[64] = {};
    EXPECT_EQ(::read(reader, seen, sizeof seen), 12) << "not the same file any more";
    ::close(reader);
    EXPECT_EQ(contentOf(path_), "Contraseña\n");
    EXPECT_EQ(modeOf(path_), "0600");
}

TEST_F(PrivateFileTest, AContentForWhichThereIsNoRoomLeavesNoHalf)
{
    rlimit room{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &room), 0);
    const rlimit four{4, room.rlim_max};
    const auto before = std::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &four);
    const QByteArray failure = write("remote-cert-tls server");
    ::setrlimit(RLIMIT_FSIZE, &room);
    (void)std::signal(SIGXFSZ, before);
    EXPECT_EQ(failure, words(EFBIG));
    EXPECT_EQ(contentOf(path_), "");
}

TEST_F(PrivateFileTest, AnythingButTheUsersOwnPlainFileIsLeftAsItIs)
{
    const QByteArray path = path_.toLocal8Bit();
    const QByteArray other = other_.toLocal8Bit();
    const struct {
        const char *name;
        std::function<void()> make;
        int error;
    } rows[] = {
        {"symbolic link", [&] { fs::create_symlink(other.constData(), path.constData()); }, ELOOP},
        {"dangling link", [&] { fs::create_symlink("nowhere", path.constData()); }, ELOOP},
        {"hard link", [&] { fs::create_hard_link(other.constData(), path.constData()); }, EMLINK},
        {"directory", [&] { fs::create_directory(path.constData()); }, EISDIR},
        {"pipe", [&] { ::mkfifo(path, 0644); }, ENXIO},
        {"pipe that is read", [&] { ::mkfifo(path, 0644), (void)::open(path, O_RDONLY | O_NONBLOCK); }, EINVAL},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        writeFile(other_, "kept");
        row.make();
        EXPECT_EQ(write("new"), words(row.error));
        EXPECT_EQ(contentOf(other_), "kept");
        EXPECT_EQ(modeOf(other_), "0644");
        fs::remove(path.constData());
    }
    EXPECT_EQ(failureOf(PrivateFile::write("/dev/full", "")), words(EINVAL));
}

TEST_F(PrivateFileTest, AnotherOwnersFileIsLeftAsItIs)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can give a file away";
    writeFile(path_, "kept", 0666);
    ASSERT_EQ(::chown(qPrintable(path_), 1, 1), 0);
    EXPECT_EQ(write("new"), words(EPERM));
    EXPECT_EQ(contentOf(path_), "kept");
    EXPECT_EQ(modeOf(path_), "0666");
}

} // namespace
