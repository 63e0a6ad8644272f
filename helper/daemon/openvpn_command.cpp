// SPDX-License-Identifier: MIT
#include "openvpn_command.h"

#include "descriptor.h"
#include "pushed_options.h"

#include <netinet/in.h>
#include <sys/socket.h>

QList<QByteArray> openvpnCommand(const HelperPaths &paths)
{
    QList<QByteArray> command{
        paths.openvpn,
        // Before the file, because OpenVPN's complaints about the file would go nowhere otherwise.
        "--syslog", "corvale-openvpn",
        // Before the file, because its connection blocks begin with what was said before them. A network that is back
        // should not wait for a long pause to end. The file may say neither.
        "--connect-retry", "1", "2", "--server-poll-timeout", "10", "--config", paths.configuration(),
        // Its routes keep everything inside the tunnel while it connects again.
        "--persist-tun",
        // From level 3 on OpenVPN logs its commands and the pushed options, and hides only those passwords and tokens
        // that it recognises.
        "--verb", "2",
        // Without this and without "tls-client" in the file, OpenVPN would talk to its peer in the clear.
        "--client",
        // OpenVPN insists on a folder that it may write to, and /tmp need not be one.
        "--tmp-dir", paths.runFolder, "--script-security", "2", "--up", paths.clientUp, "--down", paths.clientDown,
        "--management", "127.0.0.1", QByteArray::number(managementPort), "--management-query-passwords"};
    return command + pushedOptionFilters();
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
