// SPDX-License-Identifier: MIT
#include "private_file.h"

#include <QFile>
#include <QTemporaryDir>

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace testing;
namespace fs = std::filesystem;

namespace {

void fill(const std::string &path, const char *content, mode_t mode)
{
    QFile file(QString::fromStdString(path));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(content);
    file.close();
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
}

std::string contentOf(const std::string &path)
{
    QFile file(QString::fromStdString(path));
    return file.open(QIODevice::ReadOnly) ? file.readAll().toStdString() : "(none)";
}

mode_t modeOf(const std::string &path)
{
    struct stat found {};
    return ::stat(path.c_str(), &found) == 0 ? found.st_mode & 07777 : 0;
}

class PrivateFileTest : public Test {
protected:
    const QTemporaryDir folder_;
    const std::string path_ = folder_.filePath(QStringLiteral("file")).toStdString();
    const std::string other_ = folder_.filePath(QStringLiteral("other")).toStdString();
};

TEST_F(PrivateFileTest, AFileIsMadeOrReplacedInPlaceForItsOwnerAlone)
{
    const mode_t before = ::umask(0);
    EXPECT_EQ(PrivateFile::write(path_.c_str(), "fresh and long"), 0);
    ::umask(before);
    EXPECT_EQ(modeOf(path_), 0600u);

    fill(path_, "something longer than what comes", 0666);
    const int reader = ::open(path_.c_str(), O_RDONLY);
    EXPECT_EQ(PrivateFile::write(path_.c_str(), "Contraseña\n"), 0);
    char seen[64] = {};
    EXPECT_EQ(::read(reader, seen, sizeof seen), 12) << "not the same file any more";
    ::close(reader);
    EXPECT_EQ(contentOf(path_), "Contraseña\n");
    EXPECT_EQ(modeOf(path_), 0600u);
}

TEST_F(PrivateFileTest, AContentForWhichThereIsNoRoomLeavesNoHalf)
{
    rlimit room{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &room), 0);
    const rlimit four{4, room.rlim_max};
    const auto before = std::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &four);
    const int error = PrivateFile::write(path_.c_str(), "remote-cert-tls server");
    ::setrlimit(RLIMIT_FSIZE, &room);
    (void)std::signal(SIGXFSZ, before);
    EXPECT_EQ(error, EFBIG);
    EXPECT_EQ(contentOf(path_), "");
}

TEST_F(PrivateFileTest, WhatIsNotTheUsersOwnPlainFileIsLeftAsItIs)
{
    const struct {
        const char *name;
        std::function<void()> make;
        int error;
    } rows[] = {
        {"symbolic link", [&] { fs::create_symlink(other_, path_); }, ELOOP},
        {"dangling link", [&] { fs::create_symlink("nowhere", path_); }, ELOOP},
        {"hard link", [&] { fs::create_hard_link(other_, path_); }, EMLINK},
        {"directory", [&] { fs::create_directory(path_); }, EISDIR},
        {"pipe", [&] { ::mkfifo(path_.c_str(), 0644); }, ENXIO},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        fill(other_, "kept", 0644);
        row.make();
        EXPECT_EQ(PrivateFile::write(path_.c_str(), "new"), row.error);
        EXPECT_EQ(contentOf(other_), "kept");
        EXPECT_EQ(modeOf(other_), 0644u);
        fs::remove(path_);
    }
    ::mkfifo(path_.c_str(), 0644);
    const int reader = ::open(path_.c_str(), O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(PrivateFile::write(path_.c_str(), "new"), EINVAL) << "a pipe that is read";
    ::close(reader);
    EXPECT_EQ(PrivateFile::write((path_ + "/below").c_str(), ""), ENOTDIR);
    EXPECT_EQ(PrivateFile::write("/dev/full", ""), EINVAL);
}

TEST_F(PrivateFileTest, AnotherOwnersFileIsLeftAsItIs)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can give a file away";
    fill(path_, "kept", 0666);
    ASSERT_EQ(::chown(path_.c_str(), 1, 1), 0);
    EXPECT_EQ(PrivateFile::write(path_.c_str(), "new"), EPERM);
    EXPECT_EQ(contentOf(path_), "kept");
    EXPECT_EQ(modeOf(path_), 0666u);
}

} // namespace
