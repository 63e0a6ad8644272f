// SPDX-License-Identifier: MIT
#include "openvpn_model.h"

#include <algorithm>
#include <cctype>

using OpenVPNModel::Seen;

namespace {

constexpr int fileBuffer = 257;  // read_config_file(): OPTION_LINE_SIZE + 1
constexpr int blockBuffer = 256; // read_inline_file(), read_config_string()
constexpr int wordLimit = 16;    // MAX_PARMS

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
        if (!*c || *c == '#' || *c == ';' || result.size() == wordLimit)
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

bool leadsTo(const QByteArray &line, const QByteArray &tag)
{
    const auto *const start = std::ranges::find_if_not(line, [](char c) { return isSpace(c); });
    return line.sliced(start - line.begin()).startsWith(tag);
}

std::optional<QByteArray> body(Source &source, const QByteArray &name)
{
    QByteArray text;
    while (const auto line = source.line(blockBuffer)) {
        if (leadsTo(*line, "</" + name + '>'))
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

} // namespace

std::optional<QList<Seen>> OpenVPNModel::read(const QByteArray &file)
{
    Source source(file);
    return readFrom(source, fileBuffer, true);
}
