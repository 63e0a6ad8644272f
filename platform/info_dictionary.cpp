#include "info_dictionary.h"

#include "exact_text.h"
#include "whole_file.h"

#include <QByteArray>
#include <QFile>

#include <cstring>
#include <fcntl.h>
#include <gelf.h>
#include <memory>
#include <plist/plist.h>
#include <unistd.h>

namespace {

constexpr char section[] = ".info_plist";
constexpr size_t largestList = 65536;
constexpr size_t mostSections = 256;

using ElfFile = std::unique_ptr<Elf, decltype([](Elf *elf) { elf_end(elf); })>;
using Node = std::unique_ptr<void, decltype([](plist_t node) { plist_free(node); })>;

/// The section's bytes, as they lie in the file; empty when it is missing or larger than any list.
QByteArray sectionBytes(Elf *elf)
{
    size_t names = 0;
    size_t sections = 0;
    // Many sections with endless names would take minutes.
    if (elf_kind(elf) != ELF_K_ELF || elf_getshdrstrndx(elf, &names) != 0 || elf_getshdrnum(elf, &sections) != 0 ||
        sections > mostSections)
        return {};
    for (Elf_Scn *candidate = elf_nextscn(elf, nullptr); candidate; candidate = elf_nextscn(elf, candidate)) {
        // A copy: a file may have it lie where no structure can be looked at in place.
        GElf_Shdr header{};
        const char *const name = gelf_getshdr(candidate, &header) ? elf_strptr(elf, names, header.sh_name) : nullptr;
        if (!name || std::strcmp(name, section) != 0)
            continue;
        if (header.sh_type != SHT_PROGBITS || (header.sh_flags & SHF_COMPRESSED) != 0 || header.sh_size > largestList)
            return {};
        const Elf_Data *const data = elf_rawdata(candidate, nullptr);
        if (!data || !data->d_buf)
            return {};
        return {static_cast<const char *>(data->d_buf), static_cast<qsizetype>(data->d_size)};
    }
    return {};
}

Node parsed(const QByteArray &list)
{
    plist_t root = nullptr;
    // The XML form alone: in the binary one a few bytes can stand for a tree that fills the memory.
    if (!list.isEmpty())
        plist_from_xml(list.constData(), static_cast<uint32_t>(list.size()), &root);
    return Node(root);
}

} // namespace

std::optional<QString> InfoDictionary::text(QByteArrayView executable, const char *key)
{
    // libelf checks its way through a file of any length but one that is too short to say what it is.
    if (executable.size() < EI_NIDENT || elf_version(EV_CURRENT) == EV_NONE)
        return std::nullopt;
    // It takes its image as one that might be written; opened like this, it is only read.
    const ElfFile elf(elf_memory(const_cast<char *>(executable.data()), static_cast<size_t>(executable.size())));
    if (!elf)
        return std::nullopt;
    const Node list = parsed(sectionBytes(elf.get()));
    if (!list || plist_get_node_type(list.get()) != PLIST_DICT)
        return std::nullopt;
    void *const value = plist_dict_get_item(list.get(), key);
    if (!value || plist_get_node_type(value) != PLIST_STRING)
        return std::nullopt;
    uint64_t length = 0;
    const char *const bytes = plist_get_string_ptr(value, &length);
    return exactText({bytes, static_cast<qsizetype>(length)});
}

std::optional<QString> InfoDictionary::textInFile(const QString &path, const char *key)
{
    constexpr qsizetype largestHelper = 64LL * 1024 * 1024;
    const int file = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (file < 0)
        return std::nullopt;
    const auto bytes = wholeFile(file, largestHelper);
    ::close(file);
    return bytes ? text(*bytes, key) : std::nullopt;
}
