// SPDX-License-Identifier: MIT
#include "info_dictionary.h"

#include "whole_file.h"

#include <QByteArray>
#include <QFile>
#include <QXmlStreamReader>

#include <cstring>
#include <fcntl.h>
#include <gelf.h>
#include <memory>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr char section[] = ".info_plist";
constexpr size_t maxList = 65536;
constexpr size_t maxSections = 256;

using ElfFile = std::unique_ptr<Elf, decltype([](Elf *elf) { elf_end(elf); })>;

/// The section's bytes, as they lie in the file; empty when it is missing or larger than any list.
QByteArray sectionBytes(Elf *elf)
{
    size_t names = 0;
    size_t sections = 0;
    // Many sections with endless names would take minutes.
    if (elf_kind(elf) != ELF_K_ELF || elf_getshdrstrndx(elf, &names) != 0 || elf_getshdrnum(elf, &sections) != 0 ||
        sections > maxSections)
        return {};
    for (Elf_Scn *candidate = elf_nextscn(elf, nullptr); candidate; candidate = elf_nextscn(elf, candidate)) {
        // A copy: a file may have it lie where no structure can be looked at in place.
        GElf_Shdr header{};
        const char *const name = gelf_getshdr(candidate, &header) ? elf_strptr(elf, names, header.sh_name) : nullptr;
        if (!name || std::strcmp(name, section) != 0)
            continue;
        if (header.sh_type != SHT_PROGBITS || (header.sh_flags & SHF_COMPRESSED) != 0 || header.sh_size > maxList)
            return {};
        const Elf_Data *const data = elf_rawdata(candidate, nullptr);
        if (!data || !data->d_buf)
            return {};
        return {static_cast<const char *>(data->d_buf), static_cast<qsizetype>(data->d_size)};
    }
    return {};
}

/// What stands under `key` in the outermost dictionary of the list. The last one counts.
std::optional<QString> textInList(const QByteArray &list, QLatin1StringView key)
{
    // A list declares nothing of its own: a few bytes could stand for a text that fills the memory.
    if (!list.isValidUtf8() || list.contains("<!ENTITY") || list.contains("<!ATTLIST"))
        return std::nullopt;
    // As text, since bytes could name another encoding, in which they say something else.
    QXmlStreamReader xml(QString::fromUtf8(list));
    xml.setNamespaceProcessing(false);
    std::optional<QString> found;
    if (!xml.readNextStartElement() || xml.name() != "plist"_L1 || !xml.readNextStartElement() ||
        xml.name() != "dict"_L1)
        return std::nullopt;
    while (xml.readNextStartElement()) {
        if (xml.name() != "key"_L1) {
            xml.skipCurrentElement();
        } else if (xml.readElementText() == key) {
            found.reset();
            if (!xml.readNextStartElement())
                break;
            if (xml.name() == "string"_L1)
                found = xml.readElementText();
            else
                xml.skipCurrentElement();
        }
    }
    while (!xml.atEnd())
        xml.readNext();
    return xml.hasError() ? std::nullopt : found;
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
    return textInList(sectionBytes(elf.get()), QLatin1StringView(key));
}

std::optional<QString> InfoDictionary::textInFile(const QString &path, const char *key)
{
    constexpr qsizetype maxHelper = 64LL * 1024 * 1024;
    const int file = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (file < 0)
        return std::nullopt;
    const auto bytes = wholeFile(file, maxHelper);
    ::close(file);
    return bytes ? text(*bytes, key) : std::nullopt;
}
