// SPDX-License-Identifier: MIT
#pragma once

#include "descriptor.h"
#include "reading_child.h"

#include <QObject>
#include <QTimer>

#include <variant>

/// Files that a caller names, read once with no more rights than the caller has, by a child process: the file system
/// may be the caller's own and never answer. Main thread; never blocks.
class CallerFiles : public QObject {
    Q_OBJECT
public:
    /// Why a file was not read: the end of a sentence that begins with what the file is.
    struct Unreadable {
        QByteArray why;
    };
    using File = std::variant<QByteArray, Unreadable>;

    /// The user with the system's groups for it; without an entry in the user database, one that is in no group.
    static ReadingChild::Caller callerOf(uid_t uid);

    /// Begins to read. The last step of a path is followed by no link.
    CallerFiles(const ReadingChild::Caller &caller, std::vector<ReadingChild::Wanted> wanted);
    ~CallerFiles() override;

signals:
    /// Once, two seconds after the beginning at the latest: one result for each file, in their order.
    void read(const std::vector<CallerFiles::File> &files);
    /// At most once, after `read`: the child can be ended no more, since the kernel waits for the file system.
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
    qsizetype most_ = 0; ///< of them
    bool ended_ = false; ///< the child has said everything, or time is up
    bool late_ = false;
    QTimer limit_;
};
