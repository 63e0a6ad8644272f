#pragma once

#include <memory>
#include <mutex>

class HelperConnection;

/// The part of the application's delegate that rooms below the windows may reach: the one connection to the helper.
class ApplicationDelegate {
public:
    ApplicationDelegate();
    virtual ~ApplicationDelegate();
    ApplicationDelegate(const ApplicationDelegate &) = delete;
    ApplicationDelegate &operator=(const ApplicationDelegate &) = delete;

    /// The application's delegate, or null before it is made and after it is gone. Any thread.
    static ApplicationDelegate *shared();

    /// The connection held in `xpcHelperConnection`, made and resumed first when there is none. Any thread; does not
    /// block. It stays the same until it is invalidated; the clearing then happens on the main thread.
    std::shared_ptr<HelperConnection> helperConnection();

    /// Forgets the connection, so that the next use makes a new one. Any thread. Replies under way still arrive.
    void clearHelperConnection();

private:
    static void invalidated(const std::weak_ptr<HelperConnection> &connection);
    void forget(const std::weak_ptr<HelperConnection> &connection);

    std::mutex guard_; ///< of `xpcHelperConnection_`
    std::shared_ptr<HelperConnection> xpcHelperConnection_;
};
