// SPDX-License-Identifier: MIT
#include "credentials.h"

#include <algorithm>
#include <cstring>

using Kind = ManagementText::Meaning::Kind;

void Credentials::Line::set(QByteArrayView line)
{
    ::explicit_bzero(text, sizeof text);
    size = std::min(static_cast<size_t>(line.size()), sizeof text);
    std::copy_n(line.data(), size, text);
}

bool Credentials::Word::taken()
{
    const bool other = kept.bytes() != sent.bytes();
    if (other)
        kept.set(sent.bytes());
    sent.set({});
    needed = false;
    return other;
}

void Credentials::sent(QByteArrayView line)
{
    Word *const word = ManagementText::isUsername(line)   ? &username_
                       : ManagementText::isPassword(line) ? &password_
                                                          : nullptr;
    // Of two that are on their way, OpenVPN takes the first.
    if (word && word->sent.size == 0)
        word->sent.set(line);
}

void Credentials::heard(const ManagementText::Meaning &meaning, Clock::time_point now)
{
    switch (meaning.kind) {
    case Kind::Needed:
        username_.needed = password_.needed = true;
        asked_ = now;
        break;
    case Kind::UsernameTaken: accepted_ = !username_.taken() && accepted_; break;
    case Kind::PasswordTaken: accepted_ = !password_.taken() && accepted_; break;
    case Kind::UsernameNotTaken: username_.sent.set({}); break;
    case Kind::PasswordNotTaken: password_.sent.set({}); break;
    case Kind::Failed:
        accepted_ = false;
        username_.kept.set({});
        password_.kept.set({});
        break;
    case Kind::State:
        if (meaning.text == "CONNECTED")
            accepted_ = username_.kept.size > 0 && password_.kept.size > 0;
        break;
    case Kind::None:
    case Kind::Remote: break;
    }
}

void Credentials::forgetConnection()
{
    for (Word *const word : {&username_, &password_}) {
        word->sent.set({});
        word->needed = false; // it asks again on the next one
    }
}

Credentials::Clock::time_point Credentials::due(bool clientMayAnswer) const
{
    for (const Word *const word : {&username_, &password_})
        if (!accepted_ || !word->needed || word->sent.size > 0)
            return never;
    return std::max(clientMayAnswer ? asked_ + clientsTurn : asked_, again_[nextAgain_]);
}
