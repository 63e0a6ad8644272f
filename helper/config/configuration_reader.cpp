// SPDX-License-Identifier: MIT
#include "configuration_reader.h"

#include "allow_list.h"
#include "inline_bodies.h"
#include "words.h"

#include <algorithm>

using ConfigRules::Scope;

namespace {

constexpr QByteArrayView byteOrderMark = "\xEF\xBB\xBF";

/// The name as a log may show it.
QByteArray printable(const QByteArray &name)
{
    constexpr qsizetype maxName = 32;
    QByteArray result = name.first(std::min(name.size(), maxName));
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
    Result<Configuration> read();

private:
    Result<void> nextLine();
    /// Goes to the next line of `block`. False when that is the line that ends it.
    Result<bool> nextLineOf(const Directive &block);
    Result<void> readLine(Scope scope, QList<Directive> &into);
    Result<void> readDirective(QList<QByteArray> words, Scope scope, QList<Directive> &into);
    Result<void> readBlock(const QByteArray &name, Scope scope, QList<Directive> &into);
    Result<void> readBody(Directive &block);
    Result<void> readConnection(Directive &block);
    /// A sentence about the current line.
    [[nodiscard]] tl::unexpected<Error> refuse(const QByteArray &cause, const QByteArray &name = {}) const;

    QByteArrayView rest_;
    QByteArrayView line_; ///< the current one, without LF
    int number_ = 0;
    Configuration result_;
};

tl::unexpected<Error> Reader::refuse(const QByteArray &cause, const QByteArray &name) const
{
    const QByteArray about = name.isEmpty() ? QByteArray() : ": " + printable(name);
    return failure("Line " + QByteArray::number(number_) + " of the configuration " + cause + about + '.',
                   ErrorCode::ConfigRejected);
}

Result<Configuration> Reader::read()
{
    while (!rest_.isEmpty()) {
        const auto line = nextLine().and_then([this] { return readLine(Scope::File, result_.directives); });
        if (!line)
            return tl::make_unexpected(line.error());
    }
    return result_;
}

Result<void> Reader::nextLine()
{
    const qsizetype end = rest_.indexOf('\n');
    line_ = end < 0 ? rest_ : rest_.first(end);
    rest_ = end < 0 ? QByteArrayView() : rest_.sliced(end + 1);
    ++number_;
    if (const auto checked = ConfigWords::checkLine(line_); !checked)
        return refuse(checked.error().detail);
    if (number_ == 1 && line_.startsWith(byteOrderMark))
        line_ = line_.sliced(byteOrderMark.size());
    return {};
}

Result<void> Reader::readLine(Scope scope, QList<Directive> &into)
{
    auto words = ConfigWords::cut(line_);
    if (!words)
        return refuse(words.error().detail);
    if (words->isEmpty())
        return {};
    words->front() = withoutDashes(words->front());
    const QByteArray &first = words->front();
    if (words->size() == 1 && first.size() > 1 && first.startsWith('<') && first.endsWith('>'))
        return readBlock(first.sliced(1).chopped(1), scope, into);
    return readDirective(*words, scope, into);
}

Result<void> Reader::readDirective(QList<QByteArray> words, Scope scope, QList<Directive> &into)
{
    if (words.size() > 2 && words[0] == "setenv" && words[1] == "opt")
        words.remove(0, 2);
    const QByteArray name = words.takeFirst();
    if (ConfigRules::isDropped(name)) {
        result_.dropped << Directive{name, {}, number_, {}, {}};
        return {};
    }
    if (const auto checked = ConfigRules::check(name, words, scope); !checked)
        return refuse(checked.error().detail, name);
    into << Directive{name, words, number_, {}, {}};
    return {};
}

Result<void> Reader::readBlock(const QByteArray &name, Scope scope, QList<Directive> &into)
{
    if (scope == Scope::Connection)
        return refuse("begins a block inside a connection block", name);
    if (name != "connection" && !ConfigBodies::isKnown(name))
        return refuse("begins an inline block that is not allowed", name);
    Directive block{name, {}, number_, {}, {}};
    auto read = name == "connection" ? readConnection(block) : readBody(block);
    if (read)
        into << block;
    return read;
}

Result<bool> Reader::nextLineOf(const Directive &block)
{
    if (rest_.isEmpty()) {
        number_ = block.line;
        return refuse("begins a block that does not end", block.name);
    }
    if (const auto next = nextLine(); !next)
        return tl::make_unexpected(next.error());
    const QByteArray tag = "</" + block.name + '>';
    const QByteArrayView trimmed = line_.trimmed();
    if (trimmed != tag && trimmed.startsWith(tag))
        return refuse(ConfigBodies::wrongContents, block.name);
    return trimmed != tag;
}

Result<void> Reader::readBody(Directive &block)
{
    QList<QByteArrayView> lines;
    auto more = nextLineOf(block);
    for (; more && *more; more = nextLineOf(block))
        lines << line_.trimmed();
    if (!more)
        return tl::make_unexpected(more.error());
    const auto body = ConfigBodies::normalised(block.name, lines);
    if (!body)
        return refuse(body.error().detail, block.name);
    block.body = *body;
    return {};
}

Result<void> Reader::readConnection(Directive &block)
{
    auto more = nextLineOf(block);
    for (; more && *more; more = nextLineOf(block))
        if (auto line = readLine(Scope::Connection, block.inner); !line)
            return line;
    if (!more)
        return tl::make_unexpected(more.error());
    // OpenVPN needs one. And an empty block would look like a directive without values.
    if (!std::ranges::any_of(block.inner, [](const Directive &each) { return each.name == "remote"; }))
        return refuse(ConfigBodies::wrongContents, block.name);
    return {};
}

} // namespace

Result<Configuration> readConfiguration(const QByteArray &bytes)
{
    return Reader(bytes).read();
}
