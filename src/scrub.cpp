#include "scrub.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include <openssl/crypto.h>

#include "console.h"
#include "descriptor.h"

namespace {

// Set when locked memory could not be locked; the load then refuses.
bool lock_failed;
int lock_error;

// Memory that is never swapped out nor dumped, and is wiped when freed: it
// holds the secrets and the matcher that spells them out.
template <class T>
struct Locked {
    using value_type = T;
    Locked() = default;
    template <class U>
    Locked(const Locked<U> &)
    {
    }
    static size_t span(size_t count)
    {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        return (count * sizeof(T) + page - 1) / page * page;
    }
    T *allocate(size_t count)
    {
        void *memory = mmap(nullptr, span(count), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            throw std::bad_alloc();
        if (mlock(memory, span(count)) != 0 && !lock_failed) {
            lock_failed = true;
            lock_error = errno;
        }
        madvise(memory, span(count), MADV_DONTDUMP);
        return static_cast<T *>(memory);
    }
    void deallocate(T *memory, size_t count)
    {
        OPENSSL_cleanse(memory, span(count));
        munlock(memory, span(count));
        munmap(memory, span(count));
    }
    bool operator==(const Locked &) const { return true; }
    bool operator!=(const Locked &) const { return false; }
};

template <class T>
using LockedVector = std::vector<T, Locked<T>>;
using Bytes = LockedVector<unsigned char>;

// Encodings shorter than this would match ordinary text.
constexpr size_t MIN_SECRET = 4;
constexpr size_t MIN_BASE64 = 8;
constexpr size_t MAX_SCRUB_FILE = 1 << 20;
constexpr uint32_t NONE = UINT32_MAX;

struct Match {
    size_t start;
    uint32_t length;
    uint32_t pattern;
};

bool ascii_alnum(unsigned char byte)
{
    return (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
}

void add_form(Bytes &&form, std::vector<Bytes> *forms)
{
    if (std::find(forms->begin(), forms->end(), form) == forms->end())
        forms->push_back(std::move(form));
}

void add_percent_forms(const Bytes &value, std::vector<Bytes> *forms)
{
    static const char upper[] = "0123456789ABCDEF", lower[] = "0123456789abcdef";
    for (const char *digits : {upper, lower}) {
        Bytes encoded;
        for (unsigned char byte : value) {
            if (ascii_alnum(byte) || byte == '-' || byte == '.' || byte == '_' || byte == '~') {
                encoded.push_back(byte);
            } else {
                encoded.push_back('%');
                encoded.push_back(static_cast<unsigned char>(digits[byte >> 4]));
                encoded.push_back(static_cast<unsigned char>(digits[byte & 15]));
            }
        }
        add_form(std::move(encoded), forms);
    }
}

// At each alignment, the base64 characters that the value alone decides.
void add_base64_forms(const Bytes &value, std::vector<Bytes> *forms)
{
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (size_t align = 0; align < 3; ++align) {
        Bytes padded(align, 0);
        padded.insert(padded.end(), value.begin(), value.end());
        padded.resize(padded.size() + 3, 0);
        Bytes encoded;
        const size_t first_bit = 8 * align, last_bit = 8 * (align + value.size());
        for (size_t bit = 0; bit + 6 <= last_bit; bit += 6) {
            if (bit < first_bit)
                continue;
            unsigned sextet = 0;
            for (size_t b = bit; b < bit + 6; ++b)
                sextet = sextet << 1 | ((padded[b / 8] >> (7 - b % 8)) & 1);
            encoded.push_back(static_cast<unsigned char>(alphabet[sextet]));
        }
        if (encoded.size() >= MIN_BASE64)
            add_form(std::move(encoded), forms);
    }
}

bool valid_name(const unsigned char *name, size_t length)
{
    if (length == 0 || length > 64)
        return false;
    for (size_t i = 0; i < length; ++i)
        if (!ascii_alnum(name[i]) && name[i] != '_' && name[i] != '.' && name[i] != '-')
            return false;
    return true;
}

}  // namespace

// The patterns' matcher: a deterministic automaton over byte classes (the
// bytes no pattern holds share class 0), each state knowing the longest
// pattern that ends there.
struct Scrubber::State {
    unsigned char byte_class[256] = {};  // which bytes occur, not where
    uint32_t classes = 1;
    LockedVector<uint32_t> next;         // state * classes + class
    LockedVector<uint32_t> ends;         // per state: longest pattern length ending there
    LockedVector<uint32_t> pattern_of;   // per state: that pattern
    LockedVector<uint32_t> replacement;  // per pattern: offset and length in texts
    Bytes texts;                         // the "[REDACTED:name]" texts
    size_t longest = 0;
    Bytes carry;                         // a stream's tail that may begin a secret
    std::vector<Match> matches;

