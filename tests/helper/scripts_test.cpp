// The two scripts as they are, in a mount namespace in which the files that they change are the test's own.

#include <QByteArray>
#include <QFile>
#include <QTemporaryDir>

#include <cstdlib>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

class ScriptsTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "only root has a mount namespace for itself";
        write("resolv.conf", original);
    }
    void write(const QByteArray &name, const QByteArray &bytes) const
    {
        QFile file(folder.filePath(QString::fromUtf8(name)));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(bytes);
    }
    std::string read(const QByteArray &name) const
    {
        QFile file(folder.filePath(QString::fromUtf8(name)));
        return file.open(QIODevice::ReadOnly) ? file.readAll().toStdString() : std::string();
    }
    /// Runs `commands` where /etc/resolv.conf and /run are the test's, UP and DOWN are the scripts, and neither
    /// systemd-resolved nor resolvconf is there.
    int inside(const QByteArray &commands) const
    {
        write("commands", "set -eu\nmount --make-rprivate /\nmount -t tmpfs none /run\nmkdir /run/corvale\ncd " +
                              folder.path().toUtf8() +
                              "\nmount --bind resolv.conf /etc/resolv.conf\n"
                              "for tool in resolvconf resolvectl; do for at in /usr/sbin /usr/bin; do\n"
                              "[ ! -e $at/$tool ] || mount --bind /dev/null $at/$tool; done; done\n" +
                              QByteArray(commands).replace("UP", CLIENT_UP).replace("DOWN", CLIENT_DOWN) + '\n');
        return std::system("unshare -m sh " + folder.filePath(u"commands"_s).toUtf8());
    }

    static constexpr char original[] = "nameserver 192.0.2.1\noptions edns0\n";
    const QTemporaryDir folder;
};

} // namespace

TEST_F(ScriptsTest, whatTheServerPushedIsUsedUntilTheTunnelGoesDown)
{
    struct Row {
        const char *environment;
        const char *expected;
    };
    const Row rows[] = {
        {"foreign_option_1='dhcp-option DNS 10.8.0.1' foreign_option_2='dhcp-option DNS6 fd00::1' "
         "foreign_option_3='dhcp-option DOMAIN vpn.example' foreign_option_4='dhcp-option DOMAIN-SEARCH b.example'",
         "nameserver 10.8.0.1\nnameserver fd00::1\nsearch vpn.example b.example\noptions edns0\n"},
        {"dns_server_5_address_1=10.8.0.9 dns_server_1_address_1=10.8.0.2 dns_server_1_address_2=fd00::2 "
         "dns_search_domain_1=a.example foreign_option_1='dhcp-option DNS 10.8.0.1'",
         "nameserver 10.8.0.2\nnameserver fd00::2\nnameserver 10.8.0.9\nsearch a.example\noptions edns0\n"},
        {"foreign_option_1='dhcp-option DNS 10.8.0.1' foreign_option_2='dhcp-option DOMAIN $(id)'",
         "nameserver 10.8.0.1\noptions edns0\n"},
        // None of these is an address, so nothing is changed.
        {"foreign_option_1='dhcp-option DNS $(touch evaluated)'", original},
        {"foreign_option_1='dhcp-option DNS `touch evaluated`' foreign_option_2='dhcp-option DNS *'", original},
        {"foreign_option_1='dhcp-option DNS 10.8.0.1\nnameserver 6.6.6.6'", original},
        {"dns_server_1_address_1='10.8.0.1;touch evaluated'", original},
        {"foreign_option_1='dhcp-option DNS 999.1.1.1'", original},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(inside("env dev=tun0 " + QByteArray(row.environment) +
                         " UP; cat /etc/resolv.conf >during; DOWN; [ -z \"$(ls /run/corvale)\" ]"),
                  0)
            << row.environment;
        EXPECT_EQ(read("during"), row.expected);
        EXPECT_EQ(read("resolv.conf"), original);
        EXPECT_FALSE(QFile::exists(folder.filePath(u"evaluated"_s)));
    }
}

TEST_F(ScriptsTest, aSecondTunnelAfterACrashDoesNotTakeTheFirstOnesServersForTheOriginal)
{
    EXPECT_EQ(inside("export dev=tun0; env foreign_option_1='dhcp-option DNS 10.8.0.1' UP\n"
                     "env foreign_option_1='dhcp-option DNS 10.9.0.1' UP; cat /etc/resolv.conf >during; DOWN; DOWN"),
              0);
    EXPECT_EQ(read("during"), "nameserver 10.9.0.1\noptions edns0\n");
    EXPECT_EQ(read("resolv.conf"), original);
}

/// Puts the test's resolvconf, alone in its folder, where the scripts search first.
const QByteArray withResolvconf =
    "mount -t tmpfs none /usr/sbin\ncp resolvconf /usr/sbin/resolvconf; chmod 755 /usr/sbin/resolvconf\n";

TEST_F(ScriptsTest, aWayThatFailsIsTakenBackBeforeTheNextIsTried)
{
    write("resolvconf", "#!/bin/sh\n[ $1 = -d ]\n");
    EXPECT_EQ(inside(withResolvconf +
                     "env dev=tun3 foreign_option_1='dhcp-option DNS 10.8.0.1' UP; cat /etc/resolv.conf >during; DOWN"),
              0);
    EXPECT_EQ(read("during"), "nameserver 10.8.0.1\noptions edns0\n");
    EXPECT_EQ(read("resolv.conf"), original);
}

TEST_F(ScriptsTest, resolvconfIsUsedWhereItIsThere)
{
    write("resolvconf", "#!/bin/sh\necho \"$@\" >>" + folder.path().toUtf8() + "/calls; [ $1 = -d ] || cat >>" +
                            folder.path().toUtf8() + "/calls\n");
    EXPECT_EQ(inside(withResolvconf + "env dev=tun3 foreign_option_1='dhcp-option DNS 10.8.0.1' UP; DOWN"), 0);
    EXPECT_EQ(read("calls"), "-a tun3.corvale\nnameserver 10.8.0.1\n-d tun3.corvale\n");
    EXPECT_EQ(read("resolv.conf"), original);
}
