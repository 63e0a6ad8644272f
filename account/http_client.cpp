// SPDX-License-Identifier: MIT
#include "http_client.h"

#include "resident_code.h"

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>

#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr int maxRedirects = 20;
constexpr int reuseTimeout = 2; // s

int underWay = 0; // requests; main thread

QNetworkAccessManager &manager()
{
    static QNetworkAccessManager *one = nullptr;
    if (!one) {
        one = new QNetworkAccessManager;
        // Ends while the application still exists, since its thread is joined through it; requests under way end
        // silently.
        qAddPostRoutine([] { delete std::exchange(one, nullptr); });
    }
    return *one;
}

/// No request is to come for a while: connections, the thread that serves them and the code of TLS, a tenth of the
/// process, would only lie in memory.
void rest()
{
    constexpr std::string_view tls[] = {"libcrypto.so", "libssl.so", "libqopensslbackend.so"};
    if (underWay > 0)
        return;
    manager().clearConnectionCache();
    ResidentCode::letGo(tls);
}

bool isSafeHeader(const QByteArray &value)
{
    // Qt writes header values as they are, so a line end in one would begin a header of its own.
    return !value.contains('\r') && !value.contains('\n') && !value.contains('\0');
}

bool sameOrigin(const QUrl &one, const QUrl &other)
{
    constexpr int httpsPort = 443;
    return one.scheme() == other.scheme() && one.host() == other.host() && one.port(httpsPort) == other.port(httpsPort);
}

bool isRedirect(int status)
{
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

/// `from` as the response with `status` and `location` wants it sent next.
HttpRequest redirected(const HttpRequest &from, int status, const QUrl &location)
{
    HttpRequest next = from;
    next.url = from.url.resolved(location);
    next.url.setUserInfo({}); // would become credentials
    if (!sameOrigin(from.url, next.url))
        next.authorization.clear();
    if (status < 307)
        next.method = HttpRequest::Method::get;
    return next;
}

/// Qt counts every status from 400 on as an error of these two groups; the transfer itself went well.
bool isOnlyStatus(QNetworkReply::NetworkError error, int status)
{
    const int group = error / 100;
    return status >= 400 && (group == 2 || group == 4);
}

QNetworkRequest prepared(const HttpRequest &request)
{
    QNetworkRequest made(request.url);
    made.setTransferTimeout(static_cast<int>(request.idleTimeout.count()));
    made.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    made.setAttribute(QNetworkRequest::Http2AllowedAttribute, false);
    made.setAttribute(QNetworkRequest::CookieLoadControlAttribute, QNetworkRequest::Manual);
    made.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
    // A request on a connection that the server has meanwhile given up fails, so only a request that follows at once
    // gets an old one.
    made.setAttribute(QNetworkRequest::ConnectionCacheExpiryTimeoutSecondsAttribute, reuseTimeout);
    if (!request.authorization.isEmpty())
        made.setRawHeader("Authorization", request.authorization);
    if (request.method == HttpRequest::Method::post)
        made.setRawHeader("Content-Type", request.contentType);
    return made;
}

/// One request with its redirects, until its completion has run. Owned by the manager until it deletes itself.
class Exchange final : public QObject {
public:
    Exchange(HttpRequest request, std::function<void(const HttpResult &)> completion)
        : QObject(&manager()), request_(std::move(request)), completion_(std::move(completion))
    {
        ++underWay;
    }
    ~Exchange() override { --underWay; }
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;

    void start();

private:
    void onEncrypted();
    void onReadyRead();
    void onFinished();
    void complete(const HttpResult &result);

    HttpRequest request_;
    const std::function<void(const HttpResult &)> completion_;
    QNetworkReply *reply_ = nullptr;
    QByteArray body_;
    int redirects_ = 0;
    bool sent_ = false; ///< the request may already have reached the server
};

void Exchange::start()
{
    if (request_.url.scheme() != "https"_L1 || !isSafeHeader(request_.authorization) ||
        !isSafeHeader(request_.contentType)) {
        QMetaObject::invokeMethod(
            this,
            [this] {
                complete({std::nullopt, true});
            },
            Qt::QueuedConnection);
        return;
    }
    body_.clear();
    sent_ = false;
    const QNetworkRequest made = prepared(request_);
    reply_ = request_.method == HttpRequest::Method::post ? manager().post(made, request_.body) : manager().get(made);
    connect(reply_, &QNetworkReply::encrypted, this, [this] { onEncrypted(); });
    connect(reply_, &QNetworkReply::requestSent, this, [this] { sent_ = true; });
    connect(reply_, &QNetworkReply::readyRead, this, [this] { onReadyRead(); });
    connect(reply_, &QNetworkReply::finished, this, [this] { onFinished(); });
}

void Exchange::onEncrypted()
{
    // Qt sends a request again, up to three times, when its connection ends before the response begins. Its thread
    // waits for this slot before it writes anything to a new connection, and cancels first when told to.
    if (std::exchange(sent_, true))
        reply_->abort();
}

void Exchange::onReadyRead()
{
    body_ += reply_->readAll();
    if (body_.size() > HttpClient::maxBody)
        reply_->abort();
}

void Exchange::onFinished()
{
    if (reply_->isOpen())
        body_ += reply_->readAll();
    const QNetworkReply::NetworkError error = reply_->error();
    const QVariant status = reply_->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    const QUrl location = reply_->attribute(QNetworkRequest::RedirectionTargetAttribute).toUrl();
    reply_->deleteLater(); // this is one of its signals

    if (!status.isValid())
        return complete({std::nullopt, true});
    if (isRedirect(status.toInt()) && !location.isEmpty() && redirects_ < maxRedirects) {
        HttpRequest next = redirected(request_, status.toInt(), location);
        // What is posted is as secret as a token: the answer of one origin does not send it to another.
        const bool bodyLeaves = next.method == HttpRequest::Method::post && !sameOrigin(request_.url, next.url);
        if (next.url.scheme() == "https"_L1 && !bodyLeaves) {
            ++redirects_;
            request_ = std::move(next);
            return start();
        }
    }
    const bool broken = error != QNetworkReply::NoError && !isOnlyStatus(error, status.toInt());
    const bool failed = broken || body_.size() > HttpClient::maxBody;
    complete({status.toInt(), failed, failed ? QByteArray() : std::move(body_)});
}

void Exchange::complete(const HttpResult &result)
{
    deleteLater(); // an event or a signal of the reply is being delivered to this object
    if (request_.last)
        QMetaObject::invokeMethod(&manager(), &rest, Qt::QueuedConnection);
    completion_(result);
}

} // namespace

void HttpClient::send(const HttpRequest &request, std::function<void(const HttpResult &)> completion)
{
    auto *const exchange = new Exchange(request, std::move(completion));
    exchange->start();
}
