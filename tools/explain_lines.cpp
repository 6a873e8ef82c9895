// orvfile explain: explains lines of a log.

#include "commands.h"
#include "explain.h"
#include "json.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <map>
#include <optional>
#include <utility>

namespace {

// A line of the libraries has two paths at most; longer ones pass unchanged.
const std::size_t kMostLineBytes = 1 << 16;
const std::size_t kBlockBytes = 1 << 16;

std::string AsText(const std::string& line, const Explanation& explanation)
{
    std::string text = line + "\n  What: " + explanation.meaning + "\n";
    if (!explanation.errorName.empty() || !explanation.errorText.empty()) {
        const bool hasBoth = !explanation.errorName.empty() && !explanation.errorText.empty();
        text += "  Error: " + explanation.errorName + (hasBoth ? ", " : "") + explanation.errorText +
                (explanation.errorMeaning.empty() ? "" : ": " + explanation.errorMeaning) + "\n";
    }
    return text + "  Disk: " + explanation.disk + "\n  Next: " + explanation.todo + "\n";
}

std::string AsJson(const std::string& line, const std::optional<Explanation>& explanation)
{
    std::map<std::string, std::string> members = {{"line", line}};
    if (explanation) {
        members["what"] = explanation->meaning;
        members["disk"] = explanation->disk;
        members["next"] = explanation->todo;
        members["error"] = explanation->errorName;
        members["error_text"] = explanation->errorText;
    }
    return JsonObject(members) + "\n";
}

// Reads lines in a constant amount of memory, and prints each with its explanation.
class LinePrinter {
public:
    explicit LinePrinter(bool json) : json_(json)
    {
    }

    // Prints the lines that end in these bytes.
    void Read(const std::string& bytes)
    {
        std::string out;
        for (std::size_t begin = 0; begin < bytes.size();) {
            const std::size_t end = std::min(bytes.find('\n', begin), bytes.size());
            line_.append(bytes, begin, end - begin);
            if (end < bytes.size()) {
                out += EndLine("\n");
            } else if ((isLong_ || line_.size() > kMostLineBytes) && !json_) {
                isLong_ = true;
                out += line_;
                line_.clear();
            }
            begin = end + 1;
        }
        PrintResult(out);
    }

    // Prints a last line without a line feed.
    void End()
    {
        if (!line_.empty()) {
            PrintResult(EndLine(""));
        }
    }

private:
    std::string EndLine(const char* lineEnd)
    {
        const std::string line = std::exchange(line_, "");
        const bool isLong = std::exchange(isLong_, false) || line.size() > kMostLineBytes;
        const std::optional<Explanation> explanation = isLong ? std::nullopt : ExplainLine(line);
        if (json_) {
            return AsJson(line, explanation);
        }
        return explanation ? AsText(line, *explanation) : line + lineEnd;
    }

    const bool json_;
    std::string line_;
    bool isLong_ = false;  // the beginning of the line was printed already
};

// Returns what standard input has, at most a block; empty at its end.
std::string ReadBlock()
{
    std::string block(kBlockBytes, '\0');
    for (;;) {
        const ssize_t got = read(STDIN_FILENO, &block[0], block.size());
        if (got >= 0) {
            block.resize(static_cast<std::size_t>(got));
            return block;
        }
        if (errno != EINTR) {
            const int error = errno;
            throw Failure("cannot read standard input: " + ErrorText(error),
                          "give the log as standard input, as in: orvfile explain </var/log/messages");
        }
    }
}

}  // namespace

ExitStatus ExplainLines(const ExplainOptions& options)
{
    if (options.document) {
        PrintResult(DiagnosticsDocument());
        return kDone;
    }
    LinePrinter printer(options.json);
    for (const std::string& line : options.lines) {
        printer.Read(line + "\n");
    }
    if (options.lines.empty()) {
        for (std::string block; !(block = ReadBlock()).empty();) {
            printer.Read(block);
        }
        printer.End();
    }
    return kDone;
}
