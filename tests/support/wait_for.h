// SPDX-License-Identifier: MIT
#pragma once

#include <QtCore/qtestsupport_core.h>

#include <chrono>

/// Runs the main thread's events until `condition` holds. Returns false when it does not hold within `timeout`, which
/// only a test that fails waits for.
template <typename Condition>
bool waitFor(Condition condition, std::chrono::milliseconds timeout = std::chrono::seconds(20))
{
    return QTest::qWaitFor(condition, static_cast<int>(timeout.count()));
}
