/// @file
/// Four operations on byte strings. Character sets and locales play no part. The operations keep no state, so they may
/// run at the same time on any threads. They throw only when memory runs out.
#ifndef ORV_LX_STRING_UTILS_H
#define ORV_LX_STRING_UTILS_H

#include <string>
#include <vector>

// Exported also where -fvisibility=hidden is the default.
#pragma GCC visibility push(default)
namespace LxStringUtils {

/// Splits `text` at each `delimiter` and appends the pieces to `pieces`, in order, empty pieces included.
///
/// A delimiter ends a piece. The text after the last delimiter is a piece, too, unless it is empty.
/// A text without a delimiter is one piece, even when it is empty.
/// With ';': "" becomes [""], "a;" becomes ["a"], ";" becomes [""], "a;;b" becomes ["a", "", "b"].
///
/// @param text       text to split; any bytes
/// @param delimiter  byte that ends a piece
/// @param pieces     vector to append to; it is never cleared, and must not contain `text` itself
void Split(const std::string& text, char delimiter, std::vector<std::string>& pieces);

/// Removes white space (blank, \\t, \\n, \\v, \\f and \\r) from both ends of a text, in place. A text of white space
/// alone becomes empty.
///
/// @param text  text to trim
void Trim(std::string& text);

/// Returns whether a text begins with a prefix, byte for byte.
///
/// @param text    text to look at
/// @param prefix  bytes that `text` may begin with; every text begins with the empty prefix
/// @return true if `text` begins with `prefix`
bool StartsWith(const std::string& text, const std::string& prefix);

/// Returns whether the whole of a text matches a pattern.
///
/// In the pattern `*` matches any run of bytes, also an empty one, `?` matches exactly one byte, and every other byte
/// matches itself. Upper and lower case differ. The time is at most proportional to the product of the two lengths.
///
/// @param text     text to match, from its first byte to its last
/// @param pattern  pattern to match it with
/// @return true if the whole text matches
bool WildcardedStringMatch(const std::string& text, const std::string& pattern);

}  // namespace LxStringUtils
#pragma GCC visibility pop

#endif  // ORV_LX_STRING_UTILS_H
