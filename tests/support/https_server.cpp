// SPDX-License-Identifier: MIT
#include "https_server.h"

#include <QEventLoop>
#include <QFile>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslServer>
#include <QSslSocket>

#include <cctype>
#include <semaphore>

using namespace Qt::StringLiterals;

namespace {

QByteArray content(const QString &file)
{
    QFile opened(u"/tmp/certificates/"_s + file);
    return opened.open(QIODevice::ReadOnly) ? opened.readAll() : QByteArray();
}

bool trustTheAuthority()
{
    QSslConfiguration trusting = QSslConfiguration::defaultConfiguration();
    trusting.setCaCertificates({QSslCertificate(content(u"trusted.pem"_s))});
    QSslConfiguration::setDefaultConfiguration(trusting);
    return true;
}

/// The names of a header mean the same in any case, and versions of Qt send them in different ones.
QByteArray withLowerNames(QByteArray header)
{
    bool isName = false; // the first line has none
    for (char &letter : header) {
        if (letter == '\n' || letter == ':')
            isName = letter == '\n';
        else if (isName)
            letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    }
    return header;
}

qsizetype bodySize(const QByteArray &header)
{
    const qsizetype field = header.indexOf("\ncontent-length: ");
    return field < 0 ? 0 : header.mid(field + 17, header.indexOf("\r\n", field) - field - 17).toLongLong();
}

} // namespace

HttpsServer::HttpsServer(Answer answer, const char *certificate, quint16 port) : answer_(std::move(answer)), port_(port)
{
    [[maybe_unused]] static const bool trusted = trustTheAuthority();
    std::binary_semaphore listening(0); // the sanitizers do not see what Qt's own synchronises
    thread_ = std::thread([this, &listening, name = QString::fromLatin1(certificate)] {
        QEventLoop events; // first, since a thread that Qt did not start cannot watch sockets before
        QSslServer server;
        QSslConfiguration identity;
        identity.setLocalCertificate(QSslCertificate(content(name + u".pem"_s)));
        identity.setPrivateKey(QSslKey(content(name + u".key"_s), QSsl::Ec));
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
        listening.release();
        while (!ending_)
            events.processEvents(QEventLoop::WaitForMoreEvents);
    });
    listening.acquire();
}

HttpsServer::~HttpsServer()
{
    ending_ = true;
    events_->wakeUp();
    thread_.join();
}

void HttpsServer::read(QSslSocket &socket, QByteArray &received)
{
    received += socket.readAll();
    const qsizetype header = received.indexOf("\r\n\r\n") + 4;
    if (header < 4)
        return;
    received = withLowerNames(received.left(header)) + received.mid(header);
    if (received.size() < header + bodySize(received.left(header)))
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
