// SPDX-License-Identifier: MIT
#pragma once

#include "configuration.h"

/// How OpenVPN keeps the addresses of its servers for connecting again. While the tunnel lasts it can look none up: the
/// name servers are behind the tunnel.
namespace RemoteAddresses {

/// The line of OpenVPN's file with which it looks up every name before it connects at all.
inline constexpr char beforehand[] = "preresolve\n";

/// That line where no name can keep OpenVPN from another server. Empty where the servers have several names, since it
/// would wait for each: then it has to start over, outside the tunnel, instead of connecting again.
QByteArray lineFor(const QList<Directive> &directives);

} // namespace RemoteAddresses
