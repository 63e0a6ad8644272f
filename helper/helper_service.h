#pragma once

#include "authority.h"
#include "helper_error.h"
#include "helper_paths.h"
#include "tunnel.h"

#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QTimer>

/// The helper's object on the bus: takes the three messages and answers each once. Main thread.
class HelperService final : public QDBusVirtualObject {
    Q_OBJECT
public:
    HelperService(const QDBusConnection &bus, const HelperPaths &paths);

    /// Puts the object on the bus and takes the name; false when that is refused, as it is to all but root.
    bool offer();

    /// Ends the tunnel, then says `finished`.
    Q_SLOT void finish();

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &bus) override;
    QString introspect(const QString &path) const override;

signals:
    /// Nothing is left to do: no tunnel, and no message for a minute; or `finish` is through.
    void finished();

private:
    void run(const QDBusMessage &message);
    void authorizedToRun(const QDBusMessage &message, uid_t uid);
    void kill(const QDBusMessage &message);
    void authorizedToKill(const QDBusMessage &message, uid_t uid);
    void answer(const QDBusMessage &reply);
    void leave();

    QDBusConnection bus_;
    const HelperPaths paths_;
    Authority authority_;
    Tunnel tunnel_;
    int open_ = 0;        ///< messages that have no answer yet
    bool ending_ = false; ///< no tunnel is started any more
    QTimer idle_;
};
