// The four string operations of libOrvStrUtils.

#include "LxStringUtils.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace LxStringUtils {

namespace {

bool IsWhiteSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');  // \t \n \v \f \r
}

// True when a byte of a pattern, which is not a star, matches a byte of a text.
bool Matches(char wildcard, char byte)
{
    return wildcard == '?' || wildcard == byte;
}

// True when the `bytes` bytes of `segment`, a part of a pattern without stars, match as many bytes of `text`.
bool MatchesAll(const char* segment, std::size_t bytes, const char* text)
{
    for (std::size_t i = 0; i < bytes; ++i) {
        if (!Matches(segment[i], text[i])) {
            return false;
        }
    }
    return true;
}

// Returns the first place between `text` and `end` that the segment matches, or null. memchr looks for the segment's
// first plain byte; a long segment of plain bytes is left to memmem, whose time is linear.
const char* FindSegment(const char* segment, std::size_t bytes, const char* text, const char* end)
{
    const std::size_t kLongBytes = 16;  // below that, memmem's preparation costs more than it saves

    const std::size_t length = static_cast<std::size_t>(end - text);
    if (bytes >= kLongBytes && std::memchr(segment, '?', bytes) == nullptr) {
        return static_cast<const char*>(memmem(text, length, segment, bytes));
    }
    if (length < bytes) {
        return nullptr;
    }
    std::size_t plain = 0;
    while (plain != bytes && segment[plain] == '?') {
        ++plain;
    }
    if (plain == bytes) {
        return text;
    }
    const char* const lastPlace = end - bytes;
    for (const char* place = text; place <= lastPlace; ++place) {
        const void* const found =
            std::memchr(place + plain, segment[plain], static_cast<std::size_t>(lastPlace - place) + 1);
        if (found == nullptr) {
            return nullptr;
        }
        place = static_cast<const char*>(found) - plain;
        if (MatchesAll(segment, bytes, place)) {
            return place;
        }
    }
    return nullptr;
}

// Returns the number of delimiters. memchr, because std::count looks at one byte at a time.
std::size_t Count(const char* at, const char* end, char delimiter)
{
    std::size_t count = 0;
    while (const void* const found = std::memchr(at, delimiter, static_cast<std::size_t>(end - at))) {
        at = static_cast<const char*>(found) + 1;
        ++count;
    }
    return count;
}

}  // namespace

void Split(const std::string& text, char delimiter, std::vector<std::string>& pieces)
{
    const char* const begin = text.data();
    const char* const end = begin + text.size();
    if (pieces.capacity() == 0) {  // so that a new vector does not grow step by step
        const std::size_t count = Count(begin, end, delimiter) + 1;
        pieces.reserve(std::min(count, pieces.max_size()));  // more would throw length_error instead of bad_alloc
    }
    const char* start = begin;
    while (const void* const found = std::memchr(start, delimiter, static_cast<std::size_t>(end - start))) {
        const char* const pieceEnd = static_cast<const char*>(found);
        pieces.emplace_back(start, pieceEnd);
        start = pieceEnd + 1;
    }
    if (start != end || start == begin) {  // start == begin: no delimiter was found, so even an empty text is a piece
        pieces.emplace_back(start, end);
    }
}

void Trim(std::string& text)
{
    const char* const begin = text.data();
    const char* end = begin + text.size();
    while (end != begin && IsWhiteSpace(end[-1])) {
        --end;
    }
    const char* start = begin;
    while (start != end && IsWhiteSpace(*start)) {
        ++start;
    }
    const std::size_t leading = static_cast<std::size_t>(start - begin);
    text.resize(static_cast<std::size_t>(end - begin));
    if (leading != 0) {
        text.erase(0, leading);
    }
}

bool StartsWith(const std::string& text, const std::string& prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool WildcardedStringMatch(const std::string& text, const std::string& pattern)
{
    const char* at = text.data();
    const char* end = at + text.size();
    const char* segment = pattern.data();
    const char* patternEnd = segment + pattern.size();

    // The parts before the first star and after the last one can match in one place only.
    for (; segment != patternEnd && *segment != '*'; ++segment, ++at) {
        if (at == end || !Matches(*segment, *at)) {
            return false;
        }
    }
    if (segment == patternEnd) {
        return at == end;
    }
    for (; patternEnd[-1] != '*'; --patternEnd, --end) {
        if (at == end || !Matches(patternEnd[-1], end[-1])) {
            return false;
        }
    }
    // Place each segment at its leftmost match; that leaves the most text for the rest, so no backtracking is needed.
    while (++segment < patternEnd) {
        const char* star = segment;
        while (*star != '*') {
            ++star;
        }
        const std::size_t bytes = static_cast<std::size_t>(star - segment);
        at = FindSegment(segment, bytes, at, end);
        if (at == nullptr) {
            return false;
        }
        at += bytes;
        segment = star;
    }
    return true;
}

}  // namespace LxStringUtils
