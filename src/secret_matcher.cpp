#include "secret_matcher.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include <openssl/crypto.h>

namespace {

// Base64 shorter than this would match ordinary text.
constexpr size_t MIN_BASE64 = 8;

size_t locked_bytes;
int first_lock_error;

size_t pages(size_t bytes)
{
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return (bytes + page - 1) / page * page;
}

}  // namespace

void *locked_allocate(size_t bytes)
{
    void *memory = mmap(nullptr, pages(bytes), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::bad_alloc();
    if (mlock(memory, pages(bytes)) != 0 && first_lock_error == 0)
        first_lock_error = errno;
    madvise(memory, pages(bytes), MADV_DONTDUMP);
    locked_bytes += pages(bytes);
    return memory;
}

void locked_free(void *memory, size_t bytes)
{
    OPENSSL_cleanse(memory, pages(bytes));
    munlock(memory, pages(bytes));
    munmap(memory, pages(bytes));
    locked_bytes -= pages(bytes);
}

size_t locked_memory() { return locked_bytes; }
int locked_error() { return first_lock_error; }

void SecretMatcher::close_form(uint32_t secret)
{
    const size_t from = pattern_end_.empty() ? 0 : pattern_end_.back(), length = forms_.size() - from;
    for (size_t p = first_of_secret_; p < pattern_end_.size(); ++p) {
        const size_t start = p == 0 ? 0 : pattern_end_[p - 1];
        if (pattern_end_[p] - start == length && std::equal(forms_.begin() + from, forms_.end(), forms_.begin() + start)) {
            forms_.resize(from);
            return;
        }
    }
    pattern_end_.push_back(forms_.size());
    pattern_secret_.push_back(secret);
}

// The value with its %XX escapes decoded, as the decoded view sees it.
void SecretMatcher::add_decoded(const unsigned char *value, size_t length, uint32_t secret)
{
    for (size_t i = 0; i < length; ++i) {
        if (value[i] == '%' && i + 2 < length && hex_value(value[i + 1]) >= 0 && hex_value(value[i + 2]) >= 0) {
            forms_.push_back(static_cast<unsigned char>(hex_value(value[i + 1]) << 4 | hex_value(value[i + 2])));
            i += 2;
        } else {
            forms_.push_back(value[i]);
        }
    }
    close_form(secret);
}

// At each alignment, the base64 characters that the value alone decides.
void SecretMatcher::add_base64(const unsigned char *value, size_t length, uint32_t secret)
{
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (size_t align = 0; align < 3; ++align) {
        const size_t first_bit = 8 * align, last_bit = 8 * (align + length), from = forms_.size();
        for (size_t bit = (first_bit + 5) / 6 * 6; bit + 6 <= last_bit; bit += 6) {
            unsigned sextet = 0;
            for (size_t b = bit; b < bit + 6; ++b)
                sextet = sextet << 1 | ((value[b / 8 - align] >> (7 - b % 8)) & 1);
            forms_.push_back(static_cast<unsigned char>(alphabet[sextet]));
        }
        if (forms_.size() - from >= MIN_BASE64)
            close_form(secret);
        else
            forms_.resize(from);
    }
}

void SecretMatcher::add_secret(const unsigned char *name, size_t name_length, const unsigned char *value,
                               size_t value_length)
{
    static const char head[] = "[REDACTED:";
    const uint32_t secret = static_cast<uint32_t>(replacement.size() / 2);
    replacement.push_back(static_cast<uint32_t>(texts.size()));
    replacement.push_back(static_cast<uint32_t>(sizeof head - 1 + name_length + 1));
    texts.insert(texts.end(), head, head + sizeof head - 1);
    texts.insert(texts.end(), name, name + name_length);
    texts.push_back(']');
    // Room for every form of this value (itself, decoded, three base64) at once.
    const size_t needed = forms_.size() + 6 * value_length + 16;
    if (forms_.capacity() < needed)
        forms_.reserve(std::max(needed, 2 * forms_.capacity()));
    first_of_secret_ = pattern_end_.size();
    forms_.insert(forms_.end(), value, value + value_length);
    close_form(secret);
    add_decoded(value, value_length, secret);
    add_base64(value, value_length, secret);
}

uint32_t SecretMatcher::add_state(uint32_t parent, unsigned char byte)
{
    const uint32_t state = static_cast<uint32_t>(label.size());
    label.push_back(byte);
    child.push_back(NONE);
    sibling.push_back(parent == 0 ? NONE : child[parent]);
    fail.push_back(0);
    depth.push_back(depth[parent] + 1);
    match.push_back(NONE);
    owner.push_back(NONE);
    if (parent == 0)
        root[byte] = state;
    else
        child[parent] = state;
    return state;
}

void SecretMatcher::add_pattern(const unsigned char *pattern, size_t length, uint32_t secret)
{
    uint32_t state = 0;
    for (const unsigned char *at = pattern; at < pattern + length; ++at) {
        uint32_t next = NONE;
        if (state == 0)
            next = root[*at];
        else
            for (uint32_t c = child[state]; c != NONE && next == NONE; c = sibling[c])
                next = label[c] == *at ? c : NONE;
        state = next != NONE ? next : add_state(state, *at);
    }
    if (owner[state] == NONE) {  // the same bytes from a later secret keep the first name
        owner[state] = secret;
        match[state] = state;
    }
    longest = std::max(longest, static_cast<uint32_t>(length));
}

void SecretMatcher::build()
{
    // At most one state per form byte: room for all at once, no regrowth.
    const size_t states = 1 + forms_.size();
    for (auto *column : {&child, &sibling, &fail, &depth, &match, &owner})
        column->reserve(states);
    label.reserve(states);
    std::fill(std::begin(root), std::end(root), NONE);
    label.push_back(0), child.push_back(NONE), sibling.push_back(NONE), fail.push_back(0);
    depth.push_back(0), match.push_back(NONE), owner.push_back(NONE);
    for (size_t p = 0; p < pattern_end_.size(); ++p) {
        const size_t start = p == 0 ? 0 : pattern_end_[p - 1];
        add_pattern(forms_.data() + start, pattern_end_[p] - start, pattern_secret_[p]);
    }
    Bytes().swap(forms_);
    link();
}

// Failure links breadth first: a state's suffix is shallower, so its own
// links are ready when it is reached.
void SecretMatcher::link()
{
    LockedVector<uint32_t> queue;
    queue.reserve(label.size());
    for (uint32_t &next : root) {
        if (next == NONE)
            next = 0;
        else
            queue.push_back(next);
    }
    for (size_t head = 0; head < queue.size(); ++head) {
        const uint32_t state = queue[head];
        if (match[state] == NONE)
            match[state] = match[fail[state]];
        for (uint32_t c = child[state]; c != NONE; c = sibling[c]) {
            fail[c] = step(fail[state], label[c]);
            queue.push_back(c);
        }
    }
    second.assign(256 * 256, 0);
    for (unsigned first = 0; first < 256; ++first)
        if (root[first] != 0)
            for (unsigned next = 0; next < 256; ++next)
                second[first << 8 | next] = step(root[first], static_cast<unsigned char>(next));
}
