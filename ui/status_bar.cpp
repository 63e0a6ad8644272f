// SPDX-License-Identifier: MIT
#include "status_bar.h"

#include "bus_call.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QGuiApplication>

#include <cstdlib>
#include <memory>
#include <string_view>
#include <xcb/xcb.h>

using namespace Qt::StringLiterals;

namespace {

constexpr QLatin1String watcherName("org.kde.StatusNotifierWatcher");
constexpr QLatin1String watcherPath("/StatusNotifierWatcher");

template <typename T>
using Reply = std::unique_ptr<T, decltype(&std::free)>;

xcb_atom_t atom(xcb_connection_t *screen, std::string_view name)
{
    const auto request = xcb_intern_atom(screen, 0, static_cast<std::uint16_t>(name.size()), name.data());
    const Reply<xcb_intern_atom_reply_t> reply(xcb_intern_atom_reply(screen, request, nullptr), &std::free);
    return reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
}

} // namespace

void StatusBar::await()
{
    if (isOnScreen())
        return announce();
    if (selection_ != XCB_ATOM_NONE)
        qGuiApp->installNativeEventFilter(this);
    listenToBus();
}

bool StatusBar::isOnScreen()
{
    const auto *const application = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    if (!application)
        return false;
    xcb_connection_t *const screen = application->connection();
    selection_ = atom(screen, "_NET_SYSTEM_TRAY_S0");
    manager_ = atom(screen, "MANAGER");
    const Reply<xcb_get_selection_owner_reply_t> reply(
        xcb_get_selection_owner_reply(screen, xcb_get_selection_owner(screen, selection_), nullptr), &std::free);
    return reply && reply->owner != XCB_WINDOW_NONE;
}

void StatusBar::listenToBus()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return;
    auto *const arrival = new QDBusServiceWatcher(watcherName, bus, QDBusServiceWatcher::WatchForRegistration, this);
    connect(arrival, &QDBusServiceWatcher::serviceRegistered, this, &StatusBar::askHost);
    // The watcher may be there long before the status bar that shows its items.
    bus.connect(watcherName, watcherPath, watcherName, u"StatusNotifierHostRegistered"_s, this, SLOT(askHost()));
    askHost();
}

void StatusBar::askHost()
{
    auto question =
        QDBusMessage::createMethodCall(watcherName, watcherPath, u"org.freedesktop.DBus.Properties"_s, u"Get"_s);
    question << QString(watcherName) << u"IsStatusNotifierHostRegistered"_s;
    question.setAutoStartService(false);
    whenAnswered(QDBusConnection::sessionBus().asyncCall(question), this, [this](const QDBusMessage &answer) {
        const QDBusPendingReply<QVariant> reply = answer;
        if (reply.isValid() && reply.value().toBool())
            announce();
    });
}

bool StatusBar::nativeEventFilter(const QByteArray &eventType, void *message, qintptr *)
{
    if (eventType != "xcb_generic_event_t")
        return false;
    const auto *const event = static_cast<const xcb_client_message_event_t *>(message);
    if ((event->response_type & 0x7F) == XCB_CLIENT_MESSAGE && event->type == manager_ &&
        event->data.data32[1] == selection_)
        QMetaObject::invokeMethod(this, &StatusBar::announce, Qt::QueuedConnection); // Qt must see the event first
    return false;
}

void StatusBar::announce()
{
    if (announced_)
        return;
    announced_ = true;
    emit appeared();
}
