// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <functional>

/// What both sides of the system bus agree on: the client, which sends, and the helper, which answers. The interface
/// itself stands in com.corvale.macos.helper.xml beside this file.
namespace HelperNames {
inline constexpr char service[] = "com.corvale.macos.helper"; ///< bus name, interface, label and file name alike
inline constexpr char path[] = "/com/corvale/macos/helper";
/// The helper is leaving and has not begun to do what the message asks: the next one will, when it is sent again.
inline constexpr char leaving[] = "com.corvale.macos.helper.Error.Leaving";
inline constexpr char errorPrefix[] = "com.corvale.macos.helper.Error.";
} // namespace HelperNames

/// The three messages of the privileged helper. Each is one-way: it returns at once, on any thread, and what comes back
/// comes through the handler, at most once, on the helper connection's private thread.
class HelperProtocol {
public:
    HelperProtocol() = default;
    HelperProtocol(const HelperProtocol &) = delete;
    HelperProtocol &operator=(const HelperProtocol &) = delete;
    virtual ~HelperProtocol() = default;

    /// Asks for the version of the installed helper, passed on unchanged (it may be empty).
    virtual void getVersionWithResponseHandler(std::function<void(const QString &version)> responseHandler) = 0;

    /// Has OpenVPN run as root with the configuration file at `config` and the two scripts. `terminationHandler` gets
    /// OpenVPN's exit status when it has ended, 128 + n when signal n ended it; there is no time limit.
    virtual void runOpenVPNWithConfig(const QString &config, const QString &client_up, const QString &client_down,
                                      std::function<void(qint32 status)> terminationHandler) = 0;

    /// Has the running OpenVPN ended.
    virtual void killOpenVPN() = 0;
};
