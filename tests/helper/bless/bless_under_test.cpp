// SPDX-License-Identifier: MIT
// The bless tool below the folder of its first argument in the place of the system's.

#include "bless_program.h"

#include <cstdlib>

int main(int argc, char *argv[])
{
    if (argc < 2)
        return 99;
    const QByteArray root = argv[1];
    argv[1] = argv[0];
    std::_Exit(blessMain(argc - 1, argv + 1,
                         {root + "/libexec", root + "/policies", root + "/services", root + "/units", root + "/systemd",
                          "unix:path=" + root + "/../socket", root + "/run", root + "/kept", root + "/lock"}));
}
