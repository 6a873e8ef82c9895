// Patterns of log lines. A word of two or more capitals is a placeholder, such as SOURCE in "stat(SOURCE) failed".
#ifndef ORV_TOOLS_LINE_PATTERN_H
#define ORV_TOOLS_LINE_PATTERN_H

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace explain {

typedef std::map<std::string, std::string> Values;  // by placeholder

// Matches the whole text. A placeholder with the name of a number or a word (see the source) matches only that; each
// other one is a path and matches any bytes. A path may look like the rest of a line, so the text is read from both
// ends: only what separates two paths can be in doubt. Returns one element for each way to separate them, none if the
// text does not match.
std::vector<Values> Match(const std::string& pattern, const std::string& text);

// Whether a placeholder of this name is a path.
bool IsPath(const std::string& placeholder);

// Whether all bytes of the text are of a class of <cctype>.
bool IsAll(const std::string& text, int (*isClass)(int));

// Returns the text with `replacement` of each placeholder.
std::string ReplacePlaceholders(const std::string& text,
                                const std::function<std::string(const std::string& placeholder)>& replacement);

}  // namespace explain

#endif  // ORV_TOOLS_LINE_PATTERN_H
