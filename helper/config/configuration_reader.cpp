// SPDX-License-Identifier: MIT
#include "configuration_reader.h"

#include "allow_list.h"
#include "inline_bodies.h"
#include "words.h"

#include <algorithm>
#include <iterator>
#include <optional>

using ConfigRules::Place;
using ConfigRules::Verdict;

namespace {

constexpr QByteArrayView byteOrderMark = "\xEF\xBB\xBF";

/// A name that may stand in a log: no more of the file is ever repeated.
QByteArray printable(const QByteArray &name)
{
    constexpr qsizetype most = 32;
    QByteArray result = name.first(std::min(name.size(), most));
    for (char &c : result)
        if (!(c >= 'a' && c <= 'z') && !(c >= 'A' && c <= 'Z') && !(c >= '0' && c <= '9') && c != '-' && c != '_')
            c = '?';
    return result;
}

// Once only, and not when nothing would be left, as in OpenVPN.
QByteArray withoutDashes(const QByteArray &word)
{
    return word.size() > 2 && word.startsWith("--") ? word.sliced(2) : word;
}

class Reader {
public:
    explicit Reader(QByteArrayView bytes) : rest_(bytes) {}
    std::variant<Configuration, Refusal> read();

private:
    // Each returns false when reading ends: at the end of the file, or with a refusal in `refusal_`.
    bool nextLine();
    bool readLine(Place place, QList<Directive> &into);
    bool readDirective(QList<QByteArray> words, Place place, QList<Directive> &into);
    bool readBlock(const QByteArray &name, Place place, QList<Directive> &into);
    bool readBody(Directive &block);
    bool readConnection(Directive &block);
    /// Whether the current line ends `block`; none when the line refuses itself.
    std::optional<bool> isEndOf(const Directive &block);
    bool refuse(Reason reason, const QByteArray &name = {});
    bool refuseUnclosed(const Directive &block);

