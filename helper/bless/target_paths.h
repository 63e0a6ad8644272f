// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

/// Where the bless tool puts things, and which bus it speaks to. Fixed by the program's main function; nothing that a
/// caller controls may change it.
struct TargetPaths {
    QByteArray programs;     ///< folder of the helper and the scripts
    QByteArray busPolicies;  ///< folder of the system bus
    QByteArray busServices;  ///< folder of the system bus
    QByteArray units;        ///< folder of systemd
    QByteArray systemd;      ///< a folder that exists while systemd runs the machine
    QByteArray busAddress;   ///< the system bus
    QByteArray runFolder;    ///< the helper's
    QByteArray keptResolver; ///< as in HelperPaths
    QByteArray lock;         ///< a file in a folder of root's: one tool works at a time

    [[nodiscard]] QByteArray helper() const { return programs + "/com.corvale.macos.helper"; }
};
