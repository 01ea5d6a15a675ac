// One collection run from the command line to its exit status: the
// standard descriptors, the options, the lock, the password, the output,
// the members in order, and whether the archive is kept.
#ifndef QUELVANE_RUN_H
#define QUELVANE_RUN_H

// Everything main() does; returns the exit status.
int quelvane_main(int argc, char **argv);

#endif
