// SPDX-License-Identifier: MIT
#include "read_watch.h"

#include <QSocketNotifier>

#include <cstring>
#include <sys/inotify.h>
#include <utility>

ReadWatch::ReadWatch(const QByteArray &folder, QByteArray name)
    : name_(std::move(name)),
      events_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)),
      watching_(events_ && ::inotify_add_watch(events_.get(), folder.constData(), IN_CLOSE_NOWRITE) >= 0)
{
    if (!watching_)
        return;
    auto *const notifier = new QSocketNotifier(events_.get(), QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &ReadWatch::take);
}

void ReadWatch::take()
{
    constexpr size_t size = 4096;
    char buffer[size];
    for (ssize_t got = 0; (got = ::read(events_.get(), buffer, size)) > 0;) {
        for (ssize_t at = 0; at < got;) {
            inotify_event event{};
            std::memcpy(&event, buffer + at, sizeof event);
            const char *const name = buffer + at + sizeof event;
            if (event.len > 0 && name_ == name)
                emit wasRead();
            at += static_cast<ssize_t>(sizeof event + event.len);
        }
    }
}
