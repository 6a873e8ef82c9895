// Characters in UTF-8.
#ifndef ORV_SAFE_UTF8_H
#define ORV_SAFE_UTF8_H

#include <cstddef>
#include <string>

namespace orv_safe {
namespace internal {

// The end of the character of several bytes that begins at `at`. If there is none, `isWhole` becomes false, and the end
// is that of the bytes that could begin one: at least of one byte.
std::size_t EndOfCharacter(const std::string& text, std::size_t at, bool& isWhole);

}  // namespace internal
}  // namespace orv_safe

#endif  // ORV_SAFE_UTF8_H
