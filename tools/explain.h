// What the lines of the libraries mean, and what to do about them.
#ifndef ORV_TOOLS_EXPLAIN_H
#define ORV_TOOLS_EXPLAIN_H

#include <optional>
#include <string>

struct Explanation {
    std::string meaning;  // what happened
    std::string disk;     // what is on the disk now
    std::string todo;     // what the user can do
};

// Explains the text of a line, which begins with the name of a function. Paths in the result are escaped.
std::optional<Explanation> Explain(const std::string& text);

#endif  // ORV_TOOLS_EXPLAIN_H
