// The walk over the configuration: every selected entry in file order, a
// command once per domain index, a pattern once per match, each admitted
// only while the deadline and the budget allow; what they leave out is
// recorded for the SKIPPED member.
#ifndef QUELVANE_COLLECTION_H
#define QUELVANE_COLLECTION_H

#include <cstdint>

#include "config.h"
#include "context.h"

struct Selection {
    uint32_t datasets = 0;     // -L as bits; 0 selects nothing
    bool sp_sw_down = false;   // entries marked "n" are passed over
    int max_domains = 1;
};

// ok with *errors entries that failed (or were left out); interrupted,
// output_failure or no_memory when the walk stopped.
Result walk_entries(Context &context, const Config &config, const Selection &selection, int *errors);

// What the walk would collect, one line a member on standard output
// ("kind time-out member source"), running nothing.
Result list_entries(Context &context, const Config &config, const Selection &selection);

#endif
