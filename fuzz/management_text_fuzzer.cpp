// SPDX-License-Identifier: MIT
#include "management_text.h"
#include "require.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace ManagementText;
    QByteArrayView left(data, static_cast<qsizetype>(size));
    while (!left.isEmpty()) {
        const qsizetype end = left.indexOf('\n');
        const QByteArrayView line = end < 0 ? left : left.first(end);
        left = left.sliced(end < 0 ? left.size() : end + 1);
        const auto meaning = meaningOf(line);
        require(meaning.text.isEmpty() || (meaning.text.begin() >= line.begin() && meaning.text.end() <= line.end()));
        require(meaning.kind != Meaning::Kind::State || !meaning.text.contains(','));
        require(meaning.kind != Meaning::Kind::Remote || line.startsWith(">LOG:"));
        if (verdictOn(line) != Verdict::Pass)
            continue;
        // What passes begins with a word that OpenVPN cannot read as another one, and fits into its buffer.
        require(line.size() <= maxCredential && !line.contains('\n'));
        require(isUsername(line) || isPassword(line) || line.startsWith("state on") || line.startsWith("log on") ||
                line.startsWith("bytecount ") || line.startsWith("signal SIG"));
        require(meaning.kind == Meaning::Kind::None);
    }
    return 0;
}
