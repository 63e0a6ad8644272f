#pragma once

#include <QByteArray>

#include <chrono>

/// The files that the helper works with. Fixed by the program's main function, and never by anything outside it.
struct HelperPaths {
    QByteArray openvpn;
    QByteArray clientUp;
    QByteArray clientDown;
    QByteArray runFolder; ///< root's alone; made when it is missing

    [[nodiscard]] QByteArray configuration() const { return runFolder + "/" + configurationName; }
    [[nodiscard]] QByteArray processRecord() const { return runFolder + "/openvpn.process"; }
    static constexpr char configurationName[] = "openvpn.conf";
};

/// How long the helper has patience.
struct HelperLimits {
    std::chrono::milliseconds idle = std::chrono::minutes(1);    ///< without a message or a tunnel; then it leaves
    std::chrono::milliseconds ending = std::chrono::seconds(10); ///< with an OpenVPN that was asked to end
};
