// SPDX-License-Identifier: MIT
#pragma once

#include "child_process.h"
#include "deferred.h"
#include "gate_process.h"
#include "helper_paths.h"
#include "read_watch.h"
#include "recovery.h"
#include "result.h"

#include <QTimer>

#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

/// The one OpenVPN of the machine: its start, its take-over by a later request of the same user, its end, and the
/// cleaning up after it. Main thread; nothing blocks but the beginning.
class Tunnel : public QObject {
    Q_OBJECT
public:
    using Handler = std::function<void(const Result<int> &)>;

    struct Timeouts {
        std::chrono::milliseconds end = std::chrono::seconds(10);     ///< from SIGTERM to SIGKILL
        std::chrono::milliseconds leftover = std::chrono::seconds(4); ///< the same for one that outlived its helper
        std::chrono::milliseconds retry = std::chrono::seconds(5); ///< until what could not be restored is tried again
    };

    Tunnel(HelperPaths paths, const Timeouts &timeouts);
    ~Tunnel() override;

    /// To be called once, first, and only by the one helper of the machine: cleans up what a helper that died has left.
    /// Blocks for as long as an OpenVPN that is left takes to end, five seconds at most.
    void begin();

    /// Whether nothing runs and nothing is left to be restored.
    [[nodiscard]] bool isIdle() const { return phase_ == Phase::Idle && !retry_.isActive(); }
    [[nodiscard]] std::optional<uid_t> owner() const { return owner_; } ///< none while idle

    /// Runs OpenVPN with this configuration for `uid`, or has the running one of the same owner read it.
    /// `handler` is called once: with the exit status of the OpenVPN that served the request, or with why none did. At
    /// most sixteen requests wait for the same end: when one more comes, the oldest is refused.
    void run(uid_t uid, const QByteArray &configuration, Handler handler);

    /// Ends OpenVPN: SIGTERM, after the timeout SIGKILL. `done` is called when everything is cleaned up.
    void stop(std::function<void()> done);

private:
    enum class Phase { Idle, Running, Stopping, Restoring };

    void dropOldest();
    void start();
    void recover();
    void reload();
    void configurationWasRead();
    void endOpenVPN();
    void openvpnEnded(int status);
    void gateEnded();
    [[nodiscard]] bool isLeft() const;
    void restore();
    void restored();
    void complete();
    void answerServed();
    void fail(const Error &error);
    void becomeIdle();
    void tellStopped();

    const HelperPaths paths_;
    Phase phase_ = Phase::Idle;
    std::optional<uid_t> owner_;
    Deferred<ChildProcess> process_; ///< OpenVPN, or the script that restores
    Deferred<GateProcess> gate_;     ///< from before OpenVPN's start until after its end
    std::unique_ptr<ReadWatch> watch_;
    Deferred<Recovery> recovery_;
    const Timeouts timeouts_;
    QTimer end_;                 ///< runs while a process that was asked to end has not
    QTimer reloading_;           ///< runs from the request to read the file again until it is read
    QTimer retry_;               ///< while idle: until client.down is tried once more
    int status_ = 128 + SIGTERM; ///< of the last OpenVPN; before the first one, as if that had been ended

    std::vector<Handler> waiting_; ///< in the order of the requests
    size_t unread_ = 0;            ///< how many of the last ones wait for their file to be read
    bool looksUpNames_ = false;    ///< before each connection, says the newest file
    bool wasRead_ = false;         ///< this OpenVPN has read a file
    bool reloadWhenRead_ = false;  ///< the file was replaced while OpenVPN had yet to read one
    std::vector<std::function<void()>> stops_;
};
