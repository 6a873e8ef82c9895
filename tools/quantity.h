// Reads quantities such as "12h" and "10M".
#ifndef ORV_TOOLS_QUANTITY_H
#define ORV_TOOLS_QUANTITY_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>

// Units by their letter. NUL is the unit of a number without a letter.
typedef std::map<char, std::int64_t> Units;

extern const Units kCounts;   // no letter
extern const Units kSizes;    // bytes; K, M, G and T are powers of 1024
extern const Units kSeconds;  // s, m, h, d and w; one is needed

// The value of digits and a unit; nothing if the text is not that, or the value is too large.
std::optional<std::int64_t> ParseQuantity(const std::string& text, const Units& units);

#endif  // ORV_TOOLS_QUANTITY_H
