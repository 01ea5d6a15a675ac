// Text held in memory until it becomes an archive member: a command's
// standard error, our own lines about an entry, a generated member. Capped,
// so that a runaway command cannot exhaust memory.
#ifndef QUELVANE_TEXT_BUFFER_H
#define QUELVANE_TEXT_BUFFER_H

#include <cstddef>
#include <string>

class TextBuffer {
public:
    static constexpr size_t PIECE = 1024;
    static constexpr size_t CAP = 0x40000;

    // Appends all of it or nothing; false at the cap (full() tells) or
    // without memory.
    bool add(const void *data, size_t length);
    bool add(const std::string &text) { return text.empty() || add(text.data(), text.size()); }
    // Appends as much as fits below the cap; false once it is reached.
    bool add_capped(const void *data, size_t length);
    // Formats as printf does and appends; the bytes appended, or -1.
    int printf(const char *format, ...) __attribute__((format(printf, 2, 3)));
    // Appends what fd has to give now, without waiting for its end: 0, or
    // -1 after a failed read or append.
    int read_fd(int fd);
    // Whether the last append was refused at the cap.
    bool full() const { return full_; }
    size_t size() const { return text_.size(); }
    bool empty() const { return text_.empty(); }
    void clear();
    // The text in pieces of PIECE bytes, the last one shorter.
    template <class Each>
    bool each_piece(Each each) const
    {
        for (size_t at = 0; at < text_.size(); at += PIECE)
            if (!each(text_.data() + at, text_.size() - at < PIECE ? text_.size() - at : PIECE,
                      at + PIECE >= text_.size()))
                return false;
        return true;
    }

private:
    std::string text_;
    bool full_ = false;
};

#endif
