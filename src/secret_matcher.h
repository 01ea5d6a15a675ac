// The matcher behind --scrub: every form of every secret (as it stands,
// percent-decoded, and in base64 at the three alignments) in one
// Aho-Corasick automaton whose memory grows with the forms' total length.
// The secrets and the automaton live in locked memory, wiped when freed.
#ifndef QUELVANE_SECRET_MATCHER_H
#define QUELVANE_SECRET_MATCHER_H

#include <cstddef>
#include <cstdint>
#include <vector>

// Memory that is never swapped out nor dumped, and is wiped when freed.
void *locked_allocate(size_t bytes);
void locked_free(void *memory, size_t bytes);
// The locked memory held now; the first mlock error (0: none).
size_t locked_memory();
int locked_error();

template <class T>
struct Locked {
    using value_type = T;
    Locked() = default;
    template <class U>
    Locked(const Locked<U> &)
    {
    }
    T *allocate(size_t count) { return static_cast<T *>(locked_allocate(count * sizeof(T))); }
    void deallocate(T *memory, size_t count) { locked_free(memory, count * sizeof(T)); }
    bool operator==(const Locked &) const { return true; }
    bool operator!=(const Locked &) const { return false; }
};

template <class T>
using LockedVector = std::vector<T, Locked<T>>;
using Bytes = LockedVector<unsigned char>;

inline int hex_value(unsigned char byte)
{
    return byte >= '0' && byte <= '9' ? byte - '0'
           : byte >= 'a' && byte <= 'f' ? byte - 'a' + 10
           : byte >= 'A' && byte <= 'F' ? byte - 'A' + 10
                                        : -1;
}

// States keep their children as a list (the root as a full row). Each state
// knows the longest form ending there, its own or a suffix's (match), and
// that form's secret (owner).
class SecretMatcher {
public:
    static constexpr uint32_t NONE = UINT32_MAX;

    // Secrets in order; then build, once.
    void add_secret(const unsigned char *name, size_t name_length, const unsigned char *value, size_t value_length);
    bool empty() const { return pattern_end_.empty(); }
    void build();

    uint32_t step(uint32_t state, unsigned char byte) const
    {
        for (;;) {
            if (state == 0)
                return root[byte];
            for (uint32_t c = child[state]; c != NONE; c = sibling[c])
                if (label[c] == byte)
                    return c;
            state = fail[state];
        }
    }
    // "[REDACTED:name]" of a secret.
    const unsigned char *replacement_text(uint32_t secret) const { return texts.data() + replacement[2 * secret]; }
    size_t replacement_size(uint32_t secret) const { return replacement[2 * secret + 1]; }

    uint32_t root[256] = {};
    Bytes label;
    LockedVector<uint32_t> child, sibling, fail, depth, match, owner;
    // The states one byte deep, where a scan spends most of its time, as
    // full rows: the row of the state root[b] starts at b * 256.
    LockedVector<uint32_t> second;
    uint32_t longest = 0;

private:
    uint32_t add_state(uint32_t parent, unsigned char byte);
    void add_pattern(const unsigned char *pattern, size_t length, uint32_t secret);
    // The bytes appended since the last form become one, unless the secret
    // has that form already.
    void close_form(uint32_t secret);
    void add_decoded(const unsigned char *value, size_t length, uint32_t secret);
    void add_base64(const unsigned char *value, size_t length, uint32_t secret);
    void link();

    LockedVector<uint32_t> replacement;  // per secret: offset and length in texts
    Bytes texts;
    // Every form, end to end: a secret's memory is a few bytes, never a
    // page of its own.
    Bytes forms_;
    std::vector<size_t> pattern_end_;
    std::vector<uint32_t> pattern_secret_;
    size_t first_of_secret_ = 0;
};

#endif
