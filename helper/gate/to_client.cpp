// SPDX-License-Identifier: MIT
#include "to_client.h"

#include <algorithm>

namespace {

constexpr size_t busy = 1 << 20; // waiting bytes
constexpr QByteArrayView important[] = {">STATE:", ">PASSWORD:", ">FATAL:"};

bool isImportant(QByteArrayView beginning)
{
    return std::any_of(std::begin(important), std::end(important),
                       [beginning](QByteArrayView each) { return beginning.startsWith(each); });
}

} // namespace

void ToClient::add(QByteArrayView part)
{
    const bool ends = part.endsWith('\n');
    if (known_ == 0 && fate_ == Fate::Open && waiting_.size() <= busy)
        fate_ = Fate::Passes;
    const QByteArrayView held(beginning_, fate_ == Fate::Open ? static_cast<qsizetype>(known_) : 0);
    const size_t more = std::min(sizeof beginning_ - known_, static_cast<size_t>(part.size()));
    std::memcpy(beginning_ + known_, part.data(), more);
    known_ += more;
    const QByteArrayView beginning(beginning_, static_cast<qsizetype>(known_));
    if (fate_ == Fate::Open && (ends || known_ == sizeof beginning_))
        fate_ = isImportant(beginning) ? Fate::Passes : Fate::Dropped;
    if (fate_ == Fate::Passes) {
        waiting_.append(held);
        waiting_.append(part);
    }
    if (!ends)
        return;
    hasState_ = hasState_ || beginning.startsWith(important[0]);
    known_ = 0;
    fate_ = Fate::Open;
}

void ToClient::clear()
{
    waiting_.clear();
    known_ = 0;
    fate_ = Fate::Open;
    hasState_ = false;
}
