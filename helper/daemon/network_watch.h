// SPDX-License-Identifier: MIT
#pragma once

#include "descriptor.h"

#include <QObject>
#include <QTimer>

/// Notices that the machine's network may have changed, and that the machine has slept. Main thread.
class NetworkWatch : public QObject {
    Q_OBJECT
public:
    NetworkWatch();

signals:
    /// Some link, address or route has changed, whichever it was: 200 ms after the last of several changes, and every
    /// second while they go on. Once more 3 s after the last one: a network manager sets name servers after routes.
    void changed();

    /// The login manager says that the machine has woken up.
    void woke();

private:
    Q_SLOT void sleepChanged(bool begins);
    void take();
    void tell();

    const Descriptor events_; ///< the kernel's, see rtnetlink(7); none where it grants no socket
    QTimer quiet_;
    QTimer limit_;
    QTimer later_;
};
