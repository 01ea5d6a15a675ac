#include "scrub.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <unordered_set>

#include "console.h"
#include "descriptor.h"
#include "secret_matcher.h"

namespace {

// Shorter values would match ordinary text.
constexpr size_t MIN_SECRET = 4;
constexpr size_t MAX_SECRET = 4096;
constexpr size_t MAX_SECRETS = 10000;
constexpr size_t MAX_SCRUB_FILE = 64 << 20;
// A run of touching secrets is replaced in pieces of this size at most, so
// that what is held back stays bounded.
constexpr uint64_t MAX_SPAN = 64 << 10;
constexpr uint32_t NONE = SecretMatcher::NONE;

bool ascii_alnum(unsigned char byte)
{
    return (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
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

bool blank(unsigned char byte) { return byte == ' ' || byte == '\t'; }

bool refuse_file(const std::string &path, const char *why)
{
    fprintf(stderr, _("Refusing scrub file %s: %s\n"), path.c_str(), why);
    return false;
}

// The file's bytes, or a message and false: a regular file of root's or
// the caller's that only its owner may read, never through a link, and
// never waiting on a FIFO.
bool read_scrub_file(const std::string &path, Bytes *text)
{
    Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW | O_NONBLOCK));
    struct stat status;
    if (fd.get() == -1 && errno == ELOOP)
        return refuse_file(path, _("it is a symbolic link"));
    if (fd.get() == -1 || fstat(fd.get(), &status) != 0) {
        fprintf(stderr, _("Unable to open scrub file %s: %s\n"), path.c_str(), strerror(errno));
        return false;
    }
    if (!S_ISREG(status.st_mode) || (status.st_mode & 077) != 0)
        return refuse_file(path, _("it must be a regular file readable only by its owner"));
    if (status.st_uid != 0 && status.st_uid != getuid() && status.st_uid != geteuid())
        return refuse_file(path, _("it belongs to neither root nor the caller"));
    if (static_cast<size_t>(status.st_size) > MAX_SCRUB_FILE)
        return refuse_file(path, _("it is larger than 64 MiB"));
    text->assign(static_cast<size_t>(status.st_size) + 1, 0);
    const ssize_t got = read(fd.get(), text->data(), text->size() - 1);
    if (got < 0) {
        fprintf(stderr, _("Unable to open scrub file %s: %s\n"), path.c_str(), strerror(errno));
        return false;
    }
    text->resize(static_cast<size_t>(got));
    return true;
}

// What is wrong with a name=value line (its CR already dropped), or null.
const char *line_fault(const unsigned char *line, size_t length, size_t name_length, bool has_equals,
                       const std::unordered_set<std::string> &names)
{
    const unsigned char *value = line + name_length + 1;
    const size_t value_length = has_equals ? length - name_length - 1 : 0;
    if (!has_equals || !valid_name(line, name_length))
        return _("expected name=value, the name of letters, digits, '_', '.' or '-'");
    if (value_length == 0)
        return _("the value is empty");
    if (blank(value[0]) || blank(value[value_length - 1]))
        return _("the value begins or ends with a blank");
    if (value_length < MIN_SECRET || value_length > MAX_SECRET)
        return _("the value must be 4 to 4096 bytes");
    if (names.count(std::string(line, line + name_length)) != 0)
        return _("the name is used twice");
    if (names.size() >= MAX_SECRETS)
        return _("more than 10000 secrets");
    return nullptr;
}

}  // namespace

Scrubber::Scrubber() = default;
Scrubber::~Scrubber() = default;

size_t Scrubber::memory() const { return locked_memory(); }

Result Scrubber::load(const std::string &path)
{
    Result result = guarded([&] {
        Bytes text;
        if (!read_scrub_file(path, &text))
            return Result::refused;
        auto automaton = std::make_unique<SecretMatcher>();
        SecretMatcher &a = *automaton;
        std::unordered_set<std::string> names;
        int line_number = 0;
        for (size_t at = 0; at < text.size();) {
            const size_t end = std::find(text.begin() + at, text.end(), '\n') - text.begin();
            ++line_number;
            const unsigned char *line = text.data() + at;
            size_t length = end - at;
            at = end + 1;
            if (length > 0 && line[length - 1] == '\r')
                --length;
            if (length == 0 || line[0] == '#')
                continue;
            const auto *equals = static_cast<const unsigned char *>(memchr(line, '=', length));
            const size_t name_length = equals != nullptr ? static_cast<size_t>(equals - line) : length;
            if (const char *fault = line_fault(line, length, name_length, equals != nullptr, names)) {
                fprintf(stderr, _("Scrub file %s, line %d: %s\n"), path.c_str(), line_number, fault);
                return Result::refused;
            }
            names.emplace(line, line + name_length);
            a.add_secret(line, name_length, equals + 1, static_cast<size_t>(line + length - equals - 1));
        }
        if (a.empty()) {
            fprintf(stderr, _("Scrub file %s holds no secrets\n"), path.c_str());
            return Result::refused;
        }
        a.build();
        if (locked_error() != 0) {
            fprintf(stderr, _("Unable to lock the scrub secrets in memory: %s\n"), strerror(locked_error()));
            return Result::refused;
        }
        automaton_ = std::move(automaton);
        return Result::ok;
    });
    if (result == Result::no_memory)
        fputs(_("No Memory\n"), stderr);
    return result;
}

