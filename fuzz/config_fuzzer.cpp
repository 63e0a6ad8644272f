// SPDX-License-Identifier: MIT
// Compares the helper's reader with a second opinion: a model of how OpenVPN 2.6 cuts a configuration file, buffer
// sizes and all, written after OpenVPN's own functions and sharing nothing with the reader.

#include "configuration_reader.h"
#include "configuration_writer.h"
#include "require.h"

#include <algorithm>
#include <cctype>
#include <optional>

namespace {

/// An option that reaches add_option(), without its body.
struct Seen {
    QByteArray name;
    QList<QByteArray> values;
    QList<Seen> inner; ///< of a connection block

    bool operator==(const Seen &other) const
    {
        return name == other.name && values == other.values && inner == other.inner;
    }
};

constexpr int fileBuffer = 257;  // read_config_file(): OPTION_LINE_SIZE + 1
constexpr int blockBuffer = 256; // read_inline_file(), read_config_string()
constexpr int maxWords = 16;     // MAX_PARMS

bool isSpace(char c)
{
    return c == '\0' || std::isspace(static_cast<unsigned char>(c));
}

/// A file or a collected body, taken piece by piece.
class Source {
public:
    explicit Source(QByteArray bytes) : bytes_(std::move(bytes)) {}

    /// fgets() into `size` bytes, then seen as a C string.
    std::optional<QByteArray> line(int size)
    {
        if (at_ >= bytes_.size())
            return std::nullopt;
        const qsizetype end = bytes_.indexOf('\n', at_);
        const qsizetype whole = (end < 0 ? bytes_.size() : end + 1) - at_;
        const QByteArray piece = bytes_.mid(at_, std::min<qsizetype>(whole, size - 1));
        at_ += piece.size();
        return QByteArray(piece.constData()); // up to the first NUL
    }

private:
    QByteArray bytes_;
    qsizetype at_ = 0;
};

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

std::optional<QByteArray> body(Source &source, const QByteArray &name)
{
    QByteArray text;
    while (const auto line = source.line(blockBuffer)) {
        if (line->trimmed().startsWith("</" + name + '>'))
            return text;
        text += *line;
    }
    return std::nullopt;
}

std::optional<QList<Seen>> readFrom(Source &source, int buffer, bool atStart);

bool addBlock(Source &source, const QByteArray &name, QList<Seen> &into)
{
    const auto text = body(source, name);
    if (!text)
        return false;
    Seen block{name, {}, {}};
    if (name == "connection") {
        Source inner(*text);
        const auto options = readFrom(inner, blockBuffer, false);
        if (!options)
            return false;
        block.inner = *options;
    }
    into << block;
    return true;
}

bool addLine(Source &source, const QByteArray &line, QList<Seen> &into)
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
    into << Seen{name, *cut, {}};
    return true;
}

std::optional<QList<Seen>> readFrom(Source &source, int buffer, bool atStart)
{
    QList<Seen> result;
    while (auto line = source.line(buffer)) {
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
std::optional<QList<Seen>> readByModel(const QByteArray &file)
{
    Source source(file);
    return readFrom(source, fileBuffer, true);
}

QList<Seen> seen(const QList<Directive> &directives)
{
    QList<Seen> result;
    for (const Directive &each : directives)
        result << Seen{each.name, each.values, seen(each.inner)};
    return result;
}

/// Without what the reader says that it dropped, wherever that stood.
QList<Seen> without(const QList<Directive> &dropped, QList<Seen> options)
{
    const auto isDropped = [&](const Seen &option) {
        return std::ranges::find(dropped, option.name, &Directive::name) != dropped.end();
    };
    options.removeIf(isDropped);
    for (Seen &option : options)
        option.inner.removeIf(isDropped);
    return options;
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
    require(original && without(read->dropped, *original) == seen(read->directives));

    const QByteArray text = canonicalConfiguration(read->directives);
    require(readByModel(text) == seen(read->directives));
    for (const QByteArray &line : text.split('\n'))
        require(line.size() <= 254);

    const auto again = readConfiguration(text);
    require(again && again->directives == read->directives && again->dropped.isEmpty());
    require(canonicalConfiguration(again->directives) == text);
    return 0;
}
