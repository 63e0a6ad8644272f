// The helper with the paths of its command line in the place of the system's.

#include "helper_program.h"

int main(int argc, char *argv[])
{
    if (argc != 5)
        return 2;
    return helperMain(argc, argv, {argv[1], argv[2], argv[3], argv[4]});
}
