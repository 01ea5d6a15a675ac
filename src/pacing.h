// When the run must end (--deadline) and how hard it may press on the
// machine (--gentle).
#ifndef QUELVANE_PACING_H
#define QUELVANE_PACING_H

#include <cstdint>
#include <ctime>

#include "result.h"

// Milliseconds on a clock: CLOCK_MONOTONIC for durations, CLOCK_REALTIME
// for dates.
int64_t clock_ms(clockid_t clock);

class Pacing {
public:
    void set_deadline(unsigned seconds);
    // Milliseconds left, or -1 without a deadline.
    int64_t left_ms() const;
    bool deadline_passed() const { return left_ms() == 0; }
    // The deadline on CLOCK_MONOTONIC, or -1.
    int64_t deadline_ms() const { return deadline_ms_; }
    // How long a command may be silent before the output gets a keepalive
    // (0: never).
    void set_keepalive(unsigned seconds) { keepalive_ms_ = int64_t{seconds} * 1000; }
    int64_t keepalive_ms() const { return keepalive_ms_; }
    // The lowest CPU priority and idle I/O for the tool and every command
    // it starts; refused after a message.
    Result start_gentle();
    // In gentle mode, waits while the machine is under pressure (at most
    // 30 s a run, never past the deadline or an interrupt).
    void pause();

private:
    int64_t deadline_ms_ = -1;
    int64_t keepalive_ms_ = 0;
    bool gentle_ = false;
    int64_t paused_ms_ = 0;
};

// Whether a pressure file's "some avg10=" figure reaches the threshold.
bool pressure_high(const char *text, double threshold);

#endif
