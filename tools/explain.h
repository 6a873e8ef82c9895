// What the lines of the libraries mean, and what to do about them.
#ifndef ORV_TOOLS_EXPLAIN_H
#define ORV_TOOLS_EXPLAIN_H

#include <optional>
#include <string>

// Its texts have no full stop at the end. Paths in them are quoted and escaped.
struct Explanation {
    std::string meaning;       // what happened, such as "'a' cannot be opened"
    std::string disk;          // what is on the disk now
    std::string todo;          // what the user can do
    std::string errorName;     // such as "ENOENT"; empty if the line has no error number
    std::string errorText;     // such as "No such file or directory"; empty if that is not known
    std::string errorMeaning;  // what the number means for files; empty if `meaning` says it, or it is not known
    std::string reason;        // for a message that says what was tried: "No such file or directory"
    bool isNote = false;       // the line says only that a new file could not keep something: the call goes on
};

// Explains the text of a line, not escaped, which begins with the name of a function.
std::optional<Explanation> Explain(const std::string& text);

// Explains a line of a log, as log services print it: with any prefix, with colours, and escaped.
std::optional<Explanation> ExplainLine(const std::string& line);

// Says what to do about an error number of a path.
std::string RemedyOf(int error, const std::string& path);

// The part of docs/diagnostics.md about lines and error numbers, in Markdown.
std::string DiagnosticsDocument();

#endif  // ORV_TOOLS_EXPLAIN_H