    QByteArrayView rest_;
    QByteArrayView line_; ///< the current one, without LF
    int number_ = 0;
    Configuration result_;
    std::optional<Refusal> refusal_;
};

bool Reader::refuse(Reason reason, const QByteArray &name)
{
    refusal_ = Refusal{reason, printable(name), number_};
    return false;
}

bool Reader::nextLine()
{
    if (rest_.isEmpty())
        return false;
    const qsizetype end = rest_.indexOf('\n');
    line_ = end < 0 ? rest_ : rest_.first(end);
    rest_ = end < 0 ? QByteArrayView() : rest_.sliced(end + 1);
    ++number_;
    const auto checked = ConfigWords::checkLine(line_);
    if (const auto *reason = std::get_if<Reason>(&checked))
        return refuse(*reason);
    if (number_ == 1 && line_.startsWith(byteOrderMark))
        line_ = line_.sliced(byteOrderMark.size());
    return true;
}

std::variant<Configuration, Refusal> Reader::read()
{
    while (nextLine() && readLine(Place::Top, result_.directives)) {
    }
    if (refusal_)
        return *refusal_;
    return result_;
}

bool Reader::readLine(Place place, QList<Directive> &into)
{
    auto cut = ConfigWords::cut(line_);
    if (const auto *reason = std::get_if<Reason>(&cut))
        return refuse(*reason);
    auto words = std::get<QList<QByteArray>>(cut);
    if (words.isEmpty())
        return true;
    words.front() = withoutDashes(words.front());
    const QByteArray &first = words.front();
    if (words.size() == 1 && first.size() > 1 && first.startsWith('<') && first.endsWith('>'))
        return readBlock(first.sliced(1).chopped(1), place, into);
    return readDirective(words, place, into);
}

bool Reader::readDirective(QList<QByteArray> words, Place place, QList<Directive> &into)
{
    if (words.size() > 2 && words[0] == "setenv" && words[1] == "opt")
        words.remove(0, 2);
    const QByteArray name = words.takeFirst();
    switch (ConfigRules::judge(name, words, place)) {
    case Verdict::Allowed: into << Directive{name, words, number_, {}, {}}; return true;
    case Verdict::Dropped: result_.dropped << Directive{name, {}, number_, {}, {}}; return true;
    case Verdict::NotAllowed: return refuse(Reason::NotAllowed, name);
    case Verdict::BadValue: return refuse(Reason::BadValue, name);
    case Verdict::NotInConnection: return refuse(Reason::NotInConnection, name);
    }
    return false;
}

bool Reader::readBlock(const QByteArray &name, Place place, QList<Directive> &into)
{
    if (place == Place::Connection)
        return refuse(Reason::NestedBlock, name);
    Directive block{name, {}, number_, {}, {}};
    if (name != "connection" && !ConfigBodies::isKnown(name))
        return refuse(Reason::UnknownBlock, name);
    if (name == "connection" ? !readConnection(block) : !readBody(block))
        return false;
    into << block;
    return true;
}

std::optional<bool> Reader::isEndOf(const Directive &block)
{
    const QByteArray tag = "</" + block.name + '>';
    const QByteArrayView trimmed = line_.trimmed();
    if (trimmed != tag && trimmed.startsWith(tag)) {
        refuse(Reason::BadBody, block.name);
        return std::nullopt;
    }
    return trimmed == tag;
}

bool Reader::refuseUnclosed(const Directive &block)
{
    if (refusal_)
        return false;
    number_ = block.line;
    return refuse(Reason::UnclosedBlock, block.name);
}

bool Reader::readBody(Directive &block)
{
    QList<QByteArrayView> lines;
    while (nextLine()) {
        const auto end = isEndOf(block);
        if (!end)
            return false;
        if (!*end) {
            lines << line_.trimmed();
            continue;
        }
        const auto body = ConfigBodies::normalised(block.name, lines);
        block.body = body.value_or(QByteArray());
        return body || refuse(Reason::BadBody, block.name);
    }
    return refuseUnclosed(block);
}

bool Reader::readConnection(Directive &block)
{
    while (nextLine()) {
        const auto end = isEndOf(block);
        if (!end)
            return false;
        if (*end)
            // OpenVPN wants one, and an empty block would have no other way to be told from a directive.
            return std::ranges::any_of(block.inner, [](const Directive &each) { return each.name == "remote"; }) ||
                   refuse(Reason::BadBody, block.name);
        if (!readLine(Place::Connection, block.inner))
            return false;
    }
    return refuseUnclosed(block);
}

struct Text {
    Reason reason;
    const char *text;
};

constexpr Text texts[] = {
    {Reason::LineTooLong, "is longer than 254 bytes"},
    {Reason::ControlByte, "holds a control byte"},
    {Reason::NotAscii, "holds a byte that is not ASCII"},
    {Reason::Backslash, "holds a backslash"},
    {Reason::UnclosedQuote, "has a quote without its end"},
    {Reason::TooManyWords, "has more than 16 words"},
    {Reason::NotAllowed, "has a directive that is not allowed"},
    {Reason::BadValue, "gives a directive a value that is not allowed"},
    {Reason::NotInConnection, "has a directive that may not stand in a connection block"},
    {Reason::UnknownBlock, "begins an inline block that is not allowed"},
    {Reason::NestedBlock, "begins a block inside a connection block"},
    {Reason::UnclosedBlock, "begins a block that does not end"},
    {Reason::BadBody, "ends a block whose contents do not belong there"},
};

} // namespace

bool Directive::operator==(const Directive &other) const
{
    return name == other.name && values == other.values && body == other.body && inner == other.inner;
}

std::variant<Configuration, Refusal> readConfiguration(const QByteArray &bytes)
{
    return Reader(bytes).read();
}

QByteArray sentence(const Refusal &refusal)
{
    const QByteArray about = refusal.detail.isEmpty() ? QByteArray() : ": " + refusal.detail;
    return "Line " + QByteArray::number(refusal.line) + " of the configuration " +
           std::ranges::find(texts, refusal.reason, &Text::reason)->text + about + '.';
}
