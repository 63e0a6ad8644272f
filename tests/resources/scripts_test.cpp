// SPDX-License-Identifier: MIT
// The two scripts as they are, in namespaces in which the files and the routes that they change are the test's own.

#include "files.h"

#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

#define MARK "# Corvale's, until its tunnel ends.\n"

namespace {

/// /etc and /run are the test's, neither systemd-resolved nor resolvconf is there, and the umask is OpenVPN's.
const QByteArray preparation = R"sh(
    set -eu; umask 077; mount --make-rprivate /; mount -t tmpfs none /run; mkdir /run/corvale
    mkdir -p etc; mount -t tmpfs none etc; cp -a /etc/alternatives etc; [ ! -d /etc/iproute2 ] || cp -r /etc/iproute2 etc
    mount --bind etc /etc; : >/etc/resolv.conf; mount --bind resolv.conf /etc/resolv.conf
    for tool in /usr/sbin/resolvconf /usr/bin/resolvconf /usr/sbin/resolvectl /usr/bin/resolvectl; do
        [ ! -e $tool ] || mount --bind /dev/null $tool
    done
    export dev=tun0
    up() (export foreign_option_1='dhcp-option DNS 10.8.0.1' "$@"; UP)
    upLong() {
        for n in $(seq 17); do
            export "dns_search_domain_$n=d$(printf '.example%.0s' $(seq 30))"
        done
        up
    }
    look() { cat /etc/resolv.conf >during; }
    reboot() { mount -t tmpfs none /run; }
    isClean() { [ -z "$(ls /run/corvale)" ] && [ ! -e /etc/resolv.conf.corvale ]; }
    # Puts the test's tool, alone in its folder, where the scripts search first.
    with() { mount -t tmpfs none /usr/sbin; cp tool "/usr/sbin/$1"; chmod 755 "/usr/sbin/$1"; }
    fill() { dd if=/dev/zero bs=1k "of=$1/filler" 2>/dev/null || :; }
    add() { case $1 in *:*) ip -6 route add "$@" ;; *) ip route add "$@" ;; esac; }
    del() { ip route del "$@"; }
    all() { ip route; ip -6 route; }
)sh";

class ScriptsTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "only root has namespaces for itself";
        write("resolv.conf", original);
    }
    QString path(const QByteArray &name) const { return folder.filePath(QString::fromUtf8(name)); }
    void write(const QByteArray &name, const QByteArray &bytes) const { writeFile(path(name), bytes); }
    QByteArray read(const QByteArray &name) const { return contentOf(path(name)); }
    /// Runs `commands`, in which UP and DOWN are the scripts; each must succeed.
    void inside(const QByteArray &commands) const
    {
        write("commands", "UP() { " CLIENT_UP " \"$@\"; }; DOWN() { " CLIENT_DOWN "; }; cd " + folder.path().toUtf8() +
                              preparation + commands + '\n');
        EXPECT_EQ(QProcess::execute(u"unshare"_s, {u"-mn"_s, u"sh"_s, path("commands")}), 0) << commands.constData();
    }

    static constexpr char original[] = "nameserver 192.0.2.1\noptions edns0\n";
    const QTemporaryDir folder;
};

} // namespace

