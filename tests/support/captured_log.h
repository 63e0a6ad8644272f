// SPDX-License-Identifier: MIT
#pragma once

#include "files.h"
#include "wait_for.h"

#include <gtest/gtest.h>

/// Standard error, where the system log writes too, for as long as this lives.
class CapturedLog {
public:
    CapturedLog() { testing::internal::CaptureStderr(); }
    ~CapturedLog() { testing::internal::GetCapturedStderr(); }
    CapturedLog(const CapturedLog &) = delete;
    CapturedLog &operator=(const CapturedLog &) = delete;

    QByteArray text() const { return contentOf(QStringLiteral("/proc/self/fd/2")); }
    bool reach(const char *line, qsizetype count) const
    {
        return waitFor([&] { return text().count(line) >= count; });
    }
};
