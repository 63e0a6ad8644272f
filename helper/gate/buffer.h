// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArrayView>

#include <algorithm>
#include <cstring>
#include <span>

/// Bytes that wait, in a room that does not grow. What is dropped is wiped, for it may be a password.
template <size_t capacity>
class Buffer {
public:
    [[nodiscard]] QByteArrayView bytes() const { return {bytes_ + begin_, static_cast<qsizetype>(end_ - begin_)}; }
    [[nodiscard]] size_t size() const { return end_ - begin_; }
    [[nodiscard]] bool isEmpty() const { return begin_ == end_; }
    [[nodiscard]] size_t left() const { return capacity - size(); }

    /// Where the next bytes go; `grow` says how many came.
    std::span<char> room()
    {
        if (end_ == capacity)
            moveToFront();
        return {bytes_ + end_, capacity - end_};
    }
    void grow(size_t count) { end_ += count; }

    /// `bytes` must fit into what is left.
    void append(QByteArrayView bytes)
    {
        const auto count = static_cast<size_t>(bytes.size());
        if (capacity - end_ < count)
            moveToFront();
        std::copy_n(bytes.data(), count, bytes_ + end_);
        end_ += count;
    }
    void drop(size_t count)
    {
        ::explicit_bzero(bytes_ + begin_, count);
        begin_ += count;
        if (begin_ == end_)
            begin_ = end_ = 0;
    }
    void clear() { drop(size()); }

private:
    void moveToFront()
    {
        const size_t before = end_;
        std::memmove(bytes_, bytes_ + begin_, size());
        end_ -= begin_;
        begin_ = 0;
        ::explicit_bzero(bytes_ + end_, before - end_);
    }

    char bytes_[capacity];
    size_t begin_ = 0;
    size_t end_ = 0;
};