TEST_F(ScriptsTest, whatTheServerPushedIsUsedUntilTheTunnelGoesDown)
{
    const std::pair<QByteArray, QByteArray> rows[] = {
        {"foreign_option_2='dhcp-option DNS6 fd00::1' foreign_option_3='dhcp-option DOMAIN vpn.example' "
         "foreign_option_4='dhcp-option DOMAIN-SEARCH b.example'",
         MARK "nameserver 10.8.0.1\nnameserver fd00::1\nsearch vpn.example b.example\noptions edns0\n"},
        {"dns_server_10_address_1=10.8.0.9 dns_server_2_address_1=10.8.0.2 dns_server_2_address_2=fd00::2 "
         "dns_search_domain_1=a.example",
         MARK "nameserver 10.8.0.2\nnameserver fd00::2\nnameserver 10.8.0.9\nsearch a.example\noptions edns0\n"},
        {"foreign_option_2='dhcp-option DOMAIN $(id)'", MARK "nameserver 10.8.0.1\noptions edns0\n"},
        // None of these is an address, so nothing is changed.
        {"foreign_option_1='dhcp-option DNS $(touch evaluated)'", original},
        {"foreign_option_1='dhcp-option DNS `touch evaluated`' foreign_option_2='dhcp-option DNS *'", original},
        {"foreign_option_1='dhcp-option DNS 10.8.0.1\nnameserver 6.6.6.6'", original},
        {"foreign_option_1= dns_server_1_address_1='10.8.0.1;touch evaluated'", original},
        {"foreign_option_1='dhcp-option DNS 999.1.1.1'", original},
    };
    for (const auto &[environment, during] : rows) {
        inside("up " + environment + "; look; DOWN; isClean");
        EXPECT_EQ(read("during"), during) << environment.constData();
        EXPECT_EQ(read("resolv.conf"), original);
        EXPECT_EQ(read("evaluated"), "(none)");
    }
}

TEST_F(ScriptsTest, whateverHappensMeanwhileTheFileComesBackUnlessAnotherNetworkHasWrittenIt)
{
    struct Row {
        const char *title;
        QByteArray commands;
        QByteArray during = MARK "nameserver 10.8.0.1\noptions edns0\n";
        QByteArray after = original;
        QByteArray tool = {};
    };
    const QByteArray link = "mount -t tmpfs none /etc; ln -s \"$PWD/TARGET\" /etc/resolv.conf; up 2>said\n"
                            "look 2>said || :; DOWN; [ -L /etc/resolv.conf ]; [ ! -e none ]; isClean";
    const Row rows[] = {
        {"the second tunnel comes after a crash",
         "up; up foreign_option_1='dhcp-option DNS 10.9.0.1'; look; DOWN; DOWN",
         MARK "nameserver 10.9.0.1\noptions edns0\n"},
        {"resolvconf fails", "with resolvconf; up; look; DOWN", MARK "nameserver 10.8.0.1\noptions edns0\n", original,
         "#!/bin/sh\n[ $1 = -d ]\n"},
        {"the file is a link", QByteArray(link).replace("TARGET", "resolv.conf")},
        {"the link leads nowhere",
         QByteArray(link).replace("TARGET", "none").replace("look", "look; stat -c %a none >mode"),
         MARK "nameserver 10.8.0.1\n"},
        {"the link leads into no folder", QByteArray(link).replace("TARGET", "no/folder"), ""},
        // client.up is held up between its note and the file that it is about to write.
        {"scripts meet",
         "with grep; up & until [ -s /run/corvale/dns ]; do :; done; DOWN & DOWN & DOWN; wait; look; DOWN; isClean",
         original, original, "#!/bin/sh\ncase $* in *options*) sleep 0.3 ;; esac\nexec /bin/grep \"$@\"\n"},
        {"another network writes it", "up; look; echo nameserver 10.20.0.1 >/etc/resolv.conf; DOWN; isClean",
         MARK "nameserver 10.8.0.1\noptions edns0\n", "nameserver 10.20.0.1\n"},
        {"the machine ends", "up; look; reboot; DOWN; [ ! -e /etc/resolv.conf.corvale ]"},
        {"the machine ends and another tunnel begins", "up; reboot; up; look; DOWN"},
        {"the machine ends and the folder of the link goes with it",
         "mount -t tmpfs none /etc; mkdir /run/manager; cp resolv.conf /run/manager; ln -s "
         "/run/manager/resolv.conf /etc\n"
         "up; look; reboot; DOWN; [ ! -e /etc/resolv.conf.corvale ]"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.title);
        write("resolv.conf", original);
        write("tool", row.tool);
        inside(row.commands);
        EXPECT_EQ(read("during"), row.during);
        EXPECT_EQ(read("resolv.conf"), row.after);
    }
    EXPECT_EQ(read("mode"), "644\n"); // everybody must be able to read it
}

