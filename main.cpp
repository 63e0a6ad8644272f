// SPDX-License-Identifier: MIT
#include "application_main.h"

int main(int argc, char *argv[])
{
    return applicationMain(argc, argv);
}
