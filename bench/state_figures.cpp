// SPDX-License-Identifier: MIT
// From a state line on the management port until the button shows it: the real engine and the real form, whose peer
// sends at moments that have nothing to do with the reader's. Writes the samples, in ms, as JSON to the file named.

#include "app_delegate.h"
#include "background_queue.h"
#include "dark_style.h"
#include "helper_connection.h"
#include "main_view_controller.h"
#include "openvpn_service.h"
#include "silent_helper.h"
#include "tcp_peer.h"
#include "title_button.h"

#include <QApplication>
#include <QFile>
#include <QMainWindow>
#include <QTemporaryDir>
#include <QTimer>

#include <chrono>
#include <cstdlib>
#include <optional>
#include <random>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int wanted = 300;
constexpr int readerPause = 100; // ms; the next line comes anywhere within one, or a second one

/// Sends a state, waits for its look on the button, and goes on with another one after a random while.
class Watch final : public QObject {
public:
    Watch(TitleButton &button, const TCPPeer &peer) : button_(button), peer_(peer)
    {
        button_.installEventFilter(this);
        pause_.setSingleShot(true);
        pause_.setTimerType(Qt::PreciseTimer);
        connect(&pause_, &QTimer::timeout, this, &Watch::send);
        goOn();
    }

    QByteArrayList samples;

    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (watched == &button_ && event->type() == QEvent::Paint && awaited_ && button_.text() == *awaited_) {
            awaited_.reset();
            // The painting that is about to happen, and its way to the screen, are over when this comes.
            QMetaObject::invokeMethod(this, &Watch::shown, Qt::QueuedConnection);
        }
        return false;
    }

private:
    void goOn()
    {
        std::uniform_int_distribution<int> phase(0, 2 * readerPause);
        pause_.start(phase(random_));
    }

    void send()
    {
        connected_ = !connected_;
        awaited_ = connected_ ? u"Desconectar"_s : u"Conectando..."_s;
        sent_ = Clock::now();
        peer_.send(connected_ ? ">STATE:1700000000,CONNECTED,SUCCESS,10.8.0.2,203.0.113.20,1194,,\r\n"
                              : ">STATE:1700000000,RECONNECTING,ping-restart,,,,,\r\n");
    }

    void shown()
    {
        const std::chrono::duration<double, std::milli> took = Clock::now() - sent_;
        samples << QByteArray::number(took.count(), 'f', 3);
        if (samples.size() == wanted)
            return QCoreApplication::exit();
        goOn();
    }

    TitleButton &button_;
    const TCPPeer &peer_;
    QTimer pause_;
    std::mt19937 random_{std::random_device{}()};
    bool connected_ = false;
    std::optional<QString> awaited_;
    Clock::time_point sent_;
};

bool connectTunnel()
{
    OpenVPNService &service = OpenVPNService::shared();
    service.config = u"/tmp/corvale.ovpn"_s;
    service.username = u"ana@example.com"_s;
    service.password = u"secret"_s;
    service.startOpenVPN();
    return service.management.socket.send({}).has_value();
}

bool measure(const QString &path)
{
    const TCPPeer peer(1337);
    const SilentHelper helper;
    AppDelegate delegate;
    delegate.applicationDidFinishLaunching();
    if (!delegate.mainViewController || !connectTunnel())
        return false;
    Watch watch(*delegate.mainViewController->connectButton, peer);
    QTimer::singleShot(3min, [] { QCoreApplication::exit(EXIT_FAILURE); });
    if (QApplication::exec() != EXIT_SUCCESS)
        return false;
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write('[' + watch.samples.join(',') + "]\n") > 0;
}

} // namespace

int main(int argc, char *argv[])
{
    const QTemporaryDir home;
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.path()));
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", qgetenv("DBUS_SESSION_BUS_ADDRESS"));
    QApplication application(argc, argv);
    if (argc != 2)
        return EXIT_FAILURE;
    DarkStyle::apply(application);
    const bool done = measure(QString::fromLocal8Bit(argv[1]));
    if (!done)
        qCritical("The button did not show the states.");
    HelperConnection::finish();
    BackgroundQueue::finish();
    return done ? EXIT_SUCCESS : EXIT_FAILURE;
}
