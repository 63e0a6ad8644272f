// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <chrono>

/// The files that the helper works with. Fixed by the program's main function, and never by anything outside it.
struct HelperPaths {
    QByteArray openvpn;
    QByteArray clientUp;
    QByteArray clientDown;
    QByteArray runFolder;    ///< root's alone; made when it is missing
    QByteArray keptResolver; ///< client.up's copy of what it replaced, where the end of the machine leaves it

    [[nodiscard]] QByteArray configuration() const { return runFolder + "/" + configurationName; }
    [[nodiscard]] QByteArray processRecord() const { return runFolder + "/openvpn.process"; }
    [[nodiscard]] QByteArray dnsNote() const { return runFolder + "/dns"; } ///< client.up's
    static constexpr char configurationName[] = "openvpn.conf";
};

/// How long the helper has patience.
struct HelperLimits {
    std::chrono::milliseconds idle = std::chrono::minutes(1);    ///< without a message or a tunnel; then it leaves
    std::chrono::milliseconds ending = std::chrono::seconds(10); ///< with an OpenVPN that was asked to end
    std::chrono::milliseconds again = std::chrono::seconds(5);   ///< until what could not be restored is tried again
};
