// SPDX-License-Identifier: MIT
#include "openvpn_command.h"

#include "descriptor.h"

#include <netinet/in.h>
#include <sys/socket.h>

namespace {

/// What a pushed option must begin with. OpenVPN compares text: without the blank at its end, a name would accept every
/// longer name too. Names without a blank are options that may stand without a value.
constexpr const char *accepted[] = {
    "route ",
    "route-ipv6 ",
    "route-gateway ",
    "route-metric ",
    "redirect-gateway",
    "redirect-private",
    "block-ipv6",
    "ifconfig ",
    "ifconfig-ipv6 ",
    "topology ",
    "dhcp-option DNS ",
    "dhcp-option DNS6 ",
    "dhcp-option DOMAIN ",
    "dhcp-option DOMAIN-SEARCH ",
    "dns server ",
    "dns search-domains ",
    "ping ",
    "ping-restart ",
    "ping-exit ",
    "inactive ",
    "session-timeout ",
    "explicit-exit-notify",
    "peer-id ",
    "cipher ",
    "protocol-flags ",
    "key-derivation ",
    "auth-token ",
    "auth-token-user ",
    "tun-mtu ",
    "sndbuf ",
    "rcvbuf ",
    "push-continuation ",
};

} // namespace

QList<QByteArray> openvpnCommand(const HelperPaths &paths)
{
    QList<QByteArray> command{
        paths.openvpn,
        // Before the file, because OpenVPN's complaints about the file would go nowhere otherwise.
        "--syslog", "corvale-openvpn", "--config", paths.configuration(),
        // From level 3 on OpenVPN logs its commands and the pushed options, and hides only those passwords and tokens
        // that it recognises.
        "--verb", "2",
        // Without this and without "tls-client" in the file, OpenVPN would talk to its peer in the clear.
        "--client",
        // OpenVPN insists on a folder that it may write to, and /tmp need not be one.
        "--tmp-dir", paths.runFolder, "--script-security", "2", "--up", paths.clientUp, "--down", paths.clientDown,
        "--management", "127.0.0.1", QByteArray::number(managementPort), "--management-query-passwords"};
    for (const char *beginning : accepted)
        command << "--pull-filter"
                << "accept" << beginning;
    command << "--pull-filter"
            << "ignore"
            << "";
    return command;
}

bool managementPortIsFree()
{
    const Descriptor probe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    // As OpenVPN does: old connections that the kernel has yet to forget are no obstacle.
    const int on = 1;
    ::setsockopt(probe.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(managementPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return ::bind(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}
