// SPDX-License-Identifier: MIT
#include "openvpn_command.h"

#include "pushed_options.h"

QList<QByteArray> openvpnCommand(const HelperPaths &paths)
{
    QList<QByteArray> command{
        paths.openvpn,
        // Before the file, because OpenVPN's complaints about the file would go nowhere otherwise.
        "--syslog", "corvale-openvpn",
        // Before the file, because its connection blocks begin with what was said before them. A network that is back
        // should not wait for a long pause to end. The file may say neither.
        "--connect-retry", "1", "2", "--server-poll-timeout", "10", "--config", paths.configuration(),
        // One try at a time: while it looks for a name beforehand it hears no signal, such as that of a click.
        "--resolv-retry", "0",
        // Its routes keep everything inside the tunnel while it connects again.
        "--persist-tun",
        // From level 3 on OpenVPN logs its commands and the pushed options, and hides only those passwords and tokens
        // that it recognises.
        "--verb", "2",
        // Without this and without "tls-client" in the file, OpenVPN would talk to its peer in the clear.
        "--client",
        // OpenVPN insists on a folder that it may write to, and /tmp need not be one.
        "--tmp-dir", paths.runFolder, "--script-security", "2", "--up", paths.clientUp, "--down", paths.clientDown,
        "--management", paths.management(), "unix", "--management-client-user", "root", "--management-query-passwords"};
    return command + pushedOptionFilters();
}
