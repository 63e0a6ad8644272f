// SPDX-License-Identifier: MIT
#include "private_file.h"

#include "failures.h"
#include "files.h"

#include <QTemporaryDir>

#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
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

} // namespace
