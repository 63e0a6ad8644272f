// SPDX-License-Identifier: MIT
#include "info_dictionary.h"

#include "spoilt_helper.h"

#include <QTemporaryDir>

#include <elf.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

const QByteArray own = CORVALE_VERSION;
const QByteArray doctype = R"(PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd")";
const QByteArray element = "    <string>" + own + "</string>";

/// Filled up with blanks to the length of the element, which it takes the place of.
QByteArray withElement(const QByteArray &text)
{
    return spoiltHelper(element, text.leftJustified(element.size()));
}

/// With the header of the list's section changed.
template <typename Change>
QByteArray withSection(Change change)
{
    QByteArray bytes = spoiltHelper();
    const auto *const file = reinterpret_cast<const Elf64_Ehdr *>(bytes.constData());
    auto *const sections = reinterpret_cast<Elf64_Shdr *>(bytes.data() + file->e_shoff);
    const char *const names = bytes.constData() + sections[file->e_shstrndx].sh_offset;
    for (int i = 0; i < file->e_shnum; ++i)
        if (qstrcmp(names + sections[i].sh_name, ".info_plist") == 0)
            change(sections[i]);
    return bytes;
}

} // namespace

TEST(InfoDictionary, theVersionIsReadAsItStandsAndAnythingElseIsNone)
{
    struct Row {
        const char *what;
        QByteArray bytes;
        std::optional<QString> version;
    };
    const QString plain = QString::fromLatin1(own);
    const auto none = std::nullopt;
    const Row rows[] = {
        {"the helper", spoiltHelper(), plain},
        {"a blank at the end", withElement("<string>" + own + " </string>"), plain + u' '},
        {"empty", withElement("<string></string>"), QString()},
        {"other letters", withElement("<string>\xef\xbb\xbf\xc3\xb1&lt;</string>"), u"\ufeffñ<"_s},
        {"bytes that are no letters", withElement("<string>\xc3</string>"), none},
        {"a zero", withElement(QByteArray("<string>1\0</string>", 19)), none},
        {"a number", withElement("<integer>1</integer>"), none},
        {"no value", withElement(""), none},
        {"no key", spoiltHelper("CFBundleVersion", "CFBundleEdition"), none},
        {"a declaration of its own",
         spoiltHelper(doctype, QByteArray(R"([<!ENTITY x "y">])").leftJustified(doctype.size())), none},
        {"another encoding's name", spoiltHelper("UTF-8\"", "UTF16\""), plain},
        {"an element that is not closed", spoiltHelper("</plist>", "        "), none},
        {"no section", spoiltHelper(".info_plist", ".info_pliSt"), none},
        {"a list in the binary form", spoiltHelper("<?xml ve", "bplist00"), none},
        {"a huge section", withSection([](Elf64_Shdr &section) { section.sh_size = 1ULL << 40; }), none},
        {"a large section", withSection([](Elf64_Shdr &section) { section.sh_size = 70'000; }), none},
        {"a section behind the file", withSection([](Elf64_Shdr &section) { section.sh_offset = 1ULL << 63; }), none},
        {"a section without bytes", withSection([](Elf64_Shdr &section) { section.sh_type = SHT_NOBITS; }), none},
        {"a compressed section", withSection([](Elf64_Shdr &section) { section.sh_flags |= SHF_COMPRESSED; }), none},
        {"half of it", spoiltHelper().left(spoiltHelper().size() / 2), none},
        {"a script", "#!/bin/sh\n<key>CFBundleVersion</key><string>1</string>\n", none},
    };
    for (const Row &row : rows)
        EXPECT_EQ(InfoDictionary::text(row.bytes, "CFBundleVersion"), row.version) << row.what;
}

TEST(InfoDictionary, onlyARegularFileIsRead)
{
    const QTemporaryDir folder;
    const QString pipe = folder.filePath(u"pipe"_s);
    const QString sparse = folder.filePath(u"sparse"_s);
    ASSERT_EQ(::mkfifo(qPrintable(pipe), 0600), 0);
    QFile large(sparse);
    ASSERT_TRUE(large.open(QIODevice::WriteOnly) && large.resize(1LL << 40));
    EXPECT_EQ(InfoDictionary::textInFile(QStringLiteral(HELPER_TOOL), "CFBundleVersion"), QString::fromLatin1(own));
    for (const QString &path : {pipe, sparse, folder.path(), folder.filePath(u"missing"_s), u"/dev/zero"_s, QString()})
        EXPECT_EQ(InfoDictionary::textInFile(path, "CFBundleVersion"), std::nullopt) << path.toStdString();
}
