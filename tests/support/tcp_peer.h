// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <mutex>
#include <thread>

/// The other end of a TCP connection on 127.0.0.1: a real listener that serves one client after the other on a thread
/// of its own and remembers what the latest one sent. Every operation may be called on any thread.
class TCPPeer {
public:
    explicit TCPPeer(quint16 port = 0); ///< 0 takes a free port; a taken one ends the test program
    ~TCPPeer();
    TCPPeer(const TCPPeer &) = delete;
    TCPPeer &operator=(const TCPPeer &) = delete;

    quint16 port() const { return port_; }
    int clients() const;                      ///< how many have been accepted so far
    QByteArray received() const;              ///< what the latest client has sent
    bool clientLeft() const;                  ///< the latest client has closed its end
    void send(const QByteArray &bytes) const; ///< to the latest client, in one piece
    void closeClient();

private:
    void serve();
    void readAll(int client);

    quint16 port_ = 0;
    int listener_ = -1;
    mutable std::mutex guard_; ///< of everything below
    int client_ = -1;
    int clients_ = 0;
    bool left_ = false;
    QByteArray received_;
    std::thread thread_;
};
