// SPDX-License-Identifier: MIT
#include "info_dictionary.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    const auto version = InfoDictionary::text(bytes, "CFBundleVersion");
    // No text grows out of nothing, and reading has changed no byte.
    if (version && version->size() > bytes.size())
        std::abort();
    if (version != InfoDictionary::text(bytes, "CFBundleVersion"))
        std::abort();
    return 0;
}
