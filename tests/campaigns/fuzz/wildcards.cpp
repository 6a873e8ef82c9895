// WildcardedStringMatch. The input is the pattern up to the first line feed, and the text.
#include "LxStringUtils.h"
#include "fuzz.h"

#include <fnmatch.h>

#include <algorithm>

namespace {

// fnmatch has brackets, ends at a NUL, and may take exponential time for many stars.
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

    Require(matches == oracle::Matches(text, pattern), "the text matches when the oracle says so");
    if (IsForFnmatch(text, pattern)) {
        Require(matches == (fnmatch(pattern.c_str(), text.c_str(), FNM_NOESCAPE) == 0),
                "the text matches when fnmatch says so");
    }
    return 0;
}
