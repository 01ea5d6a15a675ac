// The progress channel (--progress-fd): lines for a program, never waited
// for. A line that does not fit the reader's pipe is counted, and the count
// goes out as "LOST n" before the next line that fits.
#ifndef QUELVANE_PROGRESS_H
#define QUELVANE_PROGRESS_H

#include <string>

constexpr int PROGRESS_PROTOCOL = 1;

class ProgressChannel {
public:
    // Lines go to fd from now on; false when fd is not open or is 0-2. The
    // description may be shared: its flags are left as they are.
    bool open(int fd);
    void event(const char *format, ...) __attribute__((format(printf, 2, 3)));
    // head, then the name with control bytes and '\' as \xHH (shortened when
    // the line would pass PIPE_BUF), then tail, which ends the line.
    void named(const std::string &head, const std::string &name, const std::string &tail);

private:
    void send_line(const char *line, size_t length);
    int send(const char *line, size_t length);
    int fd_ = -1;
    bool socket_ = false;
    unsigned long long lost_ = 0;
};

#endif
