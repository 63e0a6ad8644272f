// SPDX-License-Identifier: MIT
#pragma once

// glibc 2.36 forgot to say that these are C functions.
extern "C" {
#include <sys/pidfd.h>
}
