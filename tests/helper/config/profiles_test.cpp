// SPDX-License-Identifier: MIT
#include "configuration_reader.h"
#include "configuration_writer.h"

#include <QDir>
#include <QProcess>
#include <QTemporaryDir>

#include <gmock/gmock.h>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// What OpenVPN says about the file at `path`, up to the list of its settings.
QByteArrayList readByOpenVPN(const QString &path)
{
    QProcess openVPN;
    openVPN.setProcessChannelMode(QProcess::MergedChannels);
    // It lists its settings, then ends, since it cannot make the socket.
    openVPN.start(u"/usr/sbin/openvpn"_s,
                  {u"--ignore-unknown-option"_s, u"block-outside-dns"_s, u"register-dns"_s, u"tap-sleep"_s,
                   u"ip-win32"_s, u"--config"_s, path, u"--verb"_s, u"4"_s, u"--mute"_s, u"0"_s,
                   u"--suppress-timestamps"_s, u"--management"_s, u"/nonexistent/socket"_s, u"unix"_s});
    EXPECT_TRUE(openVPN.waitForFinished());
    return openVPN.readAll().split('\n');
}

/// The settings that OpenVPN takes from the file, without those that the helper drops.
QByteArrayList settings(const QString &path)
{
    const QByteArrayList lines = readByOpenVPN(path);
    QByteArrayList result;
    for (const QByteArray &line : lines.mid(lines.indexOf("Current Parameter Settings:")))
        if (line.startsWith("  ") || line.startsWith("Connection profiles"))
            result << line;
    const QByteArrayList dropped{"config", "fast_io", "username", "groupname"};
    result.removeIf([&](const QByteArray &line) { return dropped.contains(line.trimmed().split(' ').front()); });
    return result;
}

/// A file with this text, for as long as the object lives.
class TextFile {
public:
    explicit TextFile(const QByteArray &text)
    {
        QFile file(path());
        EXPECT_TRUE(file.open(QIODevice::WriteOnly) && file.write(text) == text.size());
    }
    QString path() const { return directory_.filePath(u"text"_s); }

private:
    QTemporaryDir directory_;
};

class Profile : public testing::TestWithParam<QString> {};

QStringList profiles()
{
    return QDir(QStringLiteral(CORVALE_PROFILES)).entryList({u"*.ovpn"_s});
}

} // namespace

TEST_P(Profile, IsReadByOpenVPNAsIsItsCanonicalText)
{
    const QString original = QStringLiteral(CORVALE_PROFILES "/") + GetParam();
    const auto read = readConfiguration(contents(original));
    ASSERT_TRUE(std::holds_alternative<Configuration>(read)) << sentence(std::get<Refusal>(read)).constData();
    const QByteArray text = canonicalConfiguration(std::get<Configuration>(read).directives);

    const auto again = readConfiguration(text);
    ASSERT_TRUE(std::holds_alternative<Configuration>(again)) << sentence(std::get<Refusal>(again)).constData();
    EXPECT_EQ(std::get<Configuration>(again).directives, std::get<Configuration>(read).directives);
    EXPECT_EQ(canonicalConfiguration(std::get<Configuration>(again).directives), text);

    const TextFile canonical(text);
    const QByteArrayList expected = settings(original);
    ASSERT_GT(expected.size(), 100);
    EXPECT_THAT(settings(canonical.path()), testing::ContainerEq(expected));
}

TEST(Rules, ListOnlyWhatOpenVPNKnows)
{
    const QByteArray everyDirective = contents(QStringLiteral(CORVALE_SEEDS "/every_directive"));
    const auto read = readConfiguration(everyDirective);
    ASSERT_TRUE(std::holds_alternative<Configuration>(read)) << sentence(std::get<Refusal>(read)).constData();
    EXPECT_EQ(canonicalConfiguration(std::get<Configuration>(read).directives), everyDirective);

    // OpenVPN gives up at the first line that it does not understand: that must be the one added here.
    const TextFile file(everyDirective + "no-such-directive\n");
    const QByteArrayList lines = readByOpenVPN(file.path());
    const auto complaint = std::ranges::find_if(lines, [](const auto &line) { return line.contains("Options error"); });
    ASSERT_NE(complaint, lines.end());
    EXPECT_THAT(complaint->constData(), testing::HasSubstr(": no-such-directive"));
}

INSTANTIATE_TEST_SUITE_P(Shipped, Profile, testing::ValuesIn(profiles()),
                         [](const auto &profile) { return QString(profile.param).section(u'.', 0, 0).toStdString(); });
