// Files and patterns: a pattern's matches, and one file copied into a
// member of its own, with an ".err" member when it could not be.
#ifndef QUELVANE_FILE_COLLECTOR_H
#define QUELVANE_FILE_COLLECTOR_H

#include <string>
#include <vector>

#include "context.h"

// The paths a pattern matches, in name order, or newest first (a rotated
// log's oldest siblings last, where a budget drops them); none on an error.
std::vector<std::string> expand_pattern(const std::string &pattern, bool newest_first);

// ok when collected; missing when the path is absent, not a regular file or
// forbidden (said, not counted); collection_error when it failed otherwise;
// output_failure when the archive could not be written.
Result collect_file(Context &context, const std::string &path, const EntryNames &names);

// A regular file opened for reading, or -1 with errno (EINVAL: not one).
int open_regular_file(const std::string &path);

#endif
