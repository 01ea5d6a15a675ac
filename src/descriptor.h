// Descriptors that close themselves, and the pipes made of them.
#ifndef QUELVANE_DESCRIPTOR_H
#define QUELVANE_DESCRIPTOR_H

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor &&other) noexcept : fd_(other.release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    int get() const { return fd_; }
    // Closes what it holds, then holds fd.
    void reset(int fd = -1);
    int release()
    {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_ = -1;
};

struct Pipe {
    Descriptor read_end;
    Descriptor write_end;
    // Both ends close-on-exec: no command inherits another pipe's end by
    // mistake, and dup2 clears the flag on those a child keeps.
    bool open();
};

#endif
