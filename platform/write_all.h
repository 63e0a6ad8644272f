// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArrayView>

/// Writes every byte to `descriptor`, in one `write` where the kernel takes them at once. Any thread; blocks as the
/// descriptor does. A pipe without a reader is an error like any other: SIGPIPE is never raised. Returns 0 or an errno.
int writeAll(int descriptor, QByteArrayView bytes);
