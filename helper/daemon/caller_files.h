// SPDX-License-Identifier: MIT
#pragma once

#include "descriptor.h"
#include "reading_child.h"
#include "result.h"

#include <QObject>
#include <QTimer>

/// Files that a caller names, read once with no more rights than the caller has, by a child process: the file system
/// may be the caller's own and never answer. Main thread; never blocks.
class CallerFiles : public QObject {
    Q_OBJECT
public:
    /// The bytes of a file. An error's detail is the end of a sentence that begins with what the file is.
    using File = Result<QByteArray>;

    /// The user with the system's groups for it; without an entry in the user database, one that is in no group.
    static ReadingChild::Caller callerOf(uid_t uid);

    /// Begins to read. A path that ends in a link is not followed.
    CallerFiles(const ReadingChild::Caller &caller, std::vector<ReadingChild::Wanted> wanted);
    ~CallerFiles() override;

signals:
    /// Once, after two seconds at most: one result for each file, in their order.
    void read(const std::vector<CallerFiles::File> &files);
    /// At most once, after `read`: the child cannot be ended, because the kernel waits for the file system.
    void hangs();
    /// Once, after `read`: the child has ended.
    void gone();

private:
    void startChild(const ReadingChild::Caller &caller);
    void takeBytes();
    void finish();
    void tooLate();
    void reap();
    [[nodiscard]] std::vector<File> results() const;

    const std::vector<ReadingChild::Wanted> wanted_;
    Descriptor pipe_;
    Descriptor process_;
    pid_t child_ = -1; ///< until it is reaped
    QByteArray bytes_;
    qsizetype maxBytes_ = 0;
    bool ended_ = false; ///< the child has said everything, or the timeout is over
    bool late_ = false;
    QTimer timeout_;
};
