#include "run.h"

int main(int argc, char **argv)
{
    return quelvane_main(argc, argv);
}
