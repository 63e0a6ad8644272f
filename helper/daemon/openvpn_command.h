// SPDX-License-Identifier: MIT
#pragma once

#include "helper_paths.h"

#include <QList>

/// OpenVPN's command line, the same for every tunnel.
QList<QByteArray> openvpnCommand(const HelperPaths &paths);

constexpr quint16 managementPort = 1337; ///< on 127.0.0.1

/// Whether OpenVPN could listen on the management port now.
bool managementPortIsFree();
