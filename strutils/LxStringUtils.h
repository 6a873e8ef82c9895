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
/// @param pieces  is added to, never emptied; must not hold `text`
void Split(const std::string& text, char delimiter, std::vector<std::string>& pieces);

/// Removes blank, \\t, \\n, \\v, \\f and \\r at both ends of `text`, in place; a text of these alone becomes empty.
void Trim(std::string& text);

/// Tells whether the first bytes of `text` are those of `prefix`; an empty prefix always fits.
bool StartsWith(const std::string& text, const std::string& prefix);

/// Tells whether the whole of `text` matches `pattern`: `*` stands for any run of bytes, the empty one included, `?`
/// for exactly one byte, every other byte for itself; case counts. The time is at most proportional to the product of
/// the two lengths.
bool WildcardedStringMatch(const std::string& text, const std::string& pattern);

}  // namespace LxStringUtils

#endif  // ORV_LX_STRING_UTILS_H
