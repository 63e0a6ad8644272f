// SPDX-License-Identifier: MIT
#pragma once

#include "blessing.h"

#include <functional>
#include <memory>
#include <mutex>

class HelperConnection;

/// The part of the application's delegate that rooms below the windows may reach: the one connection to the helper, and
/// the helper's installation. It outlives the connection's private thread.
class HelperClient {
public:
    explicit HelperClient(Blessing::Programs programs = {});
    virtual ~HelperClient();
    HelperClient(const HelperClient &) = delete;
    HelperClient &operator=(const HelperClient &) = delete;

    /// The application's delegate, or null before it is made and after it is gone. Any thread.
    static HelperClient *shared();

    /// The connection held in `xpcHelperConnection`, made and resumed first when there is none. Any thread; does not
    /// block. It stays the same until it is invalidated; the clearing then happens on the main thread.
    std::shared_ptr<HelperConnection> helperConnection();

    /// Forgets the connection, so that the next use makes a new one. Any thread. Replies under way still arrive.
    void clearHelperConnection();

    /// Compares the version of the installed helper with that of the bundle's. Calls back at most once: with true when
    /// they are the same text and nothing is to be installed, with false when they differ or the installed helper
    /// cannot be asked. That happens on the connection's private thread; but when the version of the bundle's helper
    /// cannot be read, it is false at once, on the calling thread. While a helper stays silent nothing is called. Any
    /// thread; reads the file, and does not wait.
    void shouldInstallHelperWithCallback(const std::function<void(bool)> &callback);

    /// Installs the bundle's helper, in the place of whichever there is; whoever holds a connection to it should forget
    /// that one. A person may be asked for a password: blocks until that and the installation are over. Any thread.
    /// Whatever fails is logged, and then the application quits.
    void installHelper();

private:
    static void invalidated(const std::weak_ptr<HelperConnection> &connection);
    void forget(const std::weak_ptr<HelperConnection> &connection);

    const Blessing::Programs programs_;
    std::mutex guard_; ///< of `xpcHelperConnection_`
    std::shared_ptr<HelperConnection> xpcHelperConnection_;
};
