// SPDX-License-Identifier: MIT
#pragma once

#include "child_process.h"
#include "descriptor.h"
#include "result.h"

#include <QByteArray>
#include <QObject>
#include <QSocketNotifier>
#include <QTimer>

#include <memory>
#include <sys/types.h>

/// The process that offers OpenVPN's management interface on 127.0.0.1, port 1337, to the tunnel's owner and root.
/// Main thread; nothing blocks.
class GateProcess : public QObject {
    Q_OBJECT
public:
    /// Listens on the port, so that clients may connect from now on, and has the gate serve it; OpenVPN is to listen at
    /// `socketPath`, at any later time. Fails with PortBusy when another program has the port.
    static Result<std::unique_ptr<GateProcess>> start(uid_t owner, const QByteArray &socketPath);

    /// To be called when OpenVPN has ended: the gate passes on its last words and ends. It is killed after four
    /// seconds.
    void finish();

signals:
    void stateChanged(const QByteArray &name);     ///< OpenVPN's, such as "CONNECTED"
    void remoteChanged(const QByteArray &address); ///< numeric; OpenVPN is about to talk to it
    void ended();                                  ///< once, whatever the reason

private:
    GateProcess(std::unique_ptr<ChildProcess> process, Descriptor control);
    void hear();

    const std::unique_ptr<ChildProcess> process_;
    Descriptor control_;
    QSocketNotifier notifier_; ///< of `control_`
    QTimer kill_;
};
