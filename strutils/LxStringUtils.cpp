// The four string operations of libOrvStrUtils.

#include "LxStringUtils.h"

#include <cstddef>

namespace LxStringUtils {

void Split(const std::string& text, char delimiter, std::vector<std::string>& pieces)
{
    std::size_t start = 0;
    for (std::size_t end = text.find(delimiter); end != std::string::npos; end = text.find(delimiter, start)) {
        pieces.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    if (start < text.size() || start == 0) {  // start == 0: no delimiter, so even an empty text is a piece
        pieces.push_back(text.substr(start));
    }
}

void Trim(std::string& text)
{
    static const char kWhiteSpace[] = " \t\n\v\f\r";
    text.erase(text.find_last_not_of(kWhiteSpace) + 1);  // npos + 1 is 0: nothing but white space
    text.erase(0, text.find_first_not_of(kWhiteSpace));
}

bool StartsWith(const std::string& text, const std::string& prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool WildcardedStringMatch(const std::string& text, const std::string& pattern)
{
    // Only the last star ever needs another try: if the part of the pattern before it fits at all, giving an earlier
    // star more text cannot make the rest fit better. So the time is bounded by a product, not by a power.
    std::size_t textAt = 0;
    std::size_t patternAt = 0;
    std::size_t afterStar = std::string::npos;  // the pattern behind the last star seen
    std::size_t starEnd = 0;                    // where in the text that star's run ends for now
    while (textAt < text.size()) {
        const bool patternLeft = patternAt < pattern.size();
        if (patternLeft && pattern[patternAt] == '*') {
            afterStar = ++patternAt;
            starEnd = textAt;
        } else if (patternLeft && (pattern[patternAt] == '?' || pattern[patternAt] == text[textAt])) {
            ++patternAt;
            ++textAt;
        } else if (afterStar != std::string::npos) {
            patternAt = afterStar;
            textAt = ++starEnd;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', patternAt) == std::string::npos;
}

}  // namespace LxStringUtils