TEST_F(ScriptsTest, theSystemsOwnToolIsUsedWhereItIsThere)
{
    const std::pair<QByteArray, QByteArray> rows[] = {
        {"with resolvconf", "-a tun0.corvale\nnameserver 10.8.0.1\nsearch a.example\n-d tun0.corvale\n"},
        {"mkdir -p /run/systemd/resolve; with resolvectl",
         "status tun0\ndns tun0 10.8.0.1\ndomain tun0 a.example ~.\nrevert tun0\n"},
    };
    write("tool", "#!/bin/sh\ncd " + folder.path().toUtf8() + "\necho \"$@\" >>calls; [ $1 != -a ] || cat >>calls\n");
    for (const auto &[preparing, calls] : rows) {
        write("calls", "");
        inside(preparing + "; up dns_search_domain_1=a.example dns_server_1_address_1=10.8.0.1; DOWN; isClean");
        EXPECT_EQ(read("calls"), calls);
        EXPECT_EQ(read("resolv.conf"), original);
    }
}

TEST_F(ScriptsTest, aFullDiskLosesNothing)
{
    // Longer than what stands in for it, so that there is no room to put it back.
    const QByteArray before = original + QByteArray(8000, '#') + '\n';
    write("before", before);
    const QByteArray small = "mount -t tmpfs -o size=64k none /etc; cp before /etc/resolv.conf\n";
    const QByteArray end = "rm /etc/filler; DOWN; cat /etc/resolv.conf >after; isClean";
    // The second time after the machine's end, in which the next tunnel must not take its own file for the
    // original.
    for (const QByteArray meanwhile : {"! DOWN 2>said; ! DOWN 2>said", "reboot; up 2>said"}) {
        inside(small + "up; fill /etc; " + meanwhile + '\n' + end);
        EXPECT_EQ(read("after"), before) << meanwhile.constData();
    }

    // With room for nothing, for the copy, for the note, ...: what is in the file is one or the other, and whole; also
    // when it is longer than what it stands in for.
    const std::tuple<QByteArray, QByteArray, int> files[] = {{before, "up", 12}, {original, "upLong", 4}};
    for (const auto &[old, up, steps] : files) {
        write("before", old);
        inside(small + up + "; cat /etc/resolv.conf >whole");
        for (int step = 0; step < steps && !HasFailure(); ++step) {
            const QByteArray place = step % 2 == 0 ? "/etc" : "/run";
            const QByteArray room = QByteArray::number(step / 2 * 4) + 'k';
            inside(small + "mount -t tmpfs -o size=64k none /run; mkdir /run/corvale; fill " + place +
                   "\ntruncate -s -" + room + ' ' + place + "/filler; " + up + " 2>said; look; DOWN\n" +
                   "cat /etc/resolv.conf >after; ! ls -A /run/corvale /etc | grep -F corvale.");
            EXPECT_TRUE(read("during") == old || read("during") == read("whole"))
                << up.constData() << " with " << room.constData() << " in " << place.constData() << ": "
                << read("during").constData();
            EXPECT_EQ(read("after"), old)
                << up.constData() << " with " << room.constData() << " in " << place.constData();
        }
    }
}

