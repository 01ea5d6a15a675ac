// The progress channel (--progress-fd): lines for a program, never waited
// for. A line that does not fit the reader's pipe is counted, and the count
// goes out as "LOST n" before the next line that fits.
#ifndef QUELVANE_PROGRESS_H
#define QUELVANE_PROGRESS_H

constexpr int PROGRESS_PROTOCOL = 1;

class ProgressChannel {
public:
    // Lines go to fd from now on; false when fd is not open or is 0-2.
    bool open(int fd);
    void event(const char *format, ...) __attribute__((format(printf, 2, 3)));

private:
    int send(const char *line, unsigned long length);
    int fd_ = -1;
    unsigned long long lost_ = 0;
};

#endif
