// SPDX-License-Identifier: MIT
#include "quit_signals.h"

#include <QCoreApplication>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

constexpr itimerspec deadline{{0, 0}, {0, 90'000'000}}; // ns; a desktop that ends does not wait much longer

// Global, because a signal handler can reach nothing else.
int asked = -1;
timer_t timer{};

extern "C" void onQuitSignal(int)
{
    const int before = errno;
    // The event loop may be blocked in a connection attempt for many seconds; the timer goes off all the same.
    timer_settime(timer, 0, &deadline, nullptr);
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(asked, &one, sizeof one);
    errno = before;
}

extern "C" void onDeadline(int)
{
    _exit(EXIT_SUCCESS);
}

int prepare()
{
    if (asked >= 0)
        return asked;
    asked = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    sigevent expiry{};
    expiry.sigev_notify = SIGEV_SIGNAL;
    expiry.sigev_signo = SIGALRM;
    timer_create(CLOCK_MONOTONIC, &expiry, &timer);
    return asked;
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

void QuitSignals::startDeadline()
{
    timer_settime(timer, 0, &deadline, nullptr);
}

QuitSignals::QuitSignals() : asked_(prepare(), QSocketNotifier::Read)
{
    QObject::connect(&asked_, &QSocketNotifier::activated, &asked_, [] { QCoreApplication::exit(); });
    handle(SIGALRM, onDeadline);
    handle(SIGINT, onQuitSignal);
    handle(SIGTERM, onQuitSignal);
}
