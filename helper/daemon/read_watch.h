// SPDX-License-Identifier: MIT
#pragma once

#include "descriptor.h"

#include <QByteArray>
#include <QObject>

/// Notices when another program has read a file to its end and closed it. Main thread.
class ReadWatch : public QObject {
    Q_OBJECT
public:
    /// Watches the file `name` in `folder`, which must exist, through every replacement of the file.
    ReadWatch(const QByteArray &folder, QByteArray name);

    /// False when the kernel grants no watch; then nothing is ever noticed.
    [[nodiscard]] bool isWatching() const { return watching_; }

signals:
    void wasRead();

private:
    void take();

    const QByteArray name_;
    const Descriptor events_;
    const bool watching_;
};
