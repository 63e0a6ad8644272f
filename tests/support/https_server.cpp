// SPDX-License-Identifier: MIT
#include "https_server.h"

#include "files.h"

#include <QEventLoop>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslServer>
#include <QSslSocket>

namespace {

QByteArray content(const QByteArray &name)
{
    return contentOf(QString::fromLatin1("/tmp/certificates/" + name));
}

bool trustTheAuthority()
{
    QSslConfiguration trusting = QSslConfiguration::defaultConfiguration();
    trusting.setCaCertificates({QSslCertificate(content("trusted.pem"))});
    QSslConfiguration::setDefaultConfiguration(trusting);
    return true;
}

/// The names in a header mean the same in any case, and versions of Qt send them in different ones.
QByteArray withLowerNames(QByteArray header)
{
    qsizetype line = header.indexOf('\n'); // the first line has no name
    for (qsizetype end = 0; (end = header.indexOf(':', line)) >= 0; line = header.indexOf('\n', end))
        header.replace(line, end - line, header.mid(line, end - line).toLower());
    return header;
}

} // namespace

HttpsServer::HttpsServer(Answer answer, const char *certificate, quint16 port) : answer_(std::move(answer)), port_(port)
{
    [[maybe_unused]] static const bool trusted = trustTheAuthority();
    thread_ = std::thread([this, certificate] { serve(certificate); });
    listening_.acquire();
}

HttpsServer::~HttpsServer()
{
    ending_ = true;
    events_->wakeUp();
    thread_.join();
}

void HttpsServer::serve(const QByteArray &certificate)
{
    QEventLoop events; // first, since a thread that Qt did not start cannot watch sockets before
    QSslServer server;
    QSslConfiguration identity;
    identity.setLocalCertificate(QSslCertificate(content(certificate + ".pem")));
    identity.setPrivateKey(QSslKey(content(certificate + ".key"), QSsl::Ec));
    server.setSslConfiguration(identity);
    QObject::connect(&server, &QSslServer::pendingConnectionAvailable, &server, [this, &server] {
        auto *const socket = qobject_cast<QSslSocket *>(server.nextPendingConnection());
        const std::scoped_lock lock(guard_);
        ++connections_;
        QObject::connect(socket, &QSslSocket::readyRead, socket,
                         [this, socket, received = QByteArray()]() mutable { read(*socket, received); });
        if (socket->bytesAvailable() > 0)
            QMetaObject::invokeMethod(socket, &QSslSocket::readyRead, Qt::QueuedConnection);
    });
    if (!server.listen(QHostAddress::LocalHost, port_))
        qFatal("The test's server cannot listen.");
    port_ = server.serverPort();
    events_ = &events;
    listening_.release();
    while (!ending_)
        events.processEvents(QEventLoop::WaitForMoreEvents);
}

void HttpsServer::read(QSslSocket &socket, QByteArray &received)
{
    received += socket.readAll();
    const qsizetype header = received.indexOf("\r\n\r\n") + 4;
    if (header < 4)
        return;
    received = withLowerNames(received.left(header)) + received.mid(header);
    const qsizetype length = received.indexOf("\ncontent-length: ");
    if (length >= 0 && received.size() < header + received.mid(length + 17).split('\r')[0].toLongLong())
        return;
    {
        const std::scoped_lock lock(guard_);
        requests_ += received;
    }
    const Reply reply = answer_(std::exchange(received, {}));
    socket.write(reply.bytes);
    if (!reply.open)
        socket.disconnectFromHost();
}

QByteArray HttpsServer::address(const char *path) const
{
    return "https://localhost:" + QByteArray::number(port_) + path;
}

QList<QByteArray> HttpsServer::requests() const
{
    const std::scoped_lock lock(guard_);
    return requests_;
}

int HttpsServer::connections() const
{
    const std::scoped_lock lock(guard_);
    return connections_;
}

QByteArray response(const char *status, const QByteArray &body, const QByteArray &headers)
{
    return QByteArray("HTTP/1.1 ") + status + "\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n" +
           headers + "\r\n" + body;
}