// ---------------------------------------------------------------------------
// Streams
// ---------------------------------------------------------------------------

namespace {

// Raw bytes [start, end) of the stream to replace, named for a secret.
struct Span {
    uint64_t start, end;
    uint32_t secret;
};

}  // namespace

// The stream is read twice at once: as it stands, and as a decoded view in
// which every %XX is its byte. The decoded view runs only near a '%': once
// the last escape is further back than the longest pattern, both views end
// alike and so share the raw view's state.
struct Scrubber::Stream::State {
    explicit State(const SecretMatcher &a) : automaton(a) {}
    const SecretMatcher &automaton;
    Bytes pending;                     // raw bytes from base on, not yet sent
    uint64_t base = 0, position = 0;   // stream offsets
    uint32_t raw = 0;
    bool decoding = false;
    uint32_t decoded = 0;
    uint32_t plain_left = 0;           // plain bytes until the views agree again
    int escape = 0;                    // bytes of a "%X" seen so far
    uint64_t escape_at = 0;
    int escape_high = 0;
    std::vector<uint64_t> starts;      // raw start of recent decoded bytes, a ring
    uint64_t decoded_count = 0;
    std::vector<Span> spans;           // sorted, neither overlapping nor touching

    void add_span(uint64_t start, uint64_t end, uint32_t secret);
    void emit_decoded(unsigned char byte, uint64_t start, uint64_t end, bool escaped);
    void decode(unsigned char byte, uint64_t at);
    void end_escape();
    void start_decoding(uint64_t at);
    uint64_t safe() const;
    void send(bool final, std::vector<unsigned char> *out);
};

void Scrubber::Stream::State::add_span(uint64_t start, uint64_t end, uint32_t secret)
{
    size_t after = spans.size();
    while (after > 0 && spans[after - 1].start > end)
        --after;
    size_t first = after;
    while (first > 0 && spans[first - 1].end >= start)
        --first;
    Span merged = {start, end, secret};
    for (size_t i = first; i < after; ++i) {
        const Span &s = spans[i];
        if (s.start < merged.start || (s.start == merged.start && s.secret < merged.secret))
            merged.secret = s.secret;
        merged.start = std::min(merged.start, s.start);
        merged.end = std::max(merged.end, s.end);
    }
    spans.erase(spans.begin() + static_cast<std::ptrdiff_t>(first), spans.begin() + static_cast<std::ptrdiff_t>(after));
    spans.insert(spans.begin() + static_cast<std::ptrdiff_t>(first), merged);
}

void Scrubber::Stream::State::emit_decoded(unsigned char byte, uint64_t start, uint64_t end, bool escaped)
{
    const SecretMatcher &a = automaton;
    decoded = a.step(decoded, byte);
    starts[decoded_count++ % starts.size()] = start;
    const uint32_t m = a.match[decoded];
    if (m != NONE)
        add_span(starts[(decoded_count - a.depth[m]) % starts.size()], end, a.owner[m]);
    if (escaped)
        plain_left = a.longest;
    else if (plain_left > 0)
        --plain_left;
}

void Scrubber::Stream::State::decode(unsigned char byte, uint64_t at)
{
    const int value = hex_value(byte);
    if (escape == 0 && byte == '%') {
        escape = 1, escape_at = at;
    } else if (escape == 0) {
        emit_decoded(byte, at, at + 1, false);
    } else if (value >= 0 && escape == 1) {
        escape = 2, escape_high = value;
    } else if (value >= 0) {
        escape = 0;
        emit_decoded(static_cast<unsigned char>(escape_high << 4 | value), escape_at, at + 1, true);
    } else {
        end_escape();
        decode(byte, at);
    }
}

// A "%" or "%X" that turned out to be no escape: its bytes as they stand.
void Scrubber::Stream::State::end_escape()
{
    const int seen = escape;
    escape = 0;
    if (seen >= 1)
        emit_decoded('%', escape_at, escape_at + 1, false);
    if (seen == 2)
        emit_decoded(pending[escape_at + 1 - base], escape_at + 1, escape_at + 2, false);
}

