// Compares the log lines of the safe companion.
#ifndef ORV_TESTS_SAFE_LINES_H
#define ORV_TESTS_SAFE_LINES_H

#include <cstring>
#include <string>
#include <vector>

#include "support/orv_test.h"

// The line that reports a failed call, and on request what follows from it.
inline std::string SafeLine(const std::string& function, const std::string& call, const std::string& path, int error,
                            const std::string& consequence = "")
{
    return function + ": " + call + "(" + path + ") failed (" + std::to_string(error) + ", " + std::strerror(error) +
           ")" + (consequence.empty() ? "" : ": " + consequence) + ".";
}

// Compares the captured log calls, completely and in order, and forgets them. In an expected line, ".orv_*" matches any
// name of a staged file.
inline void ExpectSafeLines(const std::vector<std::string>& expected)
{
    std::vector<std::string> lines;
    for (const DlogCall& call : TakeDlogCalls()) {
        EXPECT_EQ(messages::kSeverity, call.severity) << call.text;
        EXPECT_EQ("orv_safe", call.sourceTag) << call.text;
        lines.push_back(call.text);
        const std::size_t name = call.text.find("/.orv_");
        if (name != std::string::npos) {
            constexpr std::size_t kDigits = 16;
            lines.back().replace(name + std::strlen("/.orv_"), kDigits, "*");
        }
    }
    EXPECT_EQ(expected, lines);
}

#endif  // ORV_TESTS_SAFE_LINES_H
