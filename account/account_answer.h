// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <memory>
#include <nlohmann/json_fwd.hpp>

struct HttpResult;

/// The outcome of one request to the account service. A value; any thread.
class AccountAnswer {
public:
    enum class Kind {
        success,        ///< `document()` is there: an object or an array
        rejected,       ///< the service answered, and refused, broke off, or sent what is no JSON
        networkFailure, ///< no answer came
        unreadable,     ///< accepted, but with JSON that is neither object nor array, or with no body where none is due
    };
    /// Shared because a deep document must not be copied: the library would copy it by recursion.
    using Document = std::shared_ptr<const nlohmann::json>;

    AccountAnswer(Kind kind, Document document = nullptr);

    Kind kind() const { return kind_; }
    const Document &document() const { return document_; } ///< null unless `success`
    QString message() const;                               ///< what the user is shown; empty for `success`

private:
    Kind kind_;
    Document document_;
};

/// Sorts what came of a request, whatever its bytes. No I/O and no recursion, however deep the document.
AccountAnswer sortAnswer(const HttpResult &result);
