// SPDX-License-Identifier: MIT
#include "bless_program.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

int main(int argc, char *argv[])
{
    if (::getuid() != 0 || ::geteuid() != 0) {
        (void)std::fputs("The helper is installed by root; the client has pkexec run this.\n", stderr);
        return EXIT_FAILURE;
    }
    const int status =
        blessMain(argc, argv,
                  {"/usr/libexec/corvale", "/usr/share/dbus-1/system.d", "/usr/share/dbus-1/system-services",
                   "/usr/lib/systemd/system", "/run/systemd/system", "unix:path=/run/dbus/system_bus_socket",
                   "/run/corvale", "/etc/resolv.conf.corvale", "/run/corvale-bless.lock"});
    // Qt's bus thread may still be closing the connection: no static object may go under its feet.
    std::_Exit(status);
}
