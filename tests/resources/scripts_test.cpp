// SPDX-License-Identifier: MIT
// The two scripts as they are, in namespaces in which the files and the routes that they change are the test's own.

#include <QByteArray>
#include <QFile>
#include <QTemporaryDir>

#include <cstdlib>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

#define MARK "# Corvale's, until its tunnel ends.\n"

namespace {

class ScriptsTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "only root has namespaces for itself";
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
    /// Runs `commands` where /etc and /run are the test's, UP and DOWN are the scripts, and neither
    /// systemd-resolved nor resolvconf is there.
    int inside(const QByteArray &commands) const
    {
        write("commands",
              "set -eu\nmount --make-rprivate /\nmount -t tmpfs none /run\nmkdir /run/corvale\ncd " +
                  folder.path().toUtf8() +
                  "\nmkdir -p etc; mount -t tmpfs none etc; [ ! -d /etc/iproute2 ] || cp -r /etc/iproute2 etc\n"
                  "mount --bind etc /etc; : >/etc/resolv.conf; mount --bind resolv.conf /etc/resolv.conf\n"
                  "for tool in resolvconf resolvectl; do for at in /usr/sbin /usr/bin; do\n"
                  "[ ! -e $at/$tool ] || mount --bind /dev/null $at/$tool; done; done\n" +
                  QByteArray(commands).replace("UP", CLIENT_UP).replace("DOWN", CLIENT_DOWN) + '\n');
        return std::system("unshare -mn sh " + folder.filePath(u"commands"_s).toUtf8());
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
         MARK "nameserver 10.8.0.1\nnameserver fd00::1\nsearch vpn.example b.example\noptions edns0\n"},
        {"dns_server_5_address_1=10.8.0.9 dns_server_1_address_1=10.8.0.2 dns_server_1_address_2=fd00::2 "
         "dns_search_domain_1=a.example foreign_option_1='dhcp-option DNS 10.8.0.1'",
         MARK "nameserver 10.8.0.2\nnameserver fd00::2\nnameserver 10.8.0.9\nsearch a.example\noptions edns0\n"},
        {"foreign_option_1='dhcp-option DNS 10.8.0.1' foreign_option_2='dhcp-option DOMAIN $(id)'",
         MARK "nameserver 10.8.0.1\noptions edns0\n"},
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
    EXPECT_EQ(read("during"), MARK "nameserver 10.9.0.1\noptions edns0\n");
    EXPECT_EQ(read("resolv.conf"), original);
}

/// Puts the test's tool, alone in its folder, where the scripts search first.
QByteArray with(const QByteArray &tool)
{
    return "mount -t tmpfs none /usr/sbin\ncp tool /usr/sbin/" + tool + "; chmod 755 /usr/sbin/" + tool + '\n';
}

TEST_F(ScriptsTest, aWayThatFailsIsTakenBackBeforeTheNextIsTried)
{
    write("tool", "#!/bin/sh\n[ $1 = -d ]\n");
    EXPECT_EQ(inside(with("resolvconf") +
                     "env dev=tun3 foreign_option_1='dhcp-option DNS 10.8.0.1' UP; cat /etc/resolv.conf >during; DOWN"),
              0);
    EXPECT_EQ(read("during"), MARK "nameserver 10.8.0.1\noptions edns0\n");
    EXPECT_EQ(read("resolv.conf"), original);
}

