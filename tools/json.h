// Results as JSON.
#ifndef ORV_TOOLS_JSON_H
#define ORV_TOOLS_JSON_H

#include <nlohmann/json.hpp>
#include <string>

#include "support.h"

// One line without a line feed. JSON is UTF-8; other bytes become U+FFFD, with a warning.
inline std::string JsonText(const nlohmann::json& value)
{
    try {
        return value.dump();
    } catch (const nlohmann::json::type_error&) {
        Warn("the result holds bytes that are no UTF-8; JSON shows U+FFFD in their place",
             "leave out --json to see them unchanged");
        return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    }
}

#endif  // ORV_TOOLS_JSON_H
