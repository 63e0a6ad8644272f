// SPDX-License-Identifier: MIT
#include "gate_main.h"

#include "gate.h"

#include <cstdlib>
#include <cstring>
#include <linux/capability.h>
#include <memory>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int listenerDescriptor = 3;
constexpr int controlDescriptor = 4;

/// Root without any of root's powers: it stays root for the client, who trusts no other listener, and for OpenVPN's
/// socket, which is root's alone.
bool giveUpPowers()
{
    for (int each = 0; ::prctl(PR_CAPBSET_READ, each) >= 0; ++each)
        ::prctl(PR_CAPBSET_DROP, each); // fails under systemd, whose unit has left out most of them
    ::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3]{};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ::syscall(SYS_capset, &header, none) == 0;
}

} // namespace

bool isGate(int argc, char *argv[])
{
    return argc > 1 && std::strcmp(argv[1], "gate") == 0;
}

int gateMain(int argc, char *argv[])
{
    sockaddr_un openvpn{};
    openvpn.sun_family = AF_UNIX;
    if (argc != 4 || std::strlen(argv[3]) >= sizeof openvpn.sun_path)
        return EXIT_FAILURE;
    std::memcpy(openvpn.sun_path, argv[3], std::strlen(argv[3]));
    const auto owner = static_cast<uid_t>(std::strtoul(argv[2], nullptr, 10));
    ::prctl(PR_SET_NAME, "corvale-gate");
    ::prctl(PR_SET_DUMPABLE, 0);
    // It outlives a helper that was killed for a moment: the client is to hear of OpenVPN's end.
    ::prctl(PR_SET_PDEATHSIG, 0);
    if (!giveUpPowers())
        return EXIT_FAILURE;

    // Without initialisation: memory that is never needed is never touched.
    const auto secrets = std::make_unique_for_overwrite<Gate::Secrets>();
    const auto toClient = std::make_unique_for_overwrite<ToClient>();
    ::mlock(secrets.get(), sizeof *secrets);
    Gate(Descriptor(listenerDescriptor), Descriptor(controlDescriptor), owner, openvpn, {*secrets, *toClient}).run();
    ::explicit_bzero(secrets.get(), sizeof *secrets);
    return EXIT_SUCCESS;
}