TEST_F(ScriptsTest, theSystemsOwnToolIsUsedWhereItIsThere)
{
    const std::pair<QByteArray, const char *> rows[] = {
        {with("resolvconf"), "-a tun3.corvale\nnameserver 10.8.0.1\nsearch a.example\n-d tun3.corvale\n"},
        {"mkdir -p /run/systemd/resolve\n" + with("resolvectl"),
         "status tun3\ndns tun3 10.8.0.1\ndomain tun3 a.example ~.\nrevert tun3\n"},
    };
    write("tool", "#!/bin/sh\ncd " + folder.path().toUtf8() + "\necho \"$@\" >>calls; [ $1 != -a ] || cat >>calls\n");
    for (const auto &[place, calls] : rows) {
        write("calls", "");
        EXPECT_EQ(inside(place + "env dev=tun3 dns_server_1_address_1=10.8.0.1 dns_search_domain_1=a.example UP; DOWN\n"
                                 "[ -z \"$(ls /run/corvale)\" ]"),
                  0);
        EXPECT_EQ(read("calls"), calls);
        EXPECT_EQ(read("resolv.conf"), original);
    }
}

TEST_F(ScriptsTest, aLinkStaysTheLinkThatItWasAndWhatIsBehindItComesBack)
{
    // Each is where the link leads, and what is there during the tunnel.
    const std::pair<const char *, const char *> rows[] = {{"resolv.conf", MARK "nameserver 10.8.0.1\noptions edns0\n"},
                                                          {"none", MARK "nameserver 10.8.0.1\n"},
                                                          {"no/folder", ""}};
    for (const auto &[target, during] : rows) {
        EXPECT_EQ(inside("mount -t tmpfs none /etc; ln -s \"$PWD/" + QByteArray(target) +
                         "\" /etc/resolv.conf\nenv dev=tun0 foreign_option_1='dhcp-option DNS 10.8.0.1' UP 2>said\n"
                         "cat /etc/resolv.conf >during 2>said || :; DOWN; [ -L /etc/resolv.conf ]\n"
                         "[ -z \"$(ls /run/corvale)\" ]"),
                  0)
            << target;
        EXPECT_EQ(read("during"), during) << target;
        EXPECT_EQ(read("resolv.conf"), original);
        EXPECT_FALSE(QFile::exists(folder.filePath(u"none"_s)));
    }
}

TEST_F(ScriptsTest, runsThatMeetDoNotLoseTheFile)
{
    // client.up is held up between its note and the file that it is about to write.
    write("tool", "#!/bin/sh\ncase $* in *options*) sleep 0.3 ;; esac\nexec /bin/grep \"$@\"\n");
    EXPECT_EQ(inside(with("grep") + "env dev=tun0 foreign_option_1='dhcp-option DNS 10.8.0.1' UP &\n"
                                    "until [ -s /run/corvale/dns ]; do :; done; DOWN & DOWN & DOWN; wait; DOWN\n"
                                    "[ -z \"$(ls /run/corvale)\" ]; [ ! -e /etc/resolv.conf.corvale ]"),
              0);
    EXPECT_EQ(read("resolv.conf"), original);
}

TEST_F(ScriptsTest, whatAnotherNetworkHasWrittenMeanwhileStays)
{
    write("other", "nameserver 10.20.0.1\n");
    EXPECT_EQ(inside("env dev=tun0 foreign_option_1='dhcp-option DNS 10.8.0.1' UP; cat other >/etc/resolv.conf; DOWN\n"
                     "[ -z \"$(ls /run/corvale)\" ]; [ ! -e /etc/resolv.conf.corvale ]"),
              0);
    EXPECT_EQ(read("resolv.conf"), "nameserver 10.20.0.1\n");
}

TEST_F(ScriptsTest, theServersComeBackAfterTheMachineEndedWithTheTunnelUp)
{
    const QByteArray up = "env dev=tun0 foreign_option_1='dhcp-option DNS 10.8.0.1' UP\n";
    EXPECT_EQ(inside(up + "mount -t tmpfs none /run; DOWN; [ ! -e /etc/resolv.conf.corvale ]"), 0);
    EXPECT_EQ(read("resolv.conf"), original);
    EXPECT_EQ(inside(up + "mount -t tmpfs none /run; " + up + "DOWN"), 0);
    EXPECT_EQ(read("resolv.conf"), original);
    // A network manager's file, in a folder that it makes itself.
    EXPECT_EQ(inside("mount -t tmpfs none /etc; mkdir /run/manager; cp resolv.conf /run/manager\n"
                     "ln -s /run/manager/resolv.conf /etc; " +
                     up + "mount -t tmpfs none /run; DOWN; [ ! -e /etc/resolv.conf.corvale ]"),
              0);
}

