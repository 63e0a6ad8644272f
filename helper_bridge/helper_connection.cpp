#include "helper_connection.h"

#include "message_connection.h"

#include <utility>

using namespace Qt::StringLiterals;

namespace {

QString text(const char *name)
{
    return QString::fromLatin1(name);
}

class Proxy final : public HelperProtocol {
public:
    Proxy(std::shared_ptr<MessageConnection> messages, std::function<void(const MessageError &)> errorHandler)
        : messages_(std::move(messages)), errorHandler_(std::move(errorHandler))
    {
    }

    void getVersionWithResponseHandler(std::function<void(const QString &)> responseHandler) override
    {
        send<QString>(HelperNames::getVersion, {}, std::move(responseHandler));
    }

    void runOpenVPNWithConfig(const QString &config, const QString &client_up, const QString &client_down,
                              std::function<void(qint32)> terminationHandler) override
    {
        send<qint32>(HelperNames::runOpenVPN, {config, client_up, client_down}, std::move(terminationHandler));
    }

    void killOpenVPN() override
    {
        messages_->send(
            text(HelperNames::killOpenVPN), {}, [](const QVariantList &) {}, errorHandler_);
    }

private:
    /// A reply of exactly one `Value` goes to the handler; any other is a failure like an error of the bus.
    template <typename Value, typename Handler>
    void send(const char *member, const QVariantList &arguments, Handler handler)
    {
        const auto onReply = [handler = std::move(handler), onError = errorHandler_](const QVariantList &reply) {
            if (reply.size() == 1 && reply.first().metaType() == QMetaType::fromType<Value>())
                handler(reply.first().value<Value>());
            else
                onError({u"org.freedesktop.DBus.Error.InvalidSignature"_s, u"The helper's reply cannot be read."_s});
        };
        messages_->send(text(member), arguments, onReply, errorHandler_);
    }

    const std::shared_ptr<MessageConnection> messages_;
    const std::function<void(const MessageError &)> errorHandler_;
};

} // namespace

HelperConnection::HelperConnection()
    : messages_(std::make_shared<MessageConnection>(
          text(HelperNames::service), text(HelperNames::path), text(HelperNames::service),
          QStringList{text(HelperNames::errorPrefix) + u"NotAuthorized"_s}, text(HelperNames::leaving)))
{
}

HelperConnection::~HelperConnection() = default;

void HelperConnection::setInvalidationHandler(std::function<void()> handler)
{
    messages_->setInvalidationHandler(std::move(handler));
}

void HelperConnection::resume()
{
    messages_->resume();
}

std::shared_ptr<HelperProtocol>
HelperConnection::remoteObjectProxyWithErrorHandler(std::function<void(const MessageError &)> errorHandler)
{
    return std::make_shared<Proxy>(messages_, std::move(errorHandler));
}
