// SPDX-License-Identifier: MIT
#include "management_lines.h"
#include "require.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using Kind = ManagementLines::Action::Kind;
    const QByteArrayView all(data, static_cast<qsizetype>(size));
    QByteArrayView left = all;
    while (const auto line = ManagementLines::takeLine(left)) {
        // Nothing is lost and nothing is read twice: the rest begins behind the line's end, or all has been taken.
        require(left.isNull() ? line->end() == all.end() : left.begin() == line->end() + 2);
        require(!line->contains("\r\n"));
        const auto action = ManagementLines::actionFor(*line);
        require(action.text.isEmpty() || (action.text.begin() >= line->begin() && action.text.end() <= line->end()));
        if (action.kind == Kind::State)
            if (const auto name = ManagementLines::stateName(action.text))
                require(!name->contains(','));
    }
    require(!left.contains('\n'));
    return 0;
}
