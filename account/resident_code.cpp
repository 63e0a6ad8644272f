// SPDX-License-Identifier: MIT
#include "resident_code.h"

#include <algorithm>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

std::string_view fileName(const dl_phdr_info &library)
{
    const std::string_view path = library.dlpi_name;
    return path.substr(path.rfind('/') + 1);
}

void letGoOf(const dl_phdr_info &library)
{
    const auto page = static_cast<ElfW(Addr)>(::sysconf(_SC_PAGESIZE));
    for (int i = 0; i < library.dlpi_phnum; ++i) {
        const ElfW(Phdr) &part = library.dlpi_phdr[i];
        // What can be written, or could before it was relocated, is in memory alone.
        if (part.p_type != PT_LOAD || (part.p_flags & PF_W) != 0)
            continue;
        const ElfW(Addr) begin = (library.dlpi_addr + part.p_vaddr) & ~(page - 1);
        const ElfW(Addr) end = library.dlpi_addr + part.p_vaddr + part.p_filesz;
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the loader gives addresses as numbers
        ::madvise(reinterpret_cast<void *>(begin), end - begin, MADV_DONTNEED);
    }
}

} // namespace

void ResidentCode::letGo(std::span<const std::string_view> libraries)
{
    ::dl_iterate_phdr(
        [](dl_phdr_info *library, size_t, void *names) {
            const auto &wanted = *static_cast<std::span<const std::string_view> *>(names);
            if (std::ranges::any_of(wanted,
                                    [&](std::string_view name) { return fileName(*library).starts_with(name); }))
                letGoOf(*library);
            return 0;
        },
        &libraries);
}
