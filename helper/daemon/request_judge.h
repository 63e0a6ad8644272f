// SPDX-License-Identifier: MIT
#pragma once

#include "caller_files.h"
#include "helper_error.h"
#include "helper_paths.h"

#include <QObject>
#include <QString>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <sys/types.h>
#include <variant>

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
    using Verdict = std::function<void(const std::variant<QByteArray, HelperError> &)>;

    explicit RequestJudge(HelperPaths paths) : paths_(std::move(paths)) {}

    /// `verdict` is called once: two seconds after the request's turn has come at the latest, at once when a file of an
    /// earlier request of this user still hangs.
    void judge(uid_t uid, const TunnelRequest &request, Verdict verdict);

    /// Refuses what this user's requests wait for.
    void abandon(uid_t uid);

    [[nodiscard]] bool isIdle() const { return lines_.empty(); }

private:
    struct Waiting {
        TunnelRequest request;
        Verdict verdict;
    };
    struct Line {
        std::unique_ptr<CallerFiles> files; ///< being read, or their child is yet to go
        Verdict current;                    ///< on them; none once it is given
        std::deque<Waiting> waiting;
        bool hangs = false;
    };

    void readNext(uid_t uid);
    void filesWereRead(uid_t uid, const std::vector<CallerFiles::File> &files);
    void refuseAll(uid_t uid, const HelperError &error);

    const HelperPaths paths_;
    std::map<uid_t, Line> lines_; ///< of the users with a request or a child
};