TEST_F(ScriptsTest, ofTheRoutesThatAKilledOpenVPNLeavesItsOwnAreTakenBackAndNoOther)
{
    struct Row {
        QByteArray environment;
        QByteArray meanwhile; ///< what OpenVPN and others do to the routes
        QByteArray after;     ///< how that differs from what was there before
    };
    // $gw is the gateway of the link "wan". 192.0.2.7 has a route of its own before the tunnel.
    const QByteArray server = "trusted_ip=203.0.113.20 route_net_gateway=$gw";
    const QByteArray near = "trusted_ip=198.51.100.20 route_net_gateway=$gw";
    const Row rows[] = {
        {server, "add 203.0.113.20 via $gw; add $gw via $gw dev wan; add 10.0.0.0/8 via $gw",
         "> 10.0.0.0/8 via 198.51.100.1 dev wan \n"},
        {server, "add 203.0.113.20 via 198.51.100.9; del default", "> 203.0.113.20 via 198.51.100.9 dev wan \n"},
        {server, "del default; add default via $gw", ""},
        {server, "add 203.0.113.20 via $gw proto dhcp; del default; add default via 198.51.100.9",
         "> 203.0.113.20 via 198.51.100.1 dev wan proto dhcp \n"
         "< default via 198.51.100.1 dev wan proto dhcp metric 100 \n> default via 198.51.100.9 dev wan \n"},
        {"trusted_ip=192.0.2.7 route_net_gateway=$gw", ":", ""},
        {"trusted_ip=203.0.113.20 route_net_gateway=0.0.0.0",
         "add 203.0.113.20 dev lo; add 203.0.113.20 dev wan scope global metric 9",
         "> 203.0.113.20 dev lo scope link \n"},
        {"route_vpn_gateway=10.8.0.1 route_network_1=10.1.0.0 route_netmask_1=255.255.0.0 route_gateway_1=$gw "
         "route_network_2=10.2.0.1 route_netmask_2=255.255.255.255 route_gateway_2=198.51.100.9 "
         "route_network_3=192.0.2.7 route_netmask_3=255.255.255.255 route_gateway_3=$gw",
         "add 10.1.0.0/16 via $gw; add 10.2.0.1 via 198.51.100.9 metric 5", ""},
        {"trusted_ip6=2001:db8::20 route_ipv6_network_1=2001:db8::20/128 route_ipv6_gateway_1=fe80::1 "
         "route_ipv6_network_2=2000::/4 route_ipv6_gateway_2=fd08::1",
         "add 2001:db8::20 via fe80::1 dev wan metric 1; add 2001:db8::21 via fe80::1 dev wan",
         "> 2001:db8::21 via fe80::1 dev wan metric 1024 pref medium\n"},
        {"trusted_ip6=2001:db8::20 route_ipv6_network_1=2001:db8::20/128 route_ipv6_gateway_1=::",
         "add 2001:db8::20 dev wan metric 1", ""},
        // In the same network, as OpenVPN 2.7 makes it and as 2.6 does.
        {near + " trusted_ip6=fd01::20",
         "add 198.51.100.20 dev wan; add fd01::20 dev wan metric 1; add 198.51.100.21 dev wan",
         "> 198.51.100.21 dev wan scope link \n"},
        {near, "add 198.51.100.20 via $gw", ""},
        {"trusted_ip='203.0.113.20 via 198.51.100.9' route_net_gateway='$(touch evaluated)' route_netmask_1=* "
         "route_network_1='`touch evaluated`' route_gateway_1=$gw trusted_ip6='::1;touch evaluated'",
         "add 203.0.113.20 via 198.51.100.9", "> 203.0.113.20 via 198.51.100.9 dev wan \n"},
    };
    for (const Row &row : rows) {
        // No addresses that the kernel would give the links some time later. No name server was pushed, and the
        // second tunnel comes after a crash.
        inside(R"(
            gw=198.51.100.1; ip link add wan type veth peer far; ip link set lo up
            ip link set far addrgenmode none up; ip link set wan addrgenmode none up
            ip address add 198.51.100.2/24 dev wan; ip address add fd01::2/64 dev wan nodad
            ip route add default via $gw metric 100 proto dhcp
            ip route add 192.0.2.7 via $gw; ip -6 route add default dev wan metric 100
            all >before; export dev=odd )" +
               row.environment + "\nUP; " + row.meanwhile + "\nUP; DOWN; all >now; isClean\n" +
               "sort before >one; sort now >two; diff one two | grep '^[<>]' >after || :");
        EXPECT_EQ(read("after"), row.after) << row.environment.constData();
        EXPECT_EQ(read("evaluated"), "(none)");
    }
}

