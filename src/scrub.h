// Secrets scrubbed by value (--scrub). The file holds name=value lines;
// every occurrence of a value becomes "[REDACTED:name]": as it stands, in
// base64 at any of the three alignments, and spelled with any mix of raw
// bytes and %XX escapes. Every match counts; overlapping or touching ones
// become one replacement, named for the leftmost. The secrets and the
// matcher built from them live in locked memory, wiped when freed.
#ifndef QUELVANE_SCRUB_H
#define QUELVANE_SCRUB_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "result.h"

class SecretMatcher;

class Scrubber {
public:

    Scrubber();
    ~Scrubber();
    Scrubber(const Scrubber &) = delete;
    Scrubber &operator=(const Scrubber &) = delete;

    // Reads the secrets; refused after a message.
    Result load(const std::string &path);
    bool active() const { return automaton_ != nullptr; }
    // The locked memory the matcher holds.
    size_t memory() const;

    // One stream of data: feed each piece; the bytes that are ready (the
    // scrubbed data, less what may still belong to a secret) are appended
    // to out. final: the stream ends, everything goes out.
    class Stream {
    public:
        explicit Stream(const Scrubber &scrubber);
        ~Stream();
        Stream(const Stream &) = delete;
        Stream &operator=(const Stream &) = delete;
        void reset();
        void feed(const unsigned char *data, size_t length, bool final, std::vector<unsigned char> *out);

    private:
        struct State;
        const Scrubber &scrubber_;
        std::unique_ptr<State> state_;
    };

    // A whole text scrubbed (a name, a command line); the text itself while
    // nothing is scrubbed.
    std::string text(const std::string &raw) const;

private:
    std::unique_ptr<SecretMatcher> automaton_;
};

#endif
