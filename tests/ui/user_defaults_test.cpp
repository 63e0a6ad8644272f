// SPDX-License-Identifier: MIT
#include "user_defaults.h"

#include <QFileInfo>
#include <QSettings>
#include <QTemporaryDir>

#include <gmock/gmock.h>
#include <sys/stat.h>

using namespace testing;
using namespace Qt::StringLiterals;

namespace {

class UserDefaultsTest : public Test {
protected:
    UserDefaultsTest() { QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, folder_.path()); }

    QByteArray path() const { return QFile::encodeName(folder_.filePath(u"Corvale/Corvale.conf"_s)); }
    mode_t mode() const
    {
        struct stat found {};
        return ::stat(path().constData(), &found) == 0 ? found.st_mode & 0777 : 0;
    }
    /// What a later process would read.
    QVariant onDisk(const QString &key) const
    {
        return QSettings(QFile::decodeName(path()), QSettings::IniFormat).value(key);
    }

    const QTemporaryDir folder_;
};

TEST_F(UserDefaultsTest, EveryTextComesBackAsItWasStored)
{
    for (const QString &text :
         {u"plain"_s, u""_s, u"  blanks around\t"_s, u"a, b;c=d&e#f%41"_s, u"\"quoted\" 'x' \\n\\"_s, u"@Invalid()"_s,
          u"@ByteArray(x)"_s, u"contraseña 密码 🔑"_s, u"a\r\n[b]\n"_s}) {
        SCOPED_TRACE(text.toStdString());
        UserDefaults::setStrings({{u"email"_s, text}, {u"password"_s, text + u"!"_s}});
        EXPECT_EQ(UserDefaults::stringForKey(u"email"_s), text);
        EXPECT_EQ(onDisk(u"email"_s).toString(), text);
        EXPECT_EQ(onDisk(u"password"_s).toString(), text + u"!"_s);
    }
    UserDefaults::removeKeys({u"email"_s, u"password"_s});
    EXPECT_EQ(UserDefaults::stringForKey(u"email"_s), std::nullopt);
    EXPECT_FALSE(onDisk(u"password"_s).isValid());
}

TEST_F(UserDefaultsTest, TheFileIsReadableByItsUserAlone)
{
    const mode_t before = ::umask(0);
    UserDefaults::setStrings({{u"password"_s, u"x"_s}});
    EXPECT_EQ(mode(), 0600u);
    ::chmod(path().constData(), 0666);
    UserDefaults::setStrings({{u"password"_s, u"y"_s}});
    EXPECT_EQ(mode(), 0600u);
    ::umask(before);
}

TEST_F(UserDefaultsTest, WhatCannotBeWrittenIsOneLineInTheLog)
{
    ASSERT_TRUE(QDir().mkpath(QFile::decodeName(path()))); // a folder in the file's place
    internal::CaptureStderr();
    UserDefaults::setStrings({{u"email"_s, u"a"_s}, {u"password"_s, u"b"_s}});
    EXPECT_EQ(internal::GetCapturedStderr(), "User defaults error: Is a directory\n");
    EXPECT_EQ(UserDefaults::stringForKey(u"email"_s), std::nullopt);
}

} // namespace
