#include "daemon/program_main.h"

int main(int argc, char** argv)
{
    return ProgramMain(argc, argv);
}
