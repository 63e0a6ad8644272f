// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QList>

#include <atomic>
#include <functional>
#include <mutex>
#include <semaphore>
#include <thread>

class QEventLoop;
class QSslSocket;

/// An HTTPS server on the loopback, on a thread of its own, with one of the launcher's certificates. The first one
/// makes the process trust the launcher's "trusted" authority, and no other.
class HttpsServer {
public:
    struct Reply {
        QByteArray bytes;  ///< sent as they are, header included
        bool open = false; ///< whether the connection stays open afterwards
    };
    /// Called on the server's thread with a whole request. The names in its header are in lower case.
    using Answer = std::function<Reply(const QByteArray &request)>;

    explicit HttpsServer(Answer answer, const char *certificate = "good", quint16 port = 0);
    ~HttpsServer();

    QByteArray address(const char *path) const; ///< https://localhost:…
    QList<QByteArray> requests() const;         ///< as `Answer` gets them
    int connections() const;                    ///< completed handshakes

private:
    void serve(const QByteArray &certificate);
    void read(QSslSocket &socket, QByteArray &received);

    const Answer answer_;
    quint16 port_;
    mutable std::mutex guard_; ///< of the two below
    QList<QByteArray> requests_;
    int connections_ = 0;
    QEventLoop *events_ = nullptr; ///< the thread's
    std::binary_semaphore listening_{0};
    std::atomic_bool ending_ = false;
    std::thread thread_;
};

/// A whole response with that body.
QByteArray response(const char *status, const QByteArray &body, const QByteArray &headers = {});
