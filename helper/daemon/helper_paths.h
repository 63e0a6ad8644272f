// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

/// The files that the helper works with. Fixed by the program's main function, and never by anything outside it.
struct HelperPaths {
    QByteArray openvpn;
    QByteArray clientUp;
    QByteArray clientDown;
    QByteArray runFolder;    ///< root's alone; made when it is missing
    QByteArray keptResolver; ///< client.up's copy of what it replaced, where the end of the machine leaves it

    [[nodiscard]] QByteArray configuration() const { return runFolder + "/" + configurationName; }
    [[nodiscard]] QByteArray processRecord() const { return runFolder + "/openvpn.process"; }
    [[nodiscard]] QByteArray management() const { return runFolder + "/management"; } ///< OpenVPN's socket
    [[nodiscard]] QByteArray dnsNote() const { return runFolder + "/dns"; }           ///< client.up's
    static constexpr char configurationName[] = "openvpn.conf";
};
