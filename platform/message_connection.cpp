#include "message_connection.h"

#include "background_queue.h"
#include "bus_session.h"

#include <QEventLoop>

#include <mutex>
#include <thread>
#include <utility>
#include <vector>

/// What the handle and the private thread share.
class MessageConnection::Worker : public std::enable_shared_from_this<Worker> {
public:
    explicit Worker(BusSession::Peer peer) : peer_(std::move(peer)) {}

    void start();
    void enqueue(BusSession::Message message);
    void setInvalidationHandler(std::function<void()> handler);
    void release(); ///< the handle is gone: end after the last reply
    void end();     ///< the process is ending: end now

private:
    void run();
    bool sendQueued(BusSession &session);
    void invalidated();
    void wake();

    const BusSession::Peer peer_;
    std::mutex guard_; ///< of everything below
    std::vector<BusSession::Message> queued_;
    std::function<void()> invalidationHandler_;
    QEventLoop *loop_ = nullptr; ///< the private thread's, while it runs
    bool started_ = false;
    bool released_ = false;
    bool ending_ = false;
};

void MessageConnection::Worker::start()
{
    {
        const std::scoped_lock lock(guard_);
        if (std::exchange(started_, true))
            return;
    }
    auto member = std::make_unique<BackgroundQueue::Member>([this] { end(); });
    std::thread([self = shared_from_this(), member = std::move(member)]() mutable {
        self->run();
        member.reset(); // before the worker that it refers to
    }).detach();
}

void MessageConnection::Worker::run()
{
    QEventLoop loop;
    {
        const std::scoped_lock lock(guard_);
        loop_ = &loop;
    }
    {
        BusSession session(peer_, [this] { invalidated(); });
        while (sendQueued(session))
            loop.processEvents(QEventLoop::WaitForMoreEvents);
    }
    std::vector<BusSession::Message> unsent;
    std::function<void()> unused;
    const std::scoped_lock lock(guard_);
    loop_ = nullptr;
    unsent.swap(queued_);
    unused.swap(invalidationHandler_);
}

/// Hands what was queued to the session, and says whether the thread is to go on.
bool MessageConnection::Worker::sendQueued(BusSession &session)
{
    for (;;) {
        std::vector<BusSession::Message> messages;
        {
            const std::scoped_lock lock(guard_);
            if (ending_ || (released_ && queued_.empty() && session.isIdle()))
                return false;
            messages.swap(queued_);
        }
        if (messages.empty())
            return true;
        for (const BusSession::Message &message : messages)
            session.send(message);
    }
}

void MessageConnection::Worker::enqueue(BusSession::Message message)
{
    const std::scoped_lock lock(guard_);
    queued_.push_back(std::move(message));
    wake();
}

void MessageConnection::Worker::setInvalidationHandler(std::function<void()> handler)
{
    // What the earlier handler holds is let go after the guard: it may be the last handle of this very connection.
    std::unique_lock lock(guard_);
    invalidationHandler_.swap(handler);
    lock.unlock();
}

void MessageConnection::Worker::invalidated()
{
    std::unique_lock lock(guard_);
    const auto handler = std::exchange(invalidationHandler_, nullptr);
    lock.unlock();
    if (handler)
        handler();
}

void MessageConnection::Worker::release()
{
    const std::scoped_lock lock(guard_);
    released_ = true;
    wake();
}

void MessageConnection::Worker::end()
{
    const std::scoped_lock lock(guard_);
    ending_ = true;
    wake();
}

void MessageConnection::Worker::wake()
{
    if (loop_)
        loop_->wakeUp();
}

MessageConnection::MessageConnection(const QString &service, const QString &path, const QString &interface,
                                     const QStringList &refusals, const QString &leaving)
    : worker_(std::make_shared<Worker>(BusSession::Peer{service, path, interface, refusals, leaving}))
{
}

MessageConnection::~MessageConnection()
{
    worker_->release();
}

void MessageConnection::setInvalidationHandler(std::function<void()> handler)
{
    worker_->setInvalidationHandler(std::move(handler));
}

void MessageConnection::resume()
{
    worker_->start();
}

void MessageConnection::send(const QString &member, const QVariantList &arguments, ReplyHandler onReply,
                             ErrorHandler onError)
{
    worker_->enqueue({member, arguments, std::move(onReply), std::move(onError)});
}
