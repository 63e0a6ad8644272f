// SPDX-License-Identifier: MIT
#pragma once

#include "authority.h"
#include "helper_paths.h"
#include "request_judge.h"
#include "tunnel.h"

#include <QDBusContext>
#include <QDBusMessage>
#include <QObject>
#include <QTimer>

#include <chrono>
#include <functional>
#include <memory>
#include <vector>

/// The helper's object on the bus: takes the three messages and answers each once. Main thread.
class HelperService final : public QObject, protected QDBusContext {
    Q_OBJECT
public:
    struct Timeouts {
        std::chrono::milliseconds idle = std::chrono::minutes(1); ///< without a message or a tunnel; then it leaves
        Tunnel::Timeouts tunnel = {};
    };

    HelperService(const QDBusConnection &bus, const HelperPaths &paths, const Timeouts &timeouts);

    /// Puts the object on the bus and takes the name; false when that is refused, as it is to all but root. Then cleans
    /// up what a helper that died has left, as `Tunnel::begin` does.
    bool offer();

    /// Ends the tunnel and gives up the name. Then answers every message that it has not begun with the error
    /// `Leaving`, so that the client sends it to the next helper, and emits `finished`.
    Q_SLOT void finish();

    // The members of the interface, called for a message by the generated adaptor. What they return is not sent: each
    // message is answered on its own.
    QString getVersion();
    int runOpenVPN(const QString &config, const QString &client_up, const QString &client_down);
    void killOpenVPN();

signals:
    /// Once, when `finish` has done everything, or when there was no tunnel and no message for the idle timeout.
    void finished();

private:
    using Request = std::shared_ptr<const QDBusMessage>;

    /// Returns the message that is being delivered. From now on it waits for its answer.
    Request accept();
    /// Whether too many requests wait for the next helper already. If so, answers this one.
    bool isBeyondQuota(const Request &request);
    void handOver();
    /// Goes on with `next` when the sender may do `action`; answers the request itself when not.
    void admit(const Request &request, const QString &action, std::function<void(const Authority::Caller &)> next);
    void run(const Request &request, const Authority::Caller &caller);
    void start(const Request &request, uid_t uid, const QByteArray &configuration);
    void kill(const Request &request, const Authority::Caller &caller);
    /// Whether another user's tunnel runs. If so, answers the request.
    bool isAnothers(const Request &request, uid_t uid);
    void answer(const Request &request, const QDBusMessage &reply);
    void leave();

    QDBusConnection bus_;
    Authority authority_;
    RequestJudge judge_;
    Tunnel tunnel_;
    std::vector<Request> open_; ///< those without an answer, in the order of their arrival
    bool ending_ = false;       ///< no tunnel is started any more
    QTimer idle_;
};
