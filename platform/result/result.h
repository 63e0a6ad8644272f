// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <cstring>
#include <tl/expected.hpp>

/// What a caller may have to tell apart. The refusals go over the system bus, as errors of the same names.
enum class ErrorCode {
    Failed, ///< the operation itself, such as one of the file system
    NotAuthorized,
    Busy,
    ConfigUnsafe,   ///< the configuration file cannot be taken as the caller's own
    ConfigRejected, ///< its contents
    ScriptRejected,
    PortBusy,
    Leaving, ///< the helper is; the next one will do it when it is asked again
    Internal,
};

/// Why something did not work. `detail` is one English sentence for a log, a bus error or a person.
struct Error {
    ErrorCode code = ErrorCode::Failed;
    QByteArray detail;

    bool operator==(const Error &) const = default;
};

/// A value, or why there is none. An operation without a value returns `Result<void>`.
template <typename T>
using Result = tl::expected<T, Error>;

/// A failed result: `return failure("The file is missing.");`
[[nodiscard]] inline tl::unexpected<Error> failure(QByteArray detail, ErrorCode code = ErrorCode::Failed)
{
    return tl::make_unexpected(Error{code, std::move(detail)});
}

/// A failed system call, in the system's words. `what` names the object, such as a path.
[[nodiscard]] inline tl::unexpected<Error> systemFailure(int number, const QByteArray &what = {})
{
    return failure((what.isEmpty() ? QByteArray() : what + ": ") + std::strerror(number));
}
