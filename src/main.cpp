// Entry point, option handling and the run driver.
#include "main.h"

#ifndef QUELVANE_MAIN_ONLY
#include <cstdio>
#include <cstdlib>

#include "quelvane_util.h"

void usage(int status)
{
    exit(status);
}

void quelvane_parse_options(int, char **, RunOptions *)
{
    usage(1);
}

int quelvane_run(RunOptions *)
{
    return 2;
}

int usb_write_test(const char *)
{
    return -1;
}

int usb_prepare_device(const char *, const char *)
{
    return -1;
}

int quelvane_main(int argc, char **argv)
{
    RunOptions options;
    quelvane_parse_options(argc, argv, &options);
    return quelvane_run(&options);
}
#endif  // QUELVANE_MAIN_ONLY

#ifndef QUELVANE_LIBRARY
int main(int argc, char **argv)
{
    return quelvane_main(argc, argv);
}
#endif
