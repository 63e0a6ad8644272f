// SPDX-License-Identifier: MIT
#pragma once

#include "caller_files.h"
#include "deferred.h"
#include "helper_paths.h"
#include "result.h"

#include <QObject>
#include <QString>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <sys/types.h>

/// What `runOpenVPN` was sent.
struct TunnelRequest {
    QString config;
    QString clientUp;
    QString clientDown;
};

/// Decides what OpenVPN may read for a request: has its files read in the caller's name and judges them, first the
/// configuration, then the two scripts. One request of a user after the other, those of several users side by side.
/// Main thread; never blocks.
class RequestJudge : public QObject {
    Q_OBJECT
public:
    /// The configuration text for OpenVPN, or why there is none.
    using Handler = std::function<void(const Result<QByteArray> &)>;

    explicit RequestJudge(HelperPaths paths) : paths_(std::move(paths)) {}

    /// Calls `handler` once: within two seconds from the request's turn on, or at once while a file of an earlier
    /// request of this user still hangs.
    void judge(uid_t uid, const TunnelRequest &request, Handler handler);

    /// Refuses every request of this user that has not been judged yet.
    void abandon(uid_t uid);

    [[nodiscard]] bool isIdle() const { return queues_.empty(); }

private:
    struct Waiting {
        TunnelRequest request;
        Handler handler;
    };
    struct Queue {
        Deferred<CallerFiles> files; ///< being read, or their child has yet to end
        Handler current;             ///< for `files`; null once it was called
        std::deque<Waiting> waiting;
        bool hangs = false;
    };

    void readNext(uid_t uid);
    void filesWereRead(uid_t uid, const std::vector<CallerFiles::File> &files);
    void refuseAll(uid_t uid, const Error &error);

    const HelperPaths paths_;
    std::map<uid_t, Queue> queues_; ///< of the users with a request or a child
};
