// SPDX-License-Identifier: MIT
// What every program of a sanitized build asks of its sanitizer: the tests, the client, and the helper, which the bus
// starts without an environment. Standard <sanitizer/…_interface.h> names these functions; the environment's
// ASAN_OPTIONS, UBSAN_OPTIONS and TSAN_OPTIONS come on top.

#include <csignal>
#include <cstdlib>
#include <unistd.h>

namespace {

/// Leaks are counted after this object's end, and take longer than the moment that a client has which was told to quit.
/// Whoever set the variable is told that it came to that.
const struct LeaksToCome {
    ~LeaksToCome()
    {
        (void)std::signal(SIGALRM, SIG_IGN);
        constexpr char line[] = "Sanitizer at the end: leaks come next\n";
        if (std::getenv("CORVALE_TELL_END"))
            (void)!::write(STDERR_FILENO, line, sizeof line - 1);
    }
} leaksToCome;

} // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the sanitizers' names, not ours.
extern "C" {

const char *__asan_default_options()
{
    return "detect_stack_use_after_return=1:check_initialization_order=1";
}

const char *__ubsan_default_options()
{
    return "print_stacktrace=1:halt_on_error=1";
}

const char *__tsan_default_options()
{
    // Qt, GLib and the C++ library are built without it: what they do is seen by its effects on our code alone.
    return "halt_on_error=1:second_deadlock_stack=1:ignore_noninstrumented_modules=1";
}

const char *__tsan_default_suppressions()
{
    return
        // Qt's own bus thread looks at the receiver of a signal under locks that the sanitizer cannot see.
        "race:HelperSession::metaObject\n"
        // What a posted call carries is handed over under the lock of Qt's event queue, which it cannot see, either:
        // only a thread that had to be woken for the call is known to run it later.
        "race:invokeMethod\n";
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
