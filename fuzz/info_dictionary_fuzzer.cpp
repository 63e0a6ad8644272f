// SPDX-License-Identifier: MIT
#include "info_dictionary.h"
#include "require.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    const auto version = InfoDictionary::text(bytes, "CFBundleVersion");
    // No text grows out of nothing, and reading has changed no byte.
    require(!version || version->size() <= bytes.size());
    require(version == InfoDictionary::text(bytes, "CFBundleVersion"));
    return 0;
}
