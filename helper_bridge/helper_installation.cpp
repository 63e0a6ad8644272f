// SPDX-License-Identifier: MIT
// The part of the application's delegate that compares the installed helper with the bundle's, and installs that one.

#include "helper_client.h"

#include "authorization.h"
#include "bundle.h"
#include "helper_connection.h"
#include "info_dictionary.h"
#include "system_log.h"

#include <QCoreApplication>

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

} // namespace

void HelperClient::shouldInstallHelperWithCallback(const std::function<void(bool)> &callback)
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

void HelperClient::installHelper()
{
    using namespace Authorization;
    const Status status = AuthorizationCreate({{"com.apple.ServiceManagement.blesshelper"}},
                                              InteractionAllowed | ExtendRights | PreAuthorize);
    if (status != success) {
        SystemLog::write(u"Authorization error: Error Domain=NSOSStatusErrorDomain Code=%1 \"(null)\""_s.arg(status));
        terminate();
    } else if (const auto blessed = Blessing::SMJobBless(bundleHelper(), programs_); !blessed) {
        SystemLog::write(u"Bless Error: "_s + QString::fromUtf8(blessed.error().detail));
        terminate();
    } else {
        SystemLog::write(label + u" installed successfully"_s);
    }
}