TEST_F(ScriptsTest, aFullDiskLosesNothing)
{
    const QByteArray fill = "dd if=/dev/zero bs=1k of=/etc/filler 2>/dev/null || :\n";
    const QByteArray up = "env dev=tun0 foreign_option_1='dhcp-option DNS 10.8.0.1' UP 2>said\n";
    // Longer than what stands in for it, so that there is no room to put it back.
    const QByteArray before = original + QByteArray(8000, '#') + '\n';
    write("before", before);
    EXPECT_EQ(inside("mount -t tmpfs -o size=64k none /etc; cp before /etc/resolv.conf\n" + up + fill +
                     "! DOWN 2>said; ! DOWN 2>said; rm /etc/filler; DOWN; cat /etc/resolv.conf >after\n"
                     "[ -z \"$(ls /run/corvale)\" ]; [ ! -e /etc/resolv.conf.corvale ]"),
              0);
    EXPECT_EQ(read("after"), before.toStdString());

    // With room for nothing, for the copy, for the note, ...: what is in the file is one or the other, and whole.
    const std::string whole = MARK "nameserver 10.8.0.1\noptions edns0\n";
    for (const QByteArray place : {"/etc", "/run"}) {
        for (int pages = 0; pages < 6; ++pages) {
            SCOPED_TRACE(place.toStdString() + ", pages: " + std::to_string(pages));
            EXPECT_EQ(inside("mount -t tmpfs -o size=64k none /etc; mount -t tmpfs -o size=64k none /run\n"
                             "mkdir /run/corvale; cp before /etc/resolv.conf\n" +
                             QByteArray(fill).replace("/etc", place) + "truncate -s -" + QByteArray::number(4 * pages) +
                             "k " + place + "/filler\n" + up + "cat /etc/resolv.conf >during; DOWN\n" +
                             "cat /etc/resolv.conf >after; ls -A /run/corvale /etc >left"),
                      0);
            EXPECT_TRUE(read("during") == before.toStdString() || read("during") == whole) << read("during");
            EXPECT_EQ(read("after"), before.toStdString());
            EXPECT_EQ(read("left").find("corvale."), std::string::npos) << read("left");
        }
    }
}