    void add_secret(const unsigned char *name, size_t name_length, const Bytes &value, std::vector<Bytes> *patterns,
                    std::vector<uint32_t> *owner);
    void build(const std::vector<Bytes> &patterns, const std::vector<uint32_t> &owner);
    void add_pattern(const Bytes &pattern, uint32_t owner);
    void link_failures();
};

void Scrubber::State::add_secret(const unsigned char *name, size_t name_length, const Bytes &value,
                                 std::vector<Bytes> *patterns, std::vector<uint32_t> *owner)
{
    static const char head[] = "[REDACTED:";
    const uint32_t index = static_cast<uint32_t>(replacement.size() / 2);
    replacement.push_back(static_cast<uint32_t>(texts.size()));
    replacement.push_back(static_cast<uint32_t>(sizeof head - 1 + name_length + 1));
    texts.insert(texts.end(), head, head + sizeof head - 1);
    texts.insert(texts.end(), name, name + name_length);
    texts.push_back(']');
    std::vector<Bytes> forms = {value};
    add_percent_forms(value, &forms);
    add_base64_forms(value, &forms);
    for (Bytes &form : forms) {
        patterns->push_back(std::move(form));
        owner->push_back(index);
    }
}

void Scrubber::State::add_pattern(const Bytes &pattern, uint32_t owner)
{
    uint32_t state = 0;
    for (unsigned char byte : pattern) {
        const size_t slot = state * classes + byte_class[byte];
        if (next[slot] == NONE) {
            next[slot] = static_cast<uint32_t>(ends.size());
            ends.push_back(0);
            pattern_of.push_back(0);
            next.resize(next.size() + classes, NONE);
        }
        state = next[slot];
    }
    if (ends[state] == 0) {
        ends[state] = static_cast<uint32_t>(pattern.size());
        pattern_of[state] = owner;
    }
    longest = std::max(longest, pattern.size());
}

// Aho-Corasick: the trie of every pattern, then failure links folded into
// a full transition table, breadth first.
void Scrubber::State::build(const std::vector<Bytes> &patterns, const std::vector<uint32_t> &owner)
{
    for (const Bytes &pattern : patterns)
        for (unsigned char byte : pattern)
            if (byte_class[byte] == 0)
                byte_class[byte] = static_cast<unsigned char>(classes++);
    // At most one state per pattern byte: room for all at once, no regrowth.
    size_t states = 1;
    for (const Bytes &pattern : patterns)
        states += pattern.size();
    next.reserve(states * classes);
    ends.reserve(states);
    pattern_of.reserve(states);
    next.assign(classes, NONE);
    ends.assign(1, 0);
    pattern_of.assign(1, 0);
    for (size_t p = 0; p < patterns.size(); ++p)
        add_pattern(patterns[p], owner[p]);
    link_failures();
}

void Scrubber::State::link_failures()
{
    LockedVector<uint32_t> fail(ends.size(), 0), queue;
    queue.reserve(ends.size());
    for (uint32_t c = 0; c < classes; ++c) {
        uint32_t &edge = next[c];
        if (edge == NONE)
            edge = 0;
        else
            queue.push_back(edge);
    }
    for (size_t head = 0; head < queue.size(); ++head) {
        const uint32_t state = queue[head];
        if (ends[state] == 0) {  // a proper suffix's pattern ends here too
            ends[state] = ends[fail[state]];
            pattern_of[state] = pattern_of[fail[state]];
        }
        for (uint32_t c = 0; c < classes; ++c) {
            uint32_t &edge = next[state * classes + c];
            const uint32_t fallback = next[fail[state] * classes + c];
            if (edge == NONE) {
                edge = fallback;
            } else {
                fail[edge] = fallback;
                queue.push_back(edge);
            }
        }
    }
}

Scrubber::Scrubber() = default;
Scrubber::~Scrubber() = default;

namespace {

// The file's bytes, or a message and false: a regular file that only its
// owner may read.
bool read_scrub_file(const std::string &path, Bytes *text)
{
    Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    struct stat status;
    if (fd.get() == -1 || fstat(fd.get(), &status) != 0) {
        fprintf(stderr, _("Unable to open scrub file %s: %s\n"), path.c_str(), strerror(errno));
        return false;
    }
    if (!S_ISREG(status.st_mode) || (status.st_mode & 077) != 0 ||
        static_cast<size_t>(status.st_size) > MAX_SCRUB_FILE) {
        fprintf(stderr, _("Refusing scrub file %s: it must be a regular file readable only by its owner\n"),
                path.c_str());
        return false;
    }
    text->assign(static_cast<size_t>(status.st_size) + 1, 0);
    const ssize_t got = read(fd.get(), text->data(), text->size() - 1);
    if (got < 0) {
        fprintf(stderr, _("Unable to open scrub file %s: %s\n"), path.c_str(), strerror(errno));
        return false;
    }
    text->resize(static_cast<size_t>(got));
    return true;
}

}  // namespace

Result Scrubber::load(const std::string &path)
{
    Result result = guarded([&] {
        Bytes text;
        if (!read_scrub_file(path, &text))
            return Result::refused;
        auto state = std::make_unique<State>();
        std::vector<Bytes> patterns;
        std::vector<uint32_t> owner;  // pattern -> its replacement
        int line_number = 0;
        for (size_t at = 0; at < text.size();) {
            const size_t end = std::find(text.begin() + at, text.end(), '\n') - text.begin();
            ++line_number;
            const unsigned char *line = text.data() + at;
            const size_t length = end - at;
            at = end + 1;
            if (length == 0 || line[0] == '#')
                continue;
            const auto *equals = static_cast<const unsigned char *>(memchr(line, '=', length));
            const size_t name_length = equals != nullptr ? static_cast<size_t>(equals - line) : 0;
            if (equals == nullptr || !valid_name(line, name_length) || length - name_length - 1 < MIN_SECRET) {
                fprintf(stderr, _("Scrub file %s, line %d: expected name=value, the name of letters, digits, "
                                  "'_', '.' or '-', the value at least %d bytes\n"),
                        path.c_str(), line_number, static_cast<int>(MIN_SECRET));
                return Result::refused;
            }
            state->add_secret(line, name_length, Bytes(equals + 1, line + length), &patterns, &owner);
        }
        if (patterns.empty()) {
            fprintf(stderr, _("Scrub file %s holds no secrets\n"), path.c_str());
            return Result::refused;
        }
        state->build(patterns, owner);
        if (lock_failed) {
            fprintf(stderr, _("Unable to lock the scrub secrets in memory: %s\n"), strerror(lock_error));
            return Result::refused;
        }
        state_ = std::move(state);
        return Result::ok;
    });
    if (result == Result::no_memory)
        fputs(_("No Memory\n"), stderr);
    return result;
}

bool Scrubber::active() const { return state_ != nullptr; }

void Scrubber::reset()
{
    if (state_)
        state_->carry.clear();
}

void Scrubber::feed(const unsigned char *data, size_t length, bool final, std::vector<unsigned char> *out)
{
    State &m = *state_;
    Bytes &buffer = m.carry;
    buffer.insert(buffer.end(), data, data + length);
    // The carried tail is scanned again: a secret may start in it.
    m.matches.clear();
    uint32_t state = 0;
    const unsigned char *bytes = buffer.data();
    for (size_t i = 0; i < buffer.size(); ++i) {
        state = m.next[state * m.classes + m.byte_class[bytes[i]]];
        if (m.ends[state] != 0)
            m.matches.push_back({i + 1 - m.ends[state], m.ends[state], m.pattern_of[state]});
    }
    // Leftmost first, the longest at each start, none overlapping.
    std::sort(m.matches.begin(), m.matches.end(), [](const Match &a, const Match &b) {
        return a.start != b.start ? a.start < b.start : a.length > b.length;
    });
    // Bytes from here on may begin a secret whose end has not come yet.
    const size_t safe = final ? buffer.size() : buffer.size() - std::min(buffer.size(), m.longest - 1);
    size_t at = 0;
    for (const Match &match : m.matches) {
        if (match.start < at)
            continue;
        if (match.start >= safe)
            break;
        out->insert(out->end(), bytes + at, bytes + match.start);
        const unsigned char *replacement = m.texts.data() + m.replacement[2 * match.pattern];
        out->insert(out->end(), replacement, replacement + m.replacement[2 * match.pattern + 1]);
        at = match.start + match.length;
    }
    const size_t kept = std::max(at, safe);
    out->insert(out->end(), bytes + at, bytes + kept);
    buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(kept));
}

std::string Scrubber::text(const std::string &raw)
{
    if (!state_)
        return raw;
    // The stream's carried tail is set aside: names are scrubbed between
    // pieces of data.
    Bytes saved;
    saved.swap(state_->carry);
    std::vector<unsigned char> out;
    feed(reinterpret_cast<const unsigned char *>(raw.data()), raw.size(), true, &out);
    state_->carry.swap(saved);
    return std::string(out.begin(), out.end());
}
