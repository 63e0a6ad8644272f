// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QUrl>

#include <chrono>
#include <functional>
#include <optional>

struct HttpRequest {
    enum class Method { get, post };

    Method method = Method::get;
    QUrl url;                      ///< https, or the request fails without being sent
    QByteArray contentType = {};   ///< of the body; for `post`
    QByteArray body = {};          ///< for `post`
    QByteArray authorization = {}; ///< header of that name, unless empty; never sent to another origin
    bool last = false;             ///< none follows soon: connections and memory are given back after it
    std::chrono::milliseconds idleTimeout{60'000}; ///< how long nothing may arrive before the request has failed
};

struct HttpResult {
    std::optional<int> status; ///< of the response, or none when no response arrived
    bool failed = false;       ///< the transfer did not end as it should: no response, cut off, too slow or too large
    QByteArray body = {};      ///< empty when the transfer failed
};

/// HTTPS with the system's certificates and proxy. One client for the process, made on first use. No cookies, no cache.
namespace HttpClient {

/// Size of a body after decompression. A larger one is a failure.
inline constexpr qsizetype maxBody = qsizetype(4) * 1024 * 1024;

/// Sends the request, once, and returns at once. Main thread. `completion` runs once, later, on the main thread, unless
/// the process ends first. Up to 20 redirects are followed, to https alone: 301, 302 and 303 turn a post into a get,
/// 307 and 308 repeat the post, but only to the same origin. A redirect that is not followed is itself the response.
/// Apart from redirects, no request is ever repeated.
void send(const HttpRequest &request, std::function<void(const HttpResult &)> completion);

} // namespace HttpClient
