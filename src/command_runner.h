// One configured command run to its end, its time-out or an interrupt:
// /bin/sh -c in a process group of its own, its standard output deflated
// into the ".out" member as it arrives, its standard error and our own
// lines into the ".err" member afterwards.
#ifndef QUELVANE_COMMAND_RUNNER_H
#define QUELVANE_COMMAND_RUNNER_H

#include <string>

#include "context.h"

// ok when the command ran and ended (with any exit code, or interrupted);
// collection_error when it could not run or timed out; output_failure when
// the archive could not be written.
Result run_command(Context &context, const ConfigEntry &entry, const std::string &command,
                   const EntryNames &names);

#endif
