// The helper with the paths and limits (milliseconds) of its command line in the place of the system's.

#include "helper_program.h"

#include <cstdlib>

int main(int argc, char *argv[])
{
    if (argc != 7)
        return 2;
    return helperMain(argc, argv, {argv[1], argv[2], argv[3], argv[4]},
                      {std::chrono::milliseconds(std::atoi(argv[5])), std::chrono::milliseconds(std::atoi(argv[6]))});
}
