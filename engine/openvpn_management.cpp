// SPDX-License-Identifier: MIT
#include "openvpn_management.h"

#include "background_queue.h"
#include "exact_text.h"
#include "local_peer.h"
#include "management_lines.h"
#include "openvpn_service.h"
#include "standard_output.h"

using namespace std::chrono_literals;

namespace {

constexpr char address[] = "127.0.0.1";
constexpr quint16 port = 1337;
constexpr int readSize = 2048;
constexpr qsizetype maxUnfinished = 1 << 20; // OpenVPN's longest line has some ten thousand bytes
constexpr auto pauseAfterRead = 100ms;
constexpr auto catchUpTimeout = 60s; // a megabyte at the reader's pace

} // namespace

// Whoever listens on the port gets the subscriber's password.
OpenVPNManagement::OpenVPNManagement() : socket(address, port, LocalPeer::isTrusted) {}

void OpenVPNManagement::startReading()
{
    if (!reading_.test_and_set())
        BackgroundQueue::async([this] { readLoop(); });
}

void OpenVPNManagement::sendCommand(const QByteArray &command)
{
    const auto sent = socket.send(command);
    StandardOutput::writeLine(sent ? command : command + ' ' + sent.error().detail);
}

void OpenVPNManagement::readLoop()
{
    QByteArray buffer;
    quint64 connection = 0;
    do {
        const quint64 number = beginRead();
        const TCPClient::Chunk chunk = socket.read(readSize);
        // Half a line of an earlier OpenVPN must not become the beginning of the next one's first line.
        if (chunk.connection != connection)
            buffer.clear();
        connection = chunk.connection;
        if (!chunk.bytes.isEmpty())
            buffer = addChunk(buffer, chunk.bytes);
        else
            foundNothing(number);
    } while (BackgroundQueue::pause(pauseAfterRead));
}

quint64 OpenVPNManagement::beginRead()
{
    const std::scoped_lock lock(readsGuard_);
    return ++reads_;
}

void OpenVPNManagement::foundNothing(quint64 number)
{
    {
        const std::scoped_lock lock(readsGuard_);
        emptyRead_ = number;
    }
    readNothing_.notify_all();
}

void OpenVPNManagement::catchUp()
{
    if (!reading_.test())
        return;
    std::unique_lock lock(readsGuard_);
    // A read that is under way may have looked too early.
    readNothing_.wait_for(lock, catchUpTimeout, [this, next = reads_ + 1] { return emptyRead_ >= next; });
}

QByteArray OpenVPNManagement::addChunk(const QByteArray &buffer, const QByteArray &chunk)
{
    if (!chunk.isValidUtf8())
        return buffer;
    const QByteArray left = processBuffer(buffer + chunk);
    return left.size() > maxUnfinished ? QByteArray() : left;
}

QByteArray OpenVPNManagement::processBuffer(const QByteArray &buffer)
{
    QByteArrayView left = buffer;
    while (const auto line = ManagementLines::takeLine(left))
        parseLine(*line);
    return left.size() == buffer.size() ? buffer : left.toByteArray();
}

void OpenVPNManagement::parseLine(QByteArrayView line)
{
    using Kind = ManagementLines::Action::Kind;
    const auto action = ManagementLines::actionFor(line);
    switch (action.kind) {
    case Kind::None: break;
    case Kind::Print: StandardOutput::writeLine(action.text); break;
    case Kind::PrintUnknownCommand:
        StandardOutput::writeLine("MGMT: Got unrecognized command" + action.text.toByteArray());
        break;
    case Kind::PrintUnknownLine:
        StandardOutput::writeLine("MGMT: Got unrecognized line from managment" + action.text.toByteArray());
        break;
    case Kind::State: handleState(action.text); break;
    }
}

void OpenVPNManagement::handleState(QByteArrayView rest)
{
    if (const auto name = ManagementLines::stateName(rest))
        OpenVPNService::shared().updateState(exactText(*name));
}
