// SPDX-License-Identifier: MIT
#pragma once

#include "wait_for.h"

#include <QTemporaryFile>

#include <unistd.h>

/// Standard error, where the system log writes too, for as long as this lives.
class CapturedLog {
public:
    CapturedLog() : before_(::dup(STDERR_FILENO))
    {
        if (file_.open())
            ::dup2(file_.handle(), STDERR_FILENO);
    }
    ~CapturedLog()
    {
        ::dup2(before_, STDERR_FILENO);
        ::close(before_);
    }
    CapturedLog(const CapturedLog &) = delete;
    CapturedLog &operator=(const CapturedLog &) = delete;

    QByteArray text() const
    {
        QFile file(file_.fileName());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    bool reach(const char *line, qsizetype count) const
    {
        return waitFor([&] { return text().count(line) >= count; });
    }

private:
    QTemporaryFile file_;
    const int before_;
};
