// SPDX-License-Identifier: MIT
#pragma once

#include "result.h"

#include <cstring>

/// Why an operation failed, or "nothing". With an errno's own words: `EXPECT_EQ(failureOf(result), words(EPERM))`.
template <typename T>
QByteArray failureOf(const Result<T> &result)
{
    return result ? QByteArray("nothing") : result.error().detail;
}

inline QByteArray words(int number)
{
    return std::strerror(number);
}
