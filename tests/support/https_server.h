// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArrayList>
#include <QSslServer>

#include <functional>

class QTcpSocket;

/// An HTTPS server on the loopback, with one of the launcher's certificates, which answers while the main thread's
/// events run. The first one makes the process trust the launcher's "trusted" authority, and no other.
class HttpsServer {
public:
    struct Reply {
        QByteArray bytes;  ///< sent as they are, header included
        bool open = false; ///< whether the connection stays open afterwards
    };
    /// Called with a whole request. The names in its header are in lower case.
    using Answer = std::function<Reply(const QByteArray &request)>;

    explicit HttpsServer(Answer answer, const char *certificate = "good", quint16 port = 0);

    QByteArray address(const char *path) const;                  ///< https://localhost:…
    const QByteArrayList &requests() const { return requests_; } ///< as `Answer` gets them
    int connections() const { return connections_; }             ///< completed handshakes

private:
    void read(QTcpSocket &socket, QByteArray &received);

    const Answer answer_;
    QSslServer server_;
    QByteArrayList requests_;
    int connections_ = 0;
};

/// A whole response with that body.
QByteArray response(const char *status, const QByteArray &body, const QByteArray &headers = {});
