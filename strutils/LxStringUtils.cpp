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

// Whether a byte of a pattern, not a star, takes this byte of a text.
bool Takes(char wildcard, char byte)
{
    return wildcard == '?' || wildcard == byte;
}

// Whether the `bytes` bytes of `segment`, a part of a pattern without stars, take as many bytes of `text`.
bool TakesAll(const char* segment, std::size_t bytes, const char* text)
{
    for (std::size_t i = 0; i < bytes; ++i) {
        if (!Takes(segment[i], text[i])) {
            return false;
        }
    }
    return true;
}

// The first place between `text` and `end` that the segment takes, or null. The segment's first plain byte tells where
// to look; a long segment of plain bytes is left to memmem, whose time is linear.
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
        if (TakesAll(segment, bytes, place)) {
            return place;
        }
    }
    return nullptr;
}

}  // namespace

void Split(const std::string& text, char delimiter, std::vector<std::string>& pieces)
{
    if (pieces.capacity() == 0) {  // a new vector need not grow step by step
        const std::size_t count = static_cast<std::size_t>(std::count(text.begin(), text.end(), delimiter)) + 1;
        pieces.reserve(std::min(count, pieces.max_size()));  // more is memory exhaustion, no error of length
    }
    const char* const begin = text.data();
    const char* const end = begin + text.size();
    const char* start = begin;
    while (const void* const found = std::memchr(start, delimiter, static_cast<std::size_t>(end - start))) {
        const char* const pieceEnd = static_cast<const char*>(found);
        pieces.emplace_back(start, pieceEnd);
        start = pieceEnd + 1;
    }
    if (start != end || start == begin) {  // at the begin: no delimiter, so even an empty text is a piece
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

    // What stands before the first star and behind the last one has one place only.
    for (; segment != patternEnd && *segment != '*'; ++segment, ++at) {
        if (at == end || !Takes(*segment, *at)) {
            return false;
        }
    }
    if (segment == patternEnd) {
        return at == end;
    }
    for (; patternEnd[-1] != '*'; --patternEnd, --end) {
        if (at == end || !Takes(patternEnd[-1], end[-1])) {
            return false;
        }
    }
    // Each segment between stars belongs at the first place that it takes: that leaves the others the most room. So no
    // star is tried twice.
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
