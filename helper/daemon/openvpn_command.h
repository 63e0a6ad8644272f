// SPDX-License-Identifier: MIT
#pragma once

#include "helper_paths.h"

#include <QList>

/// OpenVPN's command line, the same for every tunnel.
QList<QByteArray> openvpnCommand(const HelperPaths &paths);
