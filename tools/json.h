// Formats results as JSON: one line without a line feed.
#ifndef ORV_TOOLS_JSON_H
#define ORV_TOOLS_JSON_H

#include <nlohmann/json_fwd.hpp>

#include <map>
#include <string>

// JSON must be UTF-8; other bytes become U+FFFD, with a warning.
std::string JsonText(const nlohmann::json& value);

// The same, of an object. Throws Failure if U+FFFD would make two names the same.
std::string JsonObject(const std::map<std::string, std::string>& members);

#endif  // ORV_TOOLS_JSON_H
