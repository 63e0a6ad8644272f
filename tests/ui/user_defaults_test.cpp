// SPDX-License-Identifier: MIT
#include "user_defaults.h"

#include "files.h"

#include <QSettings>
#include <QTemporaryDir>

#include <gmock/gmock.h>

using namespace testing;
using namespace Qt::StringLiterals;

namespace {

class UserDefaultsTest : public Test {
protected:
    UserDefaultsTest() { QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, folder_.path()); }

    /// What a later process would read.
    QVariant onDisk(const QString &key) const { return QSettings(path_, QSettings::IniFormat).value(key); }

    const QTemporaryDir folder_;
    const QString path_ = folder_.filePath(u"Corvale/Corvale.conf"_s);
};

TEST_F(UserDefaultsTest, EveryTextComesBackAsItWasStored)
{
    for (const QString &text :
         {u"plain"_s, u""_s, u"  blanks around\t"_s, u"a, b;c=d&e#f%41"_s, u"\"quoted\" 'x' \\n\\"_s, u"@Invalid()"_s,
          u"@ByteArray(x)"_s, u"contraseña 密码 🔑"_s, u"a\r\n[b]\n"_s}) {
        UserDefaults::setStrings({{u"email"_s, text}, {u"password"_s, text + u"!"_s}});
        EXPECT_EQ(UserDefaults::stringForKey(u"email"_s), text);
        EXPECT_EQ(onDisk(u"email"_s).toString(), text);
        EXPECT_EQ(onDisk(u"password"_s).toString(), text + u"!"_s);
    }
    UserDefaults::removeKeys({u"email"_s, u"password"_s});
    EXPECT_EQ(UserDefaults::stringForKey(u"email"_s), std::nullopt);
    EXPECT_FALSE(onDisk(u"password"_s).isValid());
}

TEST_F(UserDefaultsTest, TheFileIsReadableByItsUserAloneBehindALinkToo)
{
    const QString target = folder_.filePath(u"elsewhere"_s);
    const mode_t before = ::umask(0);
    UserDefaults::setStrings({{u"password"_s, u"x"_s}});
    EXPECT_EQ(modeOf(path_), "0600");
    ASSERT_TRUE(QFile::rename(path_, target) && QFile::link(target, path_));
    ::chmod(QFile::encodeName(target).constData(), 0666);
    UserDefaults::setStrings({{u"password"_s, u"y"_s}});
    EXPECT_EQ(QFile::symLinkTarget(path_), target);
    EXPECT_EQ(modeOf(target), "0600");
    EXPECT_EQ(onDisk(u"password"_s), u"y"_s);
    ::umask(before);
}

} // namespace
