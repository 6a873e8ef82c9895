// Reads numbers, sizes and ages. Each result is empty if the text is not what the function reads, or is too large.
#ifndef ORV_TOOLS_QUANTITY_H
#define ORV_TOOLS_QUANTITY_H

#include <cstdint>
#include <optional>
#include <string>

typedef std::optional<std::int64_t> Quantity;

Quantity ParseCount(const std::string& text);    // digits
Quantity ParseSize(const std::string& text);     // bytes, such as "500" and "10K"; K, M, G and T are powers of 1024
Quantity ParseSeconds(const std::string& text);  // such as "12h"; the unit s, m, h, d or w is needed

#endif  // ORV_TOOLS_QUANTITY_H
