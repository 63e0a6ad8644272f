// SPDX-License-Identifier: MIT
#pragma once

#include "configuration.h"

/// How OpenVPN keeps the addresses of its servers for connecting again. While the tunnel lasts it can look none up: the
/// name servers are behind the tunnel.
namespace RemoteAddresses {

/// OpenVPN goes back to the server that it was connected to and tries no other.
inline constexpr char sameServer[] = "persist-remote-ip\n";

/// The line for OpenVPN's file. That is `preresolve`, with which it looks up every name before it connects at all,
/// where no name can keep it from another server; `sameServer` where the servers have several names.
QByteArray lineFor(const QList<Directive> &directives);

} // namespace RemoteAddresses
