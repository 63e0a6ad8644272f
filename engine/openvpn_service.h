// SPDX-License-Identifier: MIT
#pragma once

#include "openvpn_management.h"

#include <QObject>
#include <QString>

#include <mutex>
#include <optional>

/// The one tunnel of this process: what a connection needs, its start and stop, and its state. Lives on the main thread
/// until the process ends.
class OpenVPNService final : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString state READ state WRITE setState)

public:
    static OpenVPNService &shared(); ///< any thread; made on first use

    std::optional<QString> config;   ///< path of the configuration file, not its contents
    std::optional<QString> username; ///< exactly as typed; main thread, like the other two
    std::optional<QString> password; ///< exactly as typed

    OpenVPNManagement management;

    /// The current connection-state name, "NOPROCESS" at first. Any thread.
    QString state() const;
    void setState(const QString &name); ///< any thread; stores and announces nothing: use `updateState`

    /// Asks the helper for OpenVPN, then connects to its management interface, switches on its messages and hands it
    /// the credentials. Main thread; blocks for up to 26.4 s (eight attempts of 3 s, with 0.3 s after each) and, with a
    /// peer that does not read, as long as the five commands take to fail (3 s each). When no attempt succeeds it says
    /// so on standard output and the state becomes "NOPROCESS". Without `config`, `username` or `password` nothing is
    /// asked of the helper or sent, and the start ends the same way.
    Q_INVOKABLE void startOpenVPN();

    /// Asks OpenVPN to end. Any thread. The state follows from what OpenVPN reports and from its end.
    Q_INVOKABLE void stopOpenVPN();

    /// Any thread. Stores and announces, unless a connected tunnel merely repeats its set-up steps.
    void updateState(const QString &name);

signals:
    /// Main thread, once after every accepted update, always queued. Carries nothing: read `state()`, which may be
    /// newer than the update that is announced.
    void OpenVPNStateDidChange();

private:
    OpenVPNService();

    void askHelper();
    bool connectManagement();
    void openvpnDidExit(qint32 status);
    void store(const QString &name);

    mutable std::mutex guard_; ///< of `state_`
    QString state_;
};
