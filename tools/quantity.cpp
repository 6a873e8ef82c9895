#include "quantity.h"

#include <charconv>
#include <system_error>

const Units kCounts = {{'\0', 1}};
const Units kSizes = {{'\0', 1}, {'K', 1LL << 10}, {'M', 1LL << 20}, {'G', 1LL << 30}, {'T', 1LL << 40}};
const Units kSeconds = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}, {'w', 604800}};

std::optional<std::int64_t> ParseQuantity(const std::string& text, const Units& units)
{
    const char* const end = text.data() + text.size();
    std::int64_t number = 0;
    const std::from_chars_result read = std::from_chars(text.data(), end, number);
    const bool isWhole = end - read.ptr <= 1;
    const auto unit = units.find(*read.ptr);  // the NUL at the end of the text, if there is no letter
    std::int64_t value = 0;
    if (read.ec != std::errc() || !isWhole || number < 0 || unit == units.end() ||
        __builtin_mul_overflow(number, unit->second, &value)) {
        return std::nullopt;
    }
    return value;
}
