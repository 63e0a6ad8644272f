// SPDX-License-Identifier: MIT
#pragma once

#include "account_answer.h"

#include <QString>

#include <functional>
#include <optional>

/// The account service: two requests, and what is done with their answers. Holds nothing. Main thread.
class AccountClient {
public:
    using Completion = std::function<void(const AccountAnswer &)>;

    /// POSTs e-mail and password, exactly as typed. Returns at once; `completion` runs once, later, on the main thread.
    static void signIn(const QString &email, const QString &password, Completion completion);

    /// GETs the profile with the token. Returns at once; `completion` runs once, later, on the main thread.
    static void fetchProfile(const QString &accessToken, Completion completion);

    /// Replaces the content of /tmp/corvale.ovpn, in place, by the text in UTF-8. The file is made with mode 0600. A
    /// file of another owner, a link and anything that is no regular file are left alone. A failure is one line in the
    /// system log; the caller is not told. Blocks for the writing.
    static void writeConfiguration(const QString &configuration);

    /// Hands the file's path and the credentials to the tunnel service and starts it. Blocks as `startOpenVPN` does.
    static void startTunnel(const QString &username, const QString &password);

    /// The string member "access_token" of a sign-in answer's document, or none.
    static std::optional<QString> accessToken(const AccountAnswer::Document &document);

    /// The string member "config" of a profile answer's document, or none.
    static std::optional<QString> configuration(const AccountAnswer::Document &document);
};
