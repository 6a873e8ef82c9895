/// @file
/// Four operations on byte strings, for which no character set and no locale counts. They keep no state: all may run
/// at once on any threads. Only memory exhaustion throws.
#ifndef ORV_LX_STRING_UTILS_H
#define ORV_LX_STRING_UTILS_H

#include <string>
#include <vector>

namespace LxStringUtils {

/// Appends the pieces of `text` between occurrences of `delimiter` to `pieces`, in order, empty ones included.
///
/// A delimiter ends a piece; what follows the last one is a piece too, unless it is empty and a delimiter came before.
/// With ';': "" gives [""], "a;" gives ["a"], ";" gives [""], "a;;b" gives ["a", "", "b"].
///
/// @param text       what is split; any bytes
/// @param delimiter  the byte that ends a piece
/// @param pieces     is added to, never emptied; must not hold `text`
void Split(const std::string& text, char delimiter, std::vector<std::string>& pieces);

/// Removes blank, \\t, \\n, \\v, \\f and \\r at both ends of a text, in place; one of these alone becomes empty.
///
/// @param text  what is trimmed
void Trim(std::string& text);

/// Tells whether a text begins with the bytes of another.
///
/// @param text    what is looked at
/// @param prefix  what it may begin with; when empty it always does
/// @return true if it does
bool StartsWith(const std::string& text, const std::string& prefix);

/// Tells whether the whole of a text matches a pattern: `*` stands for any run of bytes, the empty one included, `?`
/// for exactly one byte, every other byte for itself; case counts. The time is at most proportional to the product of
/// the two lengths.
///
/// @param text     what is matched, from its first byte to its last
/// @param pattern  what it is matched with
/// @return true if it matches
bool WildcardedStringMatch(const std::string& text, const std::string& pattern);

}  // namespace LxStringUtils

#endif  // ORV_LX_STRING_UTILS_H
