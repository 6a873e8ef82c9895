#include "quantity.h"

#include <algorithm>
#include <charconv>
#include <initializer_list>
#include <system_error>

namespace {

struct Unit {
    char letter;  // NUL for a number without a letter
    std::int64_t value;
};

Quantity Parse(const std::string& text, std::initializer_list<Unit> units)
{
    const char* const end = text.data() + text.size();
    std::int64_t number = 0;
    const std::from_chars_result read = std::from_chars(text.data(), end, number);
    const bool isWhole = end - read.ptr <= 1;
    const char letter = *read.ptr;  // the NUL at the end of the text, if there is no letter
    const Unit* const unit =
        std::find_if(units.begin(), units.end(), [letter](const Unit& one) { return one.letter == letter; });
    std::int64_t value = 0;
    if (read.ec != std::errc() || !isWhole || number < 0 || unit == units.end() ||
        __builtin_mul_overflow(number, unit->value, &value)) {
        return std::nullopt;
    }
    return value;
}

}  // namespace

Quantity ParseCount(const std::string& text)
{
    return Parse(text, {{'\0', 1}});
}

Quantity ParseSize(const std::string& text)
{
    return Parse(text, {{'\0', 1}, {'K', 1LL << 10}, {'M', 1LL << 20}, {'G', 1LL << 30}, {'T', 1LL << 40}});
}

Quantity ParseSeconds(const std::string& text)
{
    return Parse(text, {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}, {'w', 604800}});
}
