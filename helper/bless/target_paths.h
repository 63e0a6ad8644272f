// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

/// Where the bless tool puts things, and whom it tells. Fixed by the program's main function, and never by anything
/// outside it.
struct BlessPaths {
    QByteArray programs;    ///< the helper's folder, and the scripts'
    QByteArray busPolicies; ///< folders of the system bus …
    QByteArray busServices;
    QByteArray units;        ///< … and of systemd
    QByteArray systemd;      ///< a folder that is there while systemd runs the machine
    QByteArray busAddress;   ///< the system bus
    QByteArray runFolder;    ///< the helper's
    QByteArray keptResolver; ///< as in HelperPaths
    QByteArray lock;         ///< a file in a folder of root's: one tool works at a time

    [[nodiscard]] QByteArray helper() const { return programs + "/com.corvale.macos.helper"; }
};
