// SPDX-License-Identifier: MIT
#pragma once

#include <QTcpServer>
#include <QTcpSocket>

/// The other end of a TCP connection on 127.0.0.1: serves one client after the other while the main thread's events
/// run, and remembers what the latest one sent. Meanwhile the kernel takes clients and bytes, as many as fit.
class TCPPeer {
public:
    explicit TCPPeer(quint16 port = 0) ///< 0 takes a free port; a taken one ends the test program
    {
        if (!server_.listen(QHostAddress::LocalHost, port))
            qFatal("The peer's port is taken.");
        QObject::connect(&server_, &QTcpServer::newConnection, &server_, [this] { serve(); });
    }

    quint16 port() const { return server_.serverPort(); }
    int clients() const { return clients_; }                 ///< how many have been served so far
    const QByteArray &received() const { return received_; } ///< what the latest client has sent
    void send(const QByteArray &bytes) const                 ///< to the latest client, in one piece
    {
        client_->write(bytes);
        client_->flush();
    }
    void closeClient() const { client_->close(); }

private:
    void serve()
    {
        if (client_ || !server_.hasPendingConnections())
            return;
        client_ = server_.nextPendingConnection();
        ++clients_;
        received_.clear();
        QObject::connect(client_, &QTcpSocket::readyRead, &server_, [this] { received_ += client_->readAll(); });
        QObject::connect(client_, &QTcpSocket::disconnected, &server_, [this] {
            std::exchange(client_, nullptr)->deleteLater();
            serve();
        });
    }

    QTcpServer server_;
    QTcpSocket *client_ = nullptr;
    int clients_ = 0;
    QByteArray received_;
};
