// SPDX-License-Identifier: MIT
#pragma once

#include "child_process.h"
#include "deferred.h"
#include "network_watch.h"

#include <QByteArray>
#include <QTimer>

#include <chrono>

/// Brings one OpenVPN's tunnel back after a change of network or a sleep: has client.up look at the way to the server
/// and mend it, and says what OpenVPN has to do. Says nothing before the first connection or once OpenVPN is exiting.
/// Main thread; nothing blocks.
class Recovery : public QObject {
    Q_OBJECT
public:
    /// `script` is client.up. `looksUpNames` says that OpenVPN does so before each connection, which it cannot from
    /// inside a tunnel that is dead: then all it can do is to start over.
    Recovery(QByteArray script, bool looksUpNames, std::chrono::milliseconds connectTimeout = std::chrono::seconds(10));

    void stateChanged(const QByteArray &name);     ///< OpenVPN's state, by its name on the management interface
    void remoteChanged(const QByteArray &address); ///< of the server that OpenVPN talks to from now on

signals:
    void restartNeeded(); ///< OpenVPN should connect again and keep its interface: SIGUSR1
    void reloadNeeded();  ///< that cannot help, or has not within the timeout: SIGHUP. Not again before a connection

private:
    void networkChanged();
    void look();
    void looked(int verdict, bool networkHasChanged);
    void restart();
    void startOver();

    const QByteArray script_;
    const bool looksUpNames_;
    NetworkWatch watch_;
    QByteArray remote_;
    QByteArray state_;
    Deferred<ChildProcess> looking_;
    QTimer connecting_;          ///< runs while OpenVPN should become connected
    bool hasConnected_ = false;  ///< since its start or the last reload, and it is not exiting
    bool lookAgain_ = false;     ///< something happened after the present look had begun
    bool hasChanged_ = false;    ///< the network, since the last look began
    bool restartAnyway_ = false; ///< as soon as there is a way to the server
};
