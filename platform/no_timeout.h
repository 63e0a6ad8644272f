// SPDX-License-Identifier: MIT
#pragma once

#include <limits>

/// For calls on the bus that may take as long as they take. For Qt, and for the bus library below it, this very number
/// means no timeout; -1 would mean 25 seconds.
inline constexpr int noTimeout = std::numeric_limits<int>::max();
