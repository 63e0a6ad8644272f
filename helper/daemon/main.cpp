// SPDX-License-Identifier: MIT
#include "gate_main.h"
#include "helper_program.h"

#include <cstdio>
#include <cstdlib>
#include <sys/prctl.h>
#include <unistd.h>

// The property list that says what this program is, for whoever reads the file without running it.
asm(R"(.pushsection .info_plist,"a",@progbits
    .incbin ")" CORVALE_INFO_PLIST R"("
    .popsection)");

int main(int argc, char *argv[])
{
    if (::geteuid() != 0) {
        (void)std::fputs("The helper must be run by root; the system bus starts it when it is needed.\n", stderr);
        return EXIT_FAILURE;
    }
    if (isGate(argc, argv))
        return gateMain(argc, argv);
    ::prctl(PR_SET_DUMPABLE, 0); // keys pass through its memory
    return helperMain(argc, argv,
                      {"/usr/sbin/openvpn", "/usr/libexec/corvale/client.up", "/usr/libexec/corvale/client.down",
                       "/run/corvale", "/etc/resolv.conf.corvale"});
}
