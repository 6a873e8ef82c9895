#include "utf8.h"

namespace orv_safe {
namespace internal {

namespace {

// The bytes that may follow the first byte of a character in UTF-8: how many, and the limits of the first of them,
// which exclude overlong forms, surrogates and numbers above U+10FFFF.
struct Tail {
    std::size_t bytes;
    unsigned char least;
    unsigned char most;
};

// `bytes` is 0 for a byte that begins no character of several bytes.
Tail TailOf(unsigned char first)
{
    if (first < 0xC2 || first > 0xF4) {
        return Tail();
    }
    if (first < 0xE0) {
        return Tail{1, 0x80, 0xBF};
    }
    const unsigned char least = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
    const unsigned char most = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
    return Tail{first < 0xF0 ? 2U : 3U, least, most};
}

}  // namespace

std::size_t EndOfCharacter(const std::string& text, std::size_t at, bool& isWhole)
{
    const Tail tail = TailOf(static_cast<unsigned char>(text[at]));
    unsigned char least = tail.least;
    unsigned char most = tail.most;
    std::size_t end = at + 1;
    // The NUL at the end of the text continues no character.
    while (end <= at + tail.bytes && static_cast<unsigned char>(text[end]) >= least &&
           static_cast<unsigned char>(text[end]) <= most) {
        ++end;
        least = 0x80;
        most = 0xBF;
    }
    isWhole = tail.bytes != 0 && end == at + tail.bytes + 1;
    return end;
}

}  // namespace internal
}  // namespace orv_safe
