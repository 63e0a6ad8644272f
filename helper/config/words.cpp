// SPDX-License-Identifier: MIT
#include "words.h"

#include <algorithm>

namespace {

enum class State { BetweenWords, InWord, InQuotes };

bool isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

bool isControl(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return (byte < ' ' && c != '\t') || byte == 0x7f;
}

bool isAscii(char c)
{
    return static_cast<unsigned char>(c) < 0x80;
}

/// Cuts the bytes before a comment into words. Takes each byte of the line once, in the same three states as OpenVPN.
class Cutter {
public:
    bool take(char c); ///< false at a comment
    QList<QByteArray> words;
    State state = State::BetweenWords;
    void endWord();

private:
    void begin(char c);
    QByteArray word_;
    char quote_ = 0;
};

void Cutter::endWord()
{
    words << word_;
    word_.clear();
    state = State::BetweenWords;
}

void Cutter::begin(char c)
{
    const bool quoted = c == '"' || c == '\'';
    state = quoted ? State::InQuotes : State::InWord;
    if (quoted)
        quote_ = c;
    else
        word_ += c;
}

bool Cutter::take(char c)
{
    switch (state) {
    case State::BetweenWords:
        if (c == '#' || c == ';')
            return false;
        if (!isSpace(c))
            begin(c);
        return true;
    case State::InWord:
        if (isSpace(c))
            endWord();
        else
            word_ += c;
        return true;
    case State::InQuotes:
        if (c == quote_)
            endWord();
        else
            word_ += c;
        return true;
    }
    return true;
}

} // namespace

Result<void> ConfigWords::checkLine(QByteArrayView line)
{
    if (line.size() > maxLine)
        return failure("is longer than 254 bytes", ErrorCode::ConfigRejected);
    if (line.endsWith('\r'))
        line.chop(1);
    if (std::ranges::any_of(line, isControl))
        return failure("holds a control byte", ErrorCode::ConfigRejected);
    return {};
}

Result<QList<QByteArray>> ConfigWords::cut(QByteArrayView line)
{
    Cutter cutter;
    for (const char c : line) {
        if (!cutter.take(c))
            break;
        if (c == '\\')
            return failure("holds a backslash", ErrorCode::ConfigRejected);
        if (!isAscii(c))
            return failure("holds a byte that is not ASCII", ErrorCode::ConfigRejected);
    }
    if (cutter.state == State::InQuotes)
        return failure("has a quote that does not end", ErrorCode::ConfigRejected);
    if (cutter.state == State::InWord)
        cutter.endWord();
    if (cutter.words.size() > maxWords)
        return failure("has more than 16 words", ErrorCode::ConfigRejected);
    return cutter.words;
}
