// WildcardedStringMatch. The input is the pattern up to the first line feed, and the text.
#include "LxStringUtils.h"
#include "fuzz.h"

#include <fnmatch.h>

#include <algorithm>

namespace {

// Which beginnings of the text the pattern read so far fits, from the pattern's end: row by row of the table.
bool MatchesByModel(const std::string& text, const std::string& pattern)
{
    std::vector<bool> fits(text.size() + 1, false);  // from this position, what is left of the pattern fits
    fits.back() = true;
    for (std::size_t left = pattern.size(); left-- > 0;) {
        const char wanted = pattern[left];
        if (wanted == '*') {
            for (std::size_t at = text.size(); at-- > 0;) {
                fits[at] = fits[at] || fits[at + 1];
            }
            continue;
        }
        for (std::size_t at = 0; at < text.size(); ++at) {
            fits[at] = fits[at + 1] && (wanted == '?' || wanted == text[at]);
        }
        fits.back() = false;
    }
    return fits.front();
}

// fnmatch knows brackets, ends at NUL, and may take exponential time for many stars.
bool IsForFnmatch(const std::string& text, const std::string& pattern)
{
    return text.find('\0') == std::string::npos && pattern.find('\0') == std::string::npos &&
           pattern.find('[') == std::string::npos && std::count(pattern.begin(), pattern.end(), '*') <= 4;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::string text(data, data + size);
    const std::string pattern = TakeUpTo('\n', text);

    const bool matches = LxStringUtils::WildcardedStringMatch(text, pattern);

    Require(matches == MatchesByModel(text, pattern), "the text matches when it does in the model");
    if (IsForFnmatch(text, pattern)) {
        Require(matches == (fnmatch(pattern.c_str(), text.c_str(), FNM_NOESCAPE) == 0),
                "the text matches when it does for fnmatch");
    }
    return 0;
}