TEST_F(ScriptsTest, fromNetworkToNetworkTheServerIsReachedAroundTheTunnelAndNothingElseIs)
{
    struct Row {
        const char *meanwhile;
        const char *seen; ///< what client.up ends with, and how a packet to the server goes then
    };
    const Row rows[] = {
        {"ip -6 route get 2001:db8::1", "0 via 198.51.100.1 dev wan src 198.51.100.2"},
        {"! ip -6 route get 2001:db8::1 2>said; ip -6 route get fd01::9; ip link add br0 type bridge; ip address add "
         "172.17.0.1/16 dev br0; ip link set br0 up",
         "0 via 198.51.100.1 dev wan src 198.51.100.2"},
        {"ip link set wan down; plug wan; ip route add default via 198.51.100.1",
         "3 via 198.51.100.1 dev wan src 198.51.100.2"},
        {"ip address del 198.51.100.2/24 dev wan; ip address add 198.51.100.3/24 dev wan; "
         "ip route add default via 198.51.100.1",
         "3 via 198.51.100.1 dev wan src 198.51.100.3"},
        {"ip link set wan down", "4 via 10.8.0.1 dev tun0 src 10.8.0.2"},
        {":", "4 via 10.8.0.1 dev tun0 src 10.8.0.2"},
        {"network cafe 192.0.2; ip route add default via 192.0.9.1 onlink dev cafe; echo nameserver 192.0.2.1 "
         ">/etc/resolv.conf",
         "3 via 192.0.9.1 dev cafe src 192.0.2.2"},
        // A better one beside it, and one that is worse.
        {"network lan 192.168.1; ip route del default; ip route add default via 192.0.2.1 metric 600; "
         "ip route add default via 192.168.1.1 metric 100",
         "3 via 192.168.1.1 dev lan src 192.168.1.2"},
        {"plug wan; ip route add default via 198.51.100.1 metric 700", "0 via 192.168.1.1 dev lan src 192.168.1.2"},
        {"ip route add unreachable 203.0.113.0/24; ip route add 203.0.113.16/28 via 192.0.2.1",
         "3 via 192.0.2.1 dev cafe src 192.0.2.2"},
        {"ip route del 203.0.113.16/28; network near 203.0.113 21", "3 dev near src 203.0.113.21"},
    };
    QByteArray commands = R"sh(
        plug() { ip link set "$1" up; until ip link show "$1" | grep -q LOWER_UP; do sleep 0.01; done; }
        network() {
            ip link add "$1" type veth peer "far-$1"
            ip link set "far-$1" addrgenmode none up; ip link set "$1" addrgenmode none; plug "$1"
            ip address add "$2.${3:-2}/24" dev "$1"
        }
        ip link set lo up; network wan 198.51.100; network tun0 10.8.0
        ip address add fd01::2/64 dev wan nodad; ip route add default via 198.51.100.1
        ip -6 route add default via fd01::1
        up trusted_ip=203.0.113.20 route_net_gateway=198.51.100.1
        add 203.0.113.20 via 198.51.100.1; add 0.0.0.0/1 via 10.8.0.1; add 128.0.0.0/1 via 10.8.0.1
        look() {
            status=0; UP again "$1" || status=$?
            echo "$status $(ip route get "$1" | grep -Eo '(via|dev|src) [^ ]+' | paste -sd ' ')" >>seen
        }
    )sh";
    QByteArray expected;
    for (const Row &row : rows) {
        commands += QByteArray(row.meanwhile) + "\nlook 203.0.113.20\n";
        expected += row.seen + QByteArray("\n");
    }
    inside(commands + "cat /etc/resolv.conf >during; DOWN; isClean; cat /etc/resolv.conf >servers\n"
                      "! all | grep -e 203.0.113.20 -e '^unreachable [^2]*:' -e unreachable.2000:");
    EXPECT_EQ(read("seen"), expected);
    EXPECT_EQ(read("during"), MARK "nameserver 10.8.0.1\n");
    EXPECT_EQ(read("servers"), "nameserver 192.0.2.1\n");
}
