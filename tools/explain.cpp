#include "explain.h"

#include "support.h"

#include <regex>

std::optional<Explanation> Explain(const std::string& text)
{
    static const std::regex kFailedCall(R"(^[A-Za-z]+: [a-z_0-9]+\(([^]*)\) failed \(([0-9]+)(, [^()]*)?\)[^]*)");
    std::smatch parts;
    if (!std::regex_match(text, parts, kFailedCall)) {
        return std::nullopt;
    }
    const int error = std::stoi(parts[2]);
    return Explanation{ErrorText(error), "", Remedy(error, parts[1])};
}
