// SPDX-License-Identifier: MIT
#include "https_server.h"

#include "files.h"

#include <QSslConfiguration>
#include <QSslKey>
#include <QTcpSocket>

namespace {

QByteArray content(const QByteArray &name)
{
    return contentOf(QString::fromLatin1("/tmp/certificates/" + name));
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

HttpsServer::HttpsServer(Answer answer, const char *certificate, quint16 port) : answer_(std::move(answer))
{
    QSslConfiguration trusting = QSslConfiguration::defaultConfiguration();
    trusting.setCaCertificates({QSslCertificate(content("trusted.pem"))});
    QSslConfiguration::setDefaultConfiguration(trusting);

    QSslConfiguration identity;
    identity.setLocalCertificate(QSslCertificate(content(certificate + QByteArray(".pem"))));
    identity.setPrivateKey(QSslKey(content(certificate + QByteArray(".key")), QSsl::Ec));
    server_.setSslConfiguration(identity);
    QObject::connect(&server_, &QSslServer::pendingConnectionAvailable, &server_, [this] {
        auto *const socket = server_.nextPendingConnection();
        ++connections_;
        QObject::connect(socket, &QTcpSocket::readyRead, &server_,
                         [this, socket, received = QByteArray()]() mutable { read(*socket, received); });
        if (socket->bytesAvailable() > 0)
            QMetaObject::invokeMethod(socket, &QTcpSocket::readyRead, Qt::QueuedConnection);
    });
    if (!server_.listen(QHostAddress::LocalHost, port))
        qFatal("The test's server cannot listen.");
}

void HttpsServer::read(QTcpSocket &socket, QByteArray &received)
{
    received += socket.readAll();
    const qsizetype header = received.indexOf("\r\n\r\n") + 4;
    if (header < 4)
        return;
    received = withLowerNames(received.left(header)) + received.mid(header);
    const qsizetype length = received.indexOf("\ncontent-length: ");
    if (length >= 0 && received.size() < header + received.mid(length + 17).split('\r')[0].toLongLong())
        return;
    requests_ += received;
    const Reply reply = answer_(std::exchange(received, {}));
    socket.write(reply.bytes);
    if (reply.open)
        return;
    socket.disconnectFromHost();
    socket.waitForDisconnected(); // before the client, whose events wait meanwhile, could ask again on it
}

QByteArray HttpsServer::address(const char *path) const
{
    return "https://localhost:" + QByteArray::number(server_.serverPort()) + path;
}

QByteArray response(const char *status, const QByteArray &body, const QByteArray &headers)
{
    return QByteArray("HTTP/1.1 ") + status + "\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n" +
           headers + "\r\n" + body;
}
