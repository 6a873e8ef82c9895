// Formats results as JSON.
#ifndef ORV_TOOLS_JSON_H
#define ORV_TOOLS_JSON_H

#include <nlohmann/json.hpp>
#include <string>

#include "support.h"

// Returns one line without a line feed. JSON must be UTF-8; other bytes become U+FFFD, with a warning.
inline std::string JsonText(const nlohmann::json& value)
{
    try {
        return value.dump();
    } catch (const nlohmann::json::type_error&) {
        Warn("the result contains bytes that are not UTF-8; JSON shows U+FFFD instead",
             "omit --json to see them unchanged");
        return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    }
}

#endif  // ORV_TOOLS_JSON_H
