// SPDX-License-Identifier: MIT
#include "quit_signals.h"

#include <QCoreApplication>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr itimerspec lastMoment{{0, 0}, {0, 90'000'000}}; // ns; a session's end waits for nobody much longer

struct Wire {
    int readEnd = -1;
    int writeEnd = -1;
    timer_t timer{};
};
Wire wire; // a signal handler gets at nothing else

extern "C" void onQuitSignal(int)
{
    const int before = errno;
    // The event loop may be blocked in a connection attempt for many seconds; the timer goes off all the same.
    timer_settime(wire.timer, 0, &lastMoment, nullptr);
    [[maybe_unused]] const ssize_t written = write(wire.writeEnd, "", 1);
    errno = before;
}

extern "C" void onLastMoment(int)
{
    _exit(EXIT_SUCCESS);
}

int openWire()
{
    if (wire.readEnd >= 0)
        return wire.readEnd;
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) == 0)
        wire = {ends[0], ends[1], {}};
    sigevent expiry{};
    expiry.sigev_notify = SIGEV_SIGNAL;
    expiry.sigev_signo = SIGALRM;
    timer_create(CLOCK_MONOTONIC, &expiry, &wire.timer);
    return wire.readEnd;
}

void handle(int number, void (*handler)(int))
{
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(number, &action, nullptr);
}

} // namespace

void QuitSignals::limitTheEnd()
{
    timer_settime(wire.timer, 0, &lastMoment, nullptr);
}

QuitSignals::QuitSignals() : arrived_(openWire(), QSocketNotifier::Read)
{
    QObject::connect(&arrived_, &QSocketNotifier::activated, &arrived_, [] { QCoreApplication::exit(); });
    handle(SIGALRM, onLastMoment);
    handle(SIGINT, onQuitSignal);
    handle(SIGTERM, onQuitSignal);
}
