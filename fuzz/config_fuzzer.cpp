// SPDX-License-Identifier: MIT
// Compares the helper's reader with a second opinion: a model of how OpenVPN 2.6 cuts a configuration file, buffer
// sizes and all, written after OpenVPN's own functions and sharing nothing with the reader.

#include "configuration_reader.h"
#include "configuration_writer.h"
#include "require.h"

#include <QBuffer>

#include <algorithm>
#include <cctype>
#include <optional>

namespace {

constexpr int fileBuffer = 257;  // read_config_file(): OPTION_LINE_SIZE + 1
constexpr int blockBuffer = 256; // read_inline_file(), read_config_string()
constexpr int maxWords = 16;     // MAX_PARMS

bool isSpace(char c)
{
    return c == '\0' || std::isspace(static_cast<unsigned char>(c));
}

/// fgets() into `size` bytes, then seen as a C string.
std::optional<QByteArray> takeLine(QBuffer &source, int size)
{
    if (source.atEnd())
        return std::nullopt;
    return QByteArray(source.readLine(size - 1).constData());
}

/// parse_line(); nothing for its errors.
std::optional<QList<QByteArray>> words(const QByteArray &line)
{
    QList<QByteArray> result;
    const char *c = line.constData();
    for (;;) {
        while (*c && isSpace(*c))
            ++c;
        if (!*c || *c == '#' || *c == ';' || result.size() == maxWords)
            return result;
        const char quote = *c == '"' || *c == '\'' ? *c++ : '\0';
        QByteArray word;
        for (; quote ? *c != quote : !isSpace(*c); ++c) {
            if (!*c)
                return std::nullopt;
            if (*c == '\\' && quote != '\'' && !*++c)
                return std::nullopt;
            word += *c;
        }
        if (*c)
            ++c;
        result << word;
    }
}

std::optional<QByteArray> body(QBuffer &source, const QByteArray &name)
{
    QByteArray text;
    while (const auto line = takeLine(source, blockBuffer)) {
        if (line->trimmed().startsWith("</" + name + '>'))
            return text;
        text += *line;
    }
    return std::nullopt;
}

std::optional<QList<Directive>> readFrom(QByteArray bytes, int buffer, bool atStart);

bool addBlock(QBuffer &source, const QByteArray &name, QList<Directive> &into)
{
    const auto text = body(source, name);
    if (!text)
        return false;
    const auto inner = name == "connection" ? readFrom(*text, blockBuffer, false) : QList<Directive>();
    if (inner)
        into << Directive{.name = name, .inner = *inner};
    return inner.has_value();
}

/// add_option(), to which a body does not get.
bool addLine(QBuffer &source, const QByteArray &line, QList<Directive> &into)
{
    auto cut = words(line);
    if (!cut || cut->isEmpty())
        return cut.has_value();
    QByteArray &first = cut->front();
    if (first.size() >= 3 && first.startsWith("--"))
        first = first.sliced(2);
    if (cut->size() == 1 && first.startsWith('<') && first.endsWith('>'))
        return addBlock(source, first.mid(1, first.size() - 2), into);
    if (cut->size() > 2 && first == "setenv" && cut->at(1) == "opt")
        cut->remove(0, 2);
    const QByteArray name = cut->takeFirst();
    into << Directive{.name = name, .values = *cut};
    return true;
}

std::optional<QList<Directive>> readFrom(QByteArray bytes, int buffer, bool atStart)
{
    QList<Directive> result;
    QBuffer source(&bytes);
    source.open(QIODevice::ReadOnly);
    while (auto line = takeLine(source, buffer)) {
        if (line->size() == fileBuffer - 1)
            return std::nullopt;
        if (atStart && line->startsWith("\xEF\xBB\xBF"))
            line = line->sliced(3);
        atStart = false;
        if (!addLine(source, *line, result))
            return std::nullopt;
    }
    return result;
}

/// Nothing where OpenVPN would give the file up.
std::optional<QList<Directive>> readByModel(const QByteArray &file)
{
    return readFrom(file, fileBuffer, true);
}

/// As the model has them: without the bodies, and without the options that the reader says it dropped.
QList<Directive> asInModel(QList<Directive> directives, const QList<Directive> &dropped)
{
    directives.removeIf([&](const Directive &option) {
        return std::ranges::find(dropped, option.name, &Directive::name) != dropped.end();
    });
    for (Directive &each : directives) {
        each.body.clear();
        each.inner = asInModel(each.inner, dropped);
    }
    return directives;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    const auto read = readConfiguration(bytes);
    if (!read) {
        constexpr qsizetype maxSentence = 150;
        const QByteArray &sentence = read.error().detail;
        require(read.error().code == ErrorCode::ConfigRejected && sentence.startsWith("Line "));
        require(sentence.size() <= maxSentence && !sentence.contains('\n'));
        return 0;
    }
    const auto original = readByModel(bytes);
    const QList<Directive> expected = asInModel(read->directives, {});
    require(original && asInModel(*original, read->dropped) == expected);

    const QByteArray text = canonicalConfiguration(read->directives);
    require(readByModel(text) == expected);
    for (const QByteArray &line : text.split('\n'))
        require(line.size() <= 254);

    const auto again = readConfiguration(text);
    require(again && again->directives == read->directives && again->dropped.isEmpty());
    require(canonicalConfiguration(again->directives) == text);
    return 0;
}
