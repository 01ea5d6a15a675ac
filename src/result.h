// How an operation went, one convention for every room, and the exit status
// each outcome gives the run.
#ifndef QUELVANE_RESULT_H
#define QUELVANE_RESULT_H

#include <new>

enum class Result {
    ok,
    missing,           // an entry's file is absent, not a file or forbidden: said, not counted
    collection_error,  // an entry failed: counted, the run goes on
    refused,           // a check of the command line, the device or a password failed
    output_failure,    // the archive could not be written
    busy,              // another instance holds the lock
    interrupted,       // the user asked to stop
    bad_config,        // the configuration could not be read
    no_memory,
};

// The exit status that ends a run with this outcome; 0 for those that do
// not end it.
int exit_status(Result result);

// The reason the progress channel's FAIL line gives.
const char *failure_reason(Result result);

// Whether the outcome stops the run (an entry's failure does not).
inline bool fatal(Result result)
{
    return result != Result::ok && result != Result::missing && result != Result::collection_error;
}

// Runs body, a room's public operation, so that running out of memory comes
// back as an outcome instead of an exception crossing into the caller.
template <class Body>
Result guarded(Body body)
{
    try {
        return body();
    } catch (const std::bad_alloc &) {
        return Result::no_memory;
    }
}

#endif
