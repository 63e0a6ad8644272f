// SPDX-License-Identifier: MIT
#include "account_answer.h"
#include "http_client.h"
#include "require.h"

#include <cstdint>
#include <nlohmann/json.hpp>

/// The first byte chooses how the request went, the rest is the body.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using Kind = AccountAnswer::Kind;
    if (size == 0)
        return 0;
    constexpr int statuses[] = {200, 201, 204, 205, 299, 300, 404, 199};
    HttpResult result;
    result.failed = (data[0] & 0x10) != 0;
    if ((data[0] & 0x20) == 0)
        result.status = statuses[data[0] & 7];
    result.body = QByteArray(reinterpret_cast<const char *>(data) + 1, static_cast<qsizetype>(size) - 1);

    const AccountAnswer answer = sortAnswer(result);
    const bool accepted = result.status && !result.failed && *result.status >= 200 && *result.status <= 299;
    require((answer.kind() == Kind::networkFailure) == !result.status);
    require(accepted || answer.kind() == Kind::networkFailure || answer.kind() == Kind::rejected);
    require((answer.document() != nullptr) == (answer.kind() == Kind::success));
    require(answer.message().isEmpty() == (answer.kind() == Kind::success));
    if (answer.kind() == Kind::success)
        require(answer.document()->is_structured() && !result.body.contains('\0'));
    return 0;
}
