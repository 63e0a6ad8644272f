#include "background_queue.h"
#include "styling.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusVirtualObject>
#include <QTemporaryDir>

#include <cstdlib>
#include <gmock/gmock.h>

using namespace Qt::StringLiterals;

namespace {

/// Has the helper's name and never answers: every launch goes on with it, and none installs anything.
class SilentHelper final : public QDBusVirtualObject {
public:
    QString introspect(const QString & /*path*/) const override { return {}; }
    bool handleMessage(const QDBusMessage & /*message*/, const QDBusConnection & /*bus*/) override { return true; }
};

} // namespace

int main(int argc, char *argv[])
{
    const QTemporaryDir home;
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.path()));
    // No test may reach the machine's helper.
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", qgetenv("DBUS_SESSION_BUS_ADDRESS"));
    qputenv("QT_QPA_PLATFORM", "xcb");
    testing::InitGoogleMock(&argc, argv);
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    QApplication::setCursorFlashTime(0);
    Styling::apply(application);
    SilentHelper helper;
    auto bus = QDBusConnection::systemBus();
    bus.registerVirtualObject(u"/com/corvale/macos/helper"_s, &helper);
    bus.registerService(u"com.corvale.macos.helper"_s); // a death test's own process finds it taken, by this one
    const int status = RUN_ALL_TESTS();
    if (!BackgroundQueue::finish(std::chrono::seconds(5)))
        std::_Exit(EXIT_FAILURE);
    return status;
}
