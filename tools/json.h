// Formats results as JSON: one line without a line feed.
#ifndef ORV_TOOLS_JSON_H
#define ORV_TOOLS_JSON_H

#include <nlohmann/json_fwd.hpp>

#include <string>

// JSON must be UTF-8; other bytes become U+FFFD, with a warning.
std::string JsonText(const nlohmann::json& value);

#endif  // ORV_TOOLS_JSON_H
