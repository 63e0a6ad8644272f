// SPDX-License-Identifier: MIT
#pragma once

#include <unistd.h>
#include <utility>

/// Owns a file descriptor.
class Descriptor {
public:
    explicit Descriptor(int descriptor = -1) : descriptor_(descriptor) {}
    ~Descriptor() { close(); }
    Descriptor(Descriptor &&other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        std::swap(descriptor_, other.descriptor_); // the other closes it
        return *this;
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;

    [[nodiscard]] int get() const { return descriptor_; }
    explicit operator bool() const { return descriptor_ >= 0; }
    /// False, with the reason in errno, when the kernel tells only now that a write has failed.
    bool close() // NOLINT(modernize-use-nodiscard): nobody asks after reading
    {
        const int open = std::exchange(descriptor_, -1);
        return open < 0 || ::close(open) == 0;
    }

private:
    int descriptor_;
};
