// Formats results as JSON: one line without a line feed. JSON must be UTF-8; other bytes become U+FFFD, with a warning.
#ifndef ORV_TOOLS_JSON_H
#define ORV_TOOLS_JSON_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// A file in a list.
struct FileDetails {
    std::string name;
    std::int64_t bytes;
    std::string modified;
};

std::string JsonString(const std::string& text);
std::string JsonArray(const std::vector<std::string>& texts);
std::string JsonArray(const std::vector<FileDetails>& files);

// Throws Failure if U+FFFD would make two names the same.
std::string JsonObject(const std::map<std::string, std::string>& members);

#endif  // ORV_TOOLS_JSON_H
