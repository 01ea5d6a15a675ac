// Secrets scrubbed by value (--scrub). The file holds name=value lines;
// every occurrence of a value, as it stands, percent-encoded or in base64 at
// any of the three alignments, becomes "[REDACTED:name]". The secrets and
// the matcher built from them live in locked memory, wiped when freed.
#ifndef QUELVANE_SCRUB_H
#define QUELVANE_SCRUB_H

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "result.h"

class Scrubber {
public:
    Scrubber();
    ~Scrubber();
    Scrubber(const Scrubber &) = delete;
    Scrubber &operator=(const Scrubber &) = delete;

    // Reads the secrets; refused after a message.
    Result load(const std::string &path);
    bool active() const;
    // Per stream of data: reset, then feed each piece; the bytes that are
    // ready (the scrubbed data, less a tail that may still begin a secret)
    // are appended to out. final: the stream ends, the tail goes out too.
    void reset();
    void feed(const unsigned char *data, size_t length, bool final, std::vector<unsigned char> *out);
    // A whole text scrubbed (a name, a command line); the text itself while
    // nothing is scrubbed. A stream being fed keeps its tail.
    std::string text(const std::string &raw);

private:
    struct State;
    std::unique_ptr<State> state_;
};

#endif