void Scrubber::Stream::State::start_decoding(uint64_t at)
{
    // The views agree up to here: the decoded one starts from the raw state,
    // its recent bytes the raw ones.
    decoding = true;
    decoded = raw;
    plain_left = automaton.longest;
    if (starts.empty())
        starts.assign(automaton.longest, 0);
    const uint64_t known = std::min<uint64_t>(automaton.longest, at);
    decoded_count = known;
    for (uint64_t i = 0; i < known; ++i)
        starts[i % starts.size()] = at - known + i;
}

// Where the earliest match still to come may begin: before it every byte
// is settled.
uint64_t Scrubber::Stream::State::safe() const
{
    uint64_t safe = position - automaton.depth[raw];
    if (decoding) {
        uint64_t from = escape != 0 ? escape_at : position;
        const uint32_t depth = automaton.depth[decoded];
        if (depth > 0)
            from = std::min(from, starts[(decoded_count - depth) % starts.size()]);
        safe = std::min(safe, from);
    }
    return safe;
}

void Scrubber::Stream::State::send(bool final, std::vector<unsigned char> *out)
{
    const uint64_t settled = final ? position : safe();
    uint64_t at = base;
    size_t closed = 0;
    for (; closed < spans.size(); ++closed) {
        const Span &s = spans[closed];
        // A span that ends where a match may still begin could grow.
        if (!final && s.end >= settled && !(s.end == settled && s.end - s.start >= MAX_SPAN))
            break;
        out->insert(out->end(), pending.begin() + static_cast<std::ptrdiff_t>(at - base),
                    pending.begin() + static_cast<std::ptrdiff_t>(s.start - base));
        const unsigned char *text = automaton.replacement_text(s.secret);
        out->insert(out->end(), text, text + automaton.replacement_size(s.secret));
        at = s.end;
    }
    spans.erase(spans.begin(), spans.begin() + static_cast<std::ptrdiff_t>(closed));
    const uint64_t until = spans.empty() ? settled : std::min(settled, spans.front().start);
    if (until > at) {
        out->insert(out->end(), pending.begin() + static_cast<std::ptrdiff_t>(at - base),
                    pending.begin() + static_cast<std::ptrdiff_t>(until - base));
        at = until;
    }
    pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(at - base));
    base = at;
}

Scrubber::Stream::Stream(const Scrubber &scrubber) : scrubber_(scrubber) {}
Scrubber::Stream::~Stream() = default;

void Scrubber::Stream::reset() { state_.reset(); }

void Scrubber::Stream::feed(const unsigned char *data, size_t length, bool final, std::vector<unsigned char> *out)
{
    if (!state_)
        state_ = std::make_unique<State>(*scrubber_.automaton_);
    State &s = *state_;
    const SecretMatcher &a = s.automaton;
    s.pending.insert(s.pending.end(), data, data + length);
    // The hot loop: the raw view's state in a register, the tables at hand.
    const uint32_t *root = a.root, *child = a.child.data(), *sibling = a.sibling.data(), *fail = a.fail.data();
    const uint32_t *match = a.match.data(), *depth = a.depth.data(), *second = a.second.data();
    const unsigned char *label = a.label.data();
    uint32_t state = s.raw;
    bool decoding = s.decoding;
    for (size_t i = 0; i < length; ++i) {
        const unsigned char byte = data[i];
        if (byte == '%' || decoding) {
            if (!decoding)
                s.raw = state, s.start_decoding(s.position + i);
            s.decode(byte, s.position + i);
            decoding = s.decoding = s.escape != 0 || s.plain_left > 0;
        }
        for (;;) {
            if (state == 0) {
                state = root[byte];
                break;
            }
            if (depth[state] == 1) {
                state = second[label[state] << 8 | byte];
                break;
            }
            uint32_t c = child[state];
            while (c != NONE && label[c] != byte)
                c = sibling[c];
            if (c != NONE) {
                state = c;
                break;
            }
            state = fail[state];
        }
        const uint32_t m = match[state];
        if (m != NONE)
            s.add_span(s.position + i + 1 - a.depth[m], s.position + i + 1, a.owner[m]);
    }
    s.raw = state;
    s.position += length;
    if (final)
        s.end_escape();
    s.send(final, out);
    if (final)
        state_.reset();
}

std::string Scrubber::text(const std::string &raw) const
{
    if (!active())
        return raw;
    Stream whole(*this);
    std::vector<unsigned char> out;
    whole.feed(reinterpret_cast<const unsigned char *>(raw.data()), raw.size(), true, &out);
    return std::string(out.begin(), out.end());
}
