#pragma once

#include <QByteArray>

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
