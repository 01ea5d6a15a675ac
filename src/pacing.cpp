#include "pacing.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "console.h"
#include "signals.h"

namespace {

constexpr int IOPRIO_CLASS_IDLE = 3;
constexpr int IOPRIO_CLASS_SHIFT = 13;
constexpr int IOPRIO_WHO_PROCESS = 1;
constexpr int LOWEST_PRIORITY = 19;

// Pressure at which we wait: share of the last 10 s in which some task was
// stalled on the CPU or on I/O.
constexpr double CPU_PRESSURE_LIMIT = 40.0;
constexpr double IO_PRESSURE_LIMIT = 30.0;
constexpr int64_t PAUSE_STEP_MS = 500;
constexpr int64_t PAUSE_TOTAL_MS = 30000;

bool pressure_file_high(const char *path, double threshold)
{
    char text[256] = {};
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd == -1)
        return false;  // no pressure accounting: never wait
    const ssize_t got = read(fd, text, sizeof text - 1);
    close(fd);
    return got > 0 && pressure_high(text, threshold);
}

}  // namespace

int64_t clock_ms(clockid_t clock)
{
    struct timespec now;
    clock_gettime(clock, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void Pacing::set_deadline(unsigned seconds)
{
    deadline_ms_ = clock_ms(CLOCK_MONOTONIC) + static_cast<int64_t>(seconds) * 1000;
}

int64_t Pacing::left_ms() const
{
    if (deadline_ms_ < 0)
        return -1;
    const int64_t left = deadline_ms_ - clock_ms(CLOCK_MONOTONIC);
    return left > 0 ? left : 0;
}

Result Pacing::start_gentle()
{
    // Both are inherited across fork and exec: every command runs as we do.
    if (setpriority(PRIO_PROCESS, 0, LOWEST_PRIORITY) != 0 ||
        syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, 0, IOPRIO_CLASS_IDLE << IOPRIO_CLASS_SHIFT) != 0) {
        const int error = errno;
        fprintf(stderr, _("Unable to lower the priority for --gentle: %s\n"), strerror(error));
        return Result::refused;
    }
    gentle_ = true;
    return Result::ok;
}

void Pacing::pause()
{
    while (gentle_ && !interrupted_by_user && paused_ms_ < PAUSE_TOTAL_MS &&
           (pressure_file_high("/proc/pressure/cpu", CPU_PRESSURE_LIMIT) ||
            pressure_file_high("/proc/pressure/io", IO_PRESSURE_LIMIT))) {
        int64_t step = PAUSE_STEP_MS;
        const int64_t left = left_ms();
        if (left == 0)
            return;
        if (left > 0 && left < step)
            step = left;
        struct timespec pause = {0, static_cast<long>(step) * 1000000};
        nanosleep(&pause, nullptr);
        paused_ms_ += step;
    }
}

bool pressure_high(const char *text, double threshold)
{
    const char *some = text != nullptr ? strstr(text, "some ") : nullptr;
    const char *average = some != nullptr ? strstr(some, "avg10=") : nullptr;
    if (average == nullptr)
        return false;
    char *end = nullptr;
    const double value = strtod(average + 6, &end);
    return end != average + 6 && value >= threshold;
}
