#pragma once

#include "descriptor.h"

#include <QByteArray>
#include <QObject>

/// Notices when another program has read a file to its end and closed it. Main thread.
class ReadWatch : public QObject {
    Q_OBJECT
public:
    /// Watches the file `name` in `folder`, which must exist, through every replacement of the file. Nothing is ever
    /// noticed when the kernel grants no watch.
    ReadWatch(const QByteArray &folder, QByteArray name);

signals:
    void wasRead();

private:
    void take();

    const QByteArray name_;
    const Descriptor events_;
};
