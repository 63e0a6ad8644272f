// SPDX-License-Identifier: MIT
#pragma once

#include <span>
#include <string_view>

/// The code of libraries that the process has loaded.
namespace ResidentCode {

/// Gives back the memory that the code of these libraries occupies, named by the beginnings of their file names. It
/// stays in the file, from where the kernel fetches it when it is run again (madvise(2), MADV_DONTNEED). For libraries
/// that are not needed for a while. Any thread.
void letGo(std::span<const std::string_view> libraries);

} // namespace ResidentCode
