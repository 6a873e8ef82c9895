// get.

#include "commands.h"
#include "dlog_text.h"
#include "json.h"

#include <LxFileUtils.h>
#include <LxStringUtils.h>

#include <cerrno>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>

namespace {

typedef std::map<std::string, std::string> Settings;

// The library reads a directory as an empty file.
void RefuseDirectory(const std::string& path)
{
    const std::optional<struct stat> status = StatusOf(path);
    if (status && S_ISDIR(status->st_mode)) {
        throw Failure(Quoted(path) + " is a directory", "name a file in it");
    }
}

[[noreturn]] void FailToRead(const std::string& path, int error)
{
    throw Failure("cannot read " + Quoted(path) + ": " + ErrorText(error), Remedy(error, path));
}

Settings ReadSettings(const GetOptions& options)
{
    Settings settings;
    if (!orv_fileutils::ReadNameValueFromFile(options.file, settings, options.delimiter, options.comment)) {
        FailToRead(options.file, errno);
    }
    return settings;
}

void PrintOne(const GetOptions& options, const Settings& settings)
{
    const auto setting = settings.find(options.name);
    if (setting == settings.end()) {
        throw Failure(Quoted(options.file) + " does not contain the name " + Quoted(options.name),
                      "list its names with orvfile get FILE; upper and lower case differ");
    }
    PrintResult((options.json ? JsonText(setting->second) : setting->second) + "\n");
}

void PrintAll(const GetOptions& options, const Settings& settings)
{
    if (options.json) {
        PrintResult(JsonText(settings) + "\n");
        return;
    }
    std::string lines;
    for (const auto& [name, value] : settings) {
        lines.append(name).append(1, options.delimiter).append(value).append(1, '\n');
    }
    PrintResult(lines);
}

// ---- Lint

// Checks the lines of a file, splitting them as the library does.
class Lint {
public:
    explicit Lint(const GetOptions& options) : options_(options)
    {
    }

    void Look(std::string line)
    {
        static const std::string kByteOrderMark = "\xEF\xBB\xBF";
        ++number_;
        if (number_ == 1 && LxStringUtils::StartsWith(line, kByteOrderMark)) {
            Find("byte-order mark, which becomes part of the line: save the file without it");
        }
        LxStringUtils::Trim(line);
        LookForControlCharacters(line);
        if (line.empty() || (!options_.comment.empty() && LxStringUtils::StartsWith(line, options_.comment))) {
            return;
        }
        const std::size_t end = line.find(options_.delimiter);
        if (end == std::string::npos) {
            Find("no delimiter '" + std::string(1, options_.delimiter) +
                 "': the line is a name with an empty value; add the delimiter, or make the line a comment");
        }
        LookForDuplicate(line.substr(0, end));
    }

    const std::string& Findings() const
    {
        return findings_;
    }

private:
    void LookForControlCharacters(const std::string& line)
    {
        for (std::size_t at = 0; at < line.size(); ++at) {
            const unsigned char byte = static_cast<unsigned char>(line[at]);
            if ((byte < 0x20 && byte != '\t') || byte == 0x7F) {
                Find("control character " + Quoted(std::string(1, line[at])) + ": remove it");
            }
        }
    }

    void LookForDuplicate(std::string name)
    {
        LxStringUtils::Trim(name);
        const auto [first, isNew] = lineOf_.emplace(name, number_);
        if (!isNew) {
            Find("duplicate name " + Quoted(name) + ", first on line " + std::to_string(first->second) +
                 ": the last one counts; remove the others");
        }
    }

    void Find(const std::string& finding)
    {
        dlog_text::AppendEscaped(findings_, options_.file + ":" + std::to_string(number_) + ": ");
        findings_ += finding + "\n";
    }

    const GetOptions& options_;
    std::size_t number_ = 0;
    std::map<std::string, std::size_t> lineOf_;
    std::string findings_;
};

ExitStatus PrintLint(const GetOptions& options)
{
    std::ifstream file(options.file);
    if (!file) {
        FailToRead(options.file, errno);
    }
    Lint lint(options);
    for (std::string line; std::getline(file, line);) {
        lint.Look(line);
    }
    PrintResult(lint.Findings());
    return lint.Findings().empty() ? kDone : kFailed;
}

}  // namespace

ExitStatus Get(const GetOptions& options)
{
    RefuseDirectory(options.file);
    if (options.lint) {
        return PrintLint(options);
    }
    const Settings settings = ReadSettings(options);
    if (options.hasName) {
        PrintOne(options, settings);
    } else {
        PrintAll(options, settings);
    }
    return kDone;
}
