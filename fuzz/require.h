// SPDX-License-Identifier: MIT
#pragma once

#include <cstdlib>

/// What a fuzzer finds out: ends the process unless `holds`.
inline void require(bool holds)
{
    if (!holds)
        std::abort();
}
