// SPDX-License-Identifier: MIT
#include "helper_client.h"

#include "helper_connection.h"
#include "system_log.h"

#include <QCoreApplication>

#include <atomic>
#include <utility>

namespace {

std::atomic<HelperClient *> delegate = nullptr;

} // namespace

HelperClient::HelperClient(Blessing::Programs programs) : programs_(std::move(programs))
{
    delegate = this;
}

HelperClient::~HelperClient()
{
    delegate = nullptr;
}

HelperClient *HelperClient::shared()
{
    return delegate;
}

std::shared_ptr<HelperConnection> HelperClient::helperConnection()
{
    const std::scoped_lock lock(guard_);
    if (!xpcHelperConnection_) {
        xpcHelperConnection_ = std::make_shared<HelperConnection>();
        // Weak, or the connection would own itself through its own handler.
        xpcHelperConnection_->setInvalidationHandler(
            [connection = std::weak_ptr(xpcHelperConnection_)] { invalidated(connection); });
        xpcHelperConnection_->resume();
    }
    return xpcHelperConnection_;
}

void HelperClient::clearHelperConnection()
{
    std::shared_ptr<HelperConnection> cleared; // let go after the guard
    const std::scoped_lock lock(guard_);
    cleared.swap(xpcHelperConnection_);
}

void HelperClient::invalidated(const std::weak_ptr<HelperConnection> &connection)
{
    if (const auto held = connection.lock())
        held->setInvalidationHandler(nullptr);
    // The delegate is made and destroyed on the main thread, so there it can be asked for safely.
    QMetaObject::invokeMethod(
        QCoreApplication::instance(),
        [connection] {
            if (auto *const current = shared())
                current->forget(connection);
            SystemLog::write(u"XPC Connection Invalidated\n");
        },
        Qt::QueuedConnection);
}

void HelperClient::forget(const std::weak_ptr<HelperConnection> &connection)
{
    std::shared_ptr<HelperConnection> forgotten; // let go after the guard
    const std::scoped_lock lock(guard_);
    // A newer connection may be there already: that one stays.
    if (xpcHelperConnection_ && xpcHelperConnection_ == connection.lock())
        forgotten.swap(xpcHelperConnection_);
}
