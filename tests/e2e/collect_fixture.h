// Helpers for the collection end-to-end tests: a configuration and the
// programs it names in a temporary directory, one run of the tool, and the
// archive it made, read by our reader and handed to the real ones.
#ifndef QUELVANE_COLLECT_FIXTURE_H
#define QUELVANE_COLLECT_FIXTURE_H

#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "testsupport.h"

namespace collect {

// A member name's tail for a path: every "/" becomes "@".
inline std::string flat(std::string path)
{
    std::replace(path.begin(), path.end(), '/', '@');
    return path;
}

// An executable shell script in dir; returns its path.
inline std::string script(const qt::TempDir &dir, const std::string &name, const std::string &body)
{
    std::string path = dir.file(name);
    EXPECT_TRUE(qt::write_file(path, "#!/bin/sh\n" + body, 0755)) << path;
    return path;
}

struct Collected {
    qt::RunResult run;
    std::string path;   // the archive file (or where it would have been)
    std::string bytes;  // the plain ZIP stream
    qt::ZipArchive zip;

    std::string data(const std::string &name) const
    {
        const qt::ZipEntry *entry = zip.find(name);
        return entry != nullptr ? entry->data : "<no member " + name + ">";
    }
};

// Writes the configuration to dir/q.conf and runs
// quelvane -f q.conf -a t.zip -o out.zip followed by args, so every member
// name begins with "t/".
inline Collected collect(const qt::TempDir &dir, const std::string &config,
                         const std::vector<std::string> &args, qt::RunSpec spec = qt::RunSpec())
{
    Collected c;
    EXPECT_TRUE(qt::write_file(dir.file("q.conf"), config));
    c.path = dir.file("out.zip");
    std::vector<std::string> all = {"-f", "q.conf", "-a", "t.zip", "-o", c.path};
    all.insert(all.end(), args.begin(), args.end());
    c.run = qt::run_quelvane(dir, all, spec);
    c.bytes = qt::read_file(c.path);
    c.zip = qt::read_zip(c.bytes);
    return c;
}

// The same in download mode: the archive arrives on standard output.
inline Collected download(const qt::TempDir &dir, const std::string &config,
                          const std::vector<std::string> &args, qt::RunSpec spec = qt::RunSpec())
{
    Collected c;
    EXPECT_TRUE(qt::write_file(dir.file("q.conf"), config));
    std::vector<std::string> all = {"-f", "q.conf", "-a", "t.zip", "-o", "-"};
    all.insert(all.end(), args.begin(), args.end());
    c.run = qt::run_quelvane(dir, all, spec);
    c.bytes = c.run.out;
    c.path = dir.file("download.zip");
    EXPECT_TRUE(qt::write_file(c.path, c.bytes));
    c.zip = qt::read_zip(c.bytes);
    return c;
}

// Our reader and the real ones agree that the archive is whole.
inline void expect_readable(const Collected &c, const std::set<std::string> &flagged = {})
{
    EXPECT_EQ(c.zip.error, "");
    EXPECT_EQ(qt::check_real_readers(c.path, flagged), "");
}

inline std::string readme(const std::string &letters, bool sp_sw_down = false)
{
    return "Archive Name: t.zip\n"
           "Config File: q.conf\n"
           "Version: 1.1\n"
           "LOG-ONLY MODE: no\n"
           "Log Sets: " + letters + "\n"
           "SP SW DOWN: " + (sp_sw_down ? "yes" : "no") + "\n"
           "Max Domains: 1\n";
}

// Whether a process still runs (a zombie waiting for its reaper does not).
inline bool process_alive(pid_t pid)
{
    if (kill(pid, 0) != 0)
        return false;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    size_t close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() && line[close + 2] != 'Z';
}

inline pid_t pid_from(const std::string &path)
{
    return static_cast<pid_t>(atoi(qt::read_file(path).c_str()));
}

}  // namespace collect

#endif
