#include "application_delegate.h"

#include "authorization.h"
#include "bundle.h"
#include "helper_connection.h"
#include "info_dictionary.h"
#include "message_connection.h"
#include "system_log.h"

#include <QCoreApplication>

#include <atomic>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

const QString label = QString::fromLatin1(HelperNames::service);

QString bundleHelper()
{
    return Bundle::location() + u"/Contents/Library/LaunchServices/"_s + label;
}

/// Queued, so that it works from every thread and also before the event loop runs.
void terminate()
{
    QMetaObject::invokeMethod(
        QCoreApplication::instance(), [] { QCoreApplication::exit(); }, Qt::QueuedConnection);
}

std::atomic<ApplicationDelegate *> delegate = nullptr;

} // namespace

ApplicationDelegate::ApplicationDelegate(Blessing::Programs programs) : programs_(std::move(programs))
{
    delegate = this;
}

ApplicationDelegate::~ApplicationDelegate()
{
    delegate = nullptr;
}

ApplicationDelegate *ApplicationDelegate::shared()
{
    return delegate;
}

std::shared_ptr<HelperConnection> ApplicationDelegate::helperConnection()
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

void ApplicationDelegate::clearHelperConnection()
{
    std::shared_ptr<HelperConnection> cleared; // let go after the guard
    const std::scoped_lock lock(guard_);
    cleared.swap(xpcHelperConnection_);
}

void ApplicationDelegate::invalidated(const std::weak_ptr<HelperConnection> &connection)
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

void ApplicationDelegate::forget(const std::weak_ptr<HelperConnection> &connection)
{
    std::shared_ptr<HelperConnection> forgotten; // let go after the guard
    const std::scoped_lock lock(guard_);
    // A newer connection may have taken the place meanwhile: that one stays.
    if (xpcHelperConnection_ && xpcHelperConnection_ == connection.lock())
        forgotten.swap(xpcHelperConnection_);
}

void ApplicationDelegate::shouldInstallHelperWithCallback(const std::function<void(bool)> &callback)
{
    const auto bundleVersion = InfoDictionary::textInFile(bundleHelper(), "CFBundleVersion");
    if (!bundleVersion) {
        callback(false);
        return;
    }
    SystemLog::write(u"Helper: Bundle Version => "_s + *bundleVersion);
    const auto helper = helperConnection()->remoteObjectProxyWithErrorHandler([callback](const MessageError &error) {
        SystemLog::write(error.text.isEmpty() ? error.name : error.text);
        callback(false);
    });
    helper->getVersionWithResponseHandler([callback, bundleVersion](const QString &installedVersion) {
        SystemLog::write(u"Helper: Installed Version => "_s + installedVersion);
        callback(installedVersion == *bundleVersion);
    });
}

void ApplicationDelegate::installHelper()
{
    using namespace Authorization;
    const Status status = AuthorizationCreate({{"com.apple.ServiceManagement.blesshelper"}},
                                              InteractionAllowed | ExtendRights | PreAuthorize);
    if (status != success) {
        SystemLog::write(u"Authorization error: Error Domain=NSOSStatusErrorDomain Code=%1 \"(null)\""_s.arg(status));
        terminate();
    } else if (const auto error = Blessing::SMJobBless(bundleHelper(), programs_)) {
        SystemLog::write(u"Bless Error: "_s + *error);
        terminate();
    } else {
        SystemLog::write(label + u" installed successfully"_s);
    }
}
