// SPDX-License-Identifier: MIT
#pragma once

#include "tcp_client.h"

#include <QByteArray>
#include <QObject>

#include <atomic>
#include <condition_variable>
#include <mutex>

/// The client end of OpenVPN's management interface, 127.0.0.1 port 1337, where a listener counts only if it is root's
/// or the person's own. Owned by the tunnel service for the life of the process: the reader refers to it without end.
class OpenVPNManagement final : public QObject {
public:
    OpenVPNManagement();

    /// The connection. The tunnel service connects it; a later connect replaces an earlier one under the reader.
    TCPClient socket;

    /// Starts the one reader, on the background queue, and returns at once. Any thread. Later calls do nothing: the
    /// reader serves every later connection too, and starts each with an empty buffer.
    void startReading();

    /// Returns when every line that had arrived before the call has been dispatched, and after a minute at most; at
    /// once when there is no reader. Any thread but the reader's.
    void catchUp();

    /// Sends `command` unchanged (the caller ends it with LF) and echoes it, and the error where there is one, to
    /// standard output in one write. Any thread; blocks as `TCPClient::send` does. The caller is not told of failures.
    void sendCommand(const QByteArray &command);

    /// Dispatches every complete line of `buffer`, in order, on the caller's thread, and returns what is left over.
    static QByteArray processBuffer(const QByteArray &buffer);

    /// The buffer after one more read: `chunk`, unless it is no UTF-8, is appended to `buffer` and every complete line
    /// dispatched. More than a megabyte without a line end is dropped.
    static QByteArray addChunk(const QByteArray &buffer, const QByteArray &chunk);

    /// Acts on one complete line (without CR LF): a state goes to `handleState`, the rest at most to standard output.
    /// Never fails. Called on the reader's thread.
    static void parseLine(QByteArrayView line);

    /// Acts on the rest of a STATE notification: hands the state name to the tunnel service; without one, nothing.
    static void handleState(QByteArrayView rest);

private:
    void readLoop();
    quint64 beginRead();
    void foundNothing(quint64 number);

    std::atomic_flag reading_;
    std::mutex readsGuard_; ///< of the two below; nothing else happens under it
    quint64 reads_ = 0;     ///< how many the reader has begun
    quint64 emptyRead_ = 0; ///< the last one that found nothing: all before it is dispatched
    std::condition_variable readNothing_;
};