TEST_F(ScriptsTest, ofTheRoutesThatAKilledOpenVPNLeavesItsOwnAreTakenBackAndNoOther)
{
    struct Row {
        const char *environment;
        const char *meanwhile; ///< what OpenVPN and others do to the routes
        const char *after;     ///< how that differs from what was there before
    };
    // 192.0.2.7 has a route of its own before the tunnel.
    const Row rows[] = {
        {"trusted_ip=203.0.113.20 route_net_gateway=198.51.100.1",
         "add 203.0.113.20 via 198.51.100.1; add 198.51.100.1 via 198.51.100.1 dev wan; add 10.0.0.0/8 via "
         "198.51.100.1",
         "> 10.0.0.0/8 via 198.51.100.1 dev wan \n"},
        {"trusted_ip=203.0.113.20 route_net_gateway=198.51.100.1", "add 203.0.113.20 via 198.51.100.9; del default",
         "> 203.0.113.20 via 198.51.100.9 dev wan \n"},
        {"trusted_ip=203.0.113.20 route_net_gateway=198.51.100.1",
         "add 203.0.113.20 via 198.51.100.1 proto dhcp; del default; add default via 198.51.100.9",
         "> 203.0.113.20 via 198.51.100.1 dev wan proto dhcp \n< default via 198.51.100.1 dev wan proto dhcp metric "
         "100 \n> default via 198.51.100.9 dev wan \n"},
        {"trusted_ip=192.0.2.7 route_net_gateway=198.51.100.1", "list", ""},
        {"trusted_ip=203.0.113.20 route_net_gateway=0.0.0.0",
         "add 203.0.113.20 dev lo; add 203.0.113.20 dev wan scope global metric 9",
         "> 203.0.113.20 dev lo scope link \n"},
        {"route_vpn_gateway=10.8.0.1 route_network_1=10.1.0.0 route_netmask_1=255.255.0.0 route_gateway_1=198.51.100.1 "
         "route_network_2=10.2.0.1 route_netmask_2=255.255.255.255 route_gateway_2=198.51.100.9 "
         "route_network_3=192.0.2.7 route_netmask_3=255.255.255.255 route_gateway_3=198.51.100.1",
         "add 10.1.0.0/16 via 198.51.100.1; add 10.2.0.1 via 198.51.100.9 metric 5", ""},
        {"trusted_ip6=2001:db8::20 route_ipv6_network_1=2001:db8::20/128 route_ipv6_gateway_1=fe80::1 "
         "route_ipv6_network_2=2000::/4 route_ipv6_gateway_2=fd08::1",
         "add 2001:db8::20 via fe80::1 dev wan metric 1; add 2001:db8::21 via fe80::1 dev wan",
         "> 2001:db8::21 via fe80::1 dev wan metric 1024 pref medium\n"},
        {"trusted_ip6=2001:db8::20 route_ipv6_network_1=2001:db8::20/128 route_ipv6_gateway_1=::",
         "add 2001:db8::20 dev wan metric 1", ""},
        // In the same network, as OpenVPN 2.7 makes it and as 2.6 does.
        {"trusted_ip=198.51.100.20 route_net_gateway=198.51.100.1 trusted_ip6=fd01::20",
         "add 198.51.100.20 dev wan; add fd01::20 dev wan metric 1; add 198.51.100.21 dev wan",
         "> 198.51.100.21 dev wan scope link \n"},
        {"trusted_ip=198.51.100.20 route_net_gateway=198.51.100.1", "add 198.51.100.20 via 198.51.100.1", ""},
        {"trusted_ip='203.0.113.20 via 198.51.100.9' route_net_gateway='$(touch evaluated)' route_network_1='`touch "
         "evaluated`' route_netmask_1=* route_gateway_1=198.51.100.1 trusted_ip6='::1;touch evaluated'",
         "add 203.0.113.20 via 198.51.100.9", "> 203.0.113.20 via 198.51.100.9 dev wan \n"},
    };
    for (const Row &row : rows) {
        // No name server was pushed, and the second tunnel comes after a crash.
        EXPECT_EQ(
            // Without addresses that the kernel would give the links some time later.
            inside("ip link add wan type veth peer far; ip link set lo up\n"
                   "ip link set far addrgenmode none up; ip link set wan addrgenmode none up\n"
                   "ip address add 198.51.100.2/24 dev wan; ip address add fd01::2/64 dev wan nodad\n"
                   "ip route add default via 198.51.100.1 metric 100 proto dhcp\n"
                   "ip route add 192.0.2.7 via 198.51.100.1; ip -6 route add default dev wan metric 100\n"
                   "add() { case $1 in *:*) ip -6 route add \"$@\";; *) ip route add \"$@\";; esac; }\n"
                   "del() { ip route del \"$@\"; }; list() { :; }; all() { ip route; ip -6 route; }\n"
                   "all >before; export dev=odd " +
                   QByteArray(row.environment) + "\nUP; " + row.meanwhile +
                   "\nUP; DOWN; all >now; [ -z \"$(ls /run/corvale)\" ]\n"
                   "sort before >one; sort now >two; diff one two | grep '^[<>]' >after || :"),
            0)
            << row.environment;
        EXPECT_EQ(read("after"), row.after) << row.environment;
        EXPECT_FALSE(QFile::exists(folder.filePath(u"evaluated"_s)));
    }
}
