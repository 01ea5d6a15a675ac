// The members that describe the run: README and CONFIG first, SKIPPED and
// MANIFEST.json last.
#ifndef QUELVANE_RUN_REPORT_H
#define QUELVANE_RUN_REPORT_H

#include <string>
#include <utility>
#include <vector>

#include "context.h"

// What README says of the run; scripts read its lines.
struct RunFacts {
    std::string archive_name;
    std::string config_path;
    bool log_only = false;
    std::string log_sets;
    bool sp_sw_down = false;
    int max_domains = 1;
};

// README's text.
std::string readme_text(const RunFacts &facts);
// output_failure when the member could not be written.
Result write_readme(Context &context, const RunFacts &facts);
// The most SKIPPED can take when it holds only its last line,
// "... and N more", for a run of this many entries.
uint64_t least_skipped_cost(Context &context, size_t entries);
// A copy of the configuration file, unless it cannot be opened (then no
// member); output_failure when stat fails or the output does.
Result write_config(Context &context, const std::string &config_path);
// One line for each entry the deadline or the budget left out, written
// only when there is one; under a budget, the lines that fit, then
// "... and N more". collection_error when it could not be put together,
// output_failure when the output failed.
Result write_skipped(Context &context);
// Every member made so far (what made it, how that went, sizes, CRC-32,
// SHA-256, start and duration), the entries left out, the version, the
// host and the options given. Failures as for write_skipped.
Result write_manifest(Context &context, const std::vector<std::pair<std::string, std::string>> &options);

#endif
