#include "json.h"

#include "support.h"

#include <nlohmann/json.hpp>

namespace {

std::string WithReplacements(const nlohmann::json& value)
{
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string Text(const nlohmann::json& value)
{
    try {
        return value.dump();
    } catch (const nlohmann::json::type_error&) {
        Warn("the result contains bytes that are not UTF-8; JSON shows U+FFFD instead",
             "omit --json to see them unchanged");
        return WithReplacements(value);
    }
}

}  // namespace

std::string JsonString(const std::string& text)
{
    return Text(text);
}

std::string JsonArray(const std::vector<std::string>& texts)
{
    return Text(texts);
}

std::string JsonArray(const std::vector<FileDetails>& files)
{
    nlohmann::json array = nlohmann::json::array();
    for (const FileDetails& file : files) {
        array.push_back({{"name", file.name}, {"bytes", file.bytes}, {"modified", file.modified}});
    }
    return Text(array);
}

std::string JsonObject(const std::map<std::string, std::string>& members)
{
    std::map<std::string, std::string> nameOfKey;
    for (const auto& [name, value] : members) {
        const auto [other, isNew] = nameOfKey.emplace(WithReplacements(name), name);
        if (!isNew) {
            throw Failure("the names " + Quoted(other->second) + " and " + Quoted(name) +
                              " would be the same key in JSON, which shows bytes that are not UTF-8 as U+FFFD",
                          "omit --json, or save the file in UTF-8");
        }
    }
    return Text(members);
}
