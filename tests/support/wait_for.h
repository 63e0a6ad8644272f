// SPDX-License-Identifier: MIT
#pragma once

#include <QCoreApplication>
#include <QEventLoop>

#include <chrono>
#include <thread>

/// Runs the main thread's events until `condition` holds. False when it has not within `limit`, which is there to end
/// a test that has failed already: a passing test never waits for it.
template <typename Condition>
bool waitFor(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(20))
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}
