// get.

#include "commands.h"
#include "dlog_text.h"
#include "json.h"
#include "quoting.h"

#include <orv/safe.h>

namespace {

typedef std::map<std::string, std::string> Settings;

Settings Read(const GetOptions& options)
{
    Settings settings;
    if (!orv_safe::ReadSettings(options.file, settings, options.format.delimiter[0], options.format.comment)) {
        FailByReports("cannot read " + Quoted(options.file));
    }
    return settings;
}

// ---- All settings

void PrintAll(const GetOptions& options, const Settings& settings)
{
    if (options.json) {
        PrintResult(JsonObject(settings) + "\n");
        return;
    }
    std::string lines;
    for (const auto& [name, value] : settings) {
        lines.append(name).append(options.format.delimiter).append(value).append(1, '\n');
    }
    PrintResult(lines);
}

// ---- Some settings

std::string Assignment(const std::string& name, const std::string& value)
{
    if (value.find('\0') != std::string::npos) {
        throw Failure("the value of " + Quoted(name) + " contains a NUL, which no variable of a shell can contain",
                      "remove the NUL from the value");
    }
    return name + "=" + ShellWord(value) + "\n";
}

void PrintValues(const GetOptions& options, const Settings& values)
{
    if (options.json) {
        const bool isOne = options.names.size() == 1;
        PrintResult((isOne ? JsonString(values.begin()->second) : JsonObject(values)) + "\n");
        return;
    }
    std::string lines;
    for (const std::string& name : options.names) {
        const std::string& value = values.at(name);
        lines += options.shell ? Assignment(name, value) : value + "\n";
    }
    PrintResult(lines);
}

// Prints nothing if a name is missing.
ExitStatus PrintChosen(const GetOptions& options, const Settings& settings)
{
    Settings values;
    ExitStatus result = kDone;
    for (const std::string& name : options.names) {
        const auto setting = settings.find(name);
        if (setting != settings.end()) {
            values.insert(*setting);
        } else if (options.fallback) {
            values.emplace(name, *options.fallback);
        } else {
            PrintProblem(Quoted(options.file) + " does not contain the name " + Quoted(name),
                         "list its names with orvfile get FILE; upper and lower case differ");
            result = kMissing;
        }
    }
    if (result == kDone) {
        PrintValues(options, values);
    }
    return result;
}

// ---- Lint

std::string Line(const std::string& file, const orv_safe::SettingsFinding& finding)
{
    std::string line;
    dlog_text::AppendEscaped(line, file + ":" + std::to_string(finding.line) + ": ");
    line += Quoted(finding.text) + ": " + orv_safe::SettingsFindingText(finding.kind);
    if (finding.firstLine != 0) {
        line += " (first on line " + std::to_string(finding.firstLine) + ")";
    }
    return line + "\n";
}

ExitStatus PrintLint(const GetOptions& options)
{
    std::vector<orv_safe::SettingsFinding> findings;
    if (!orv_safe::CheckSettings(options.file, findings, options.format.delimiter[0], options.format.comment)) {
        FailByReports("cannot read " + Quoted(options.file));
    }
    std::string lines;
    for (const orv_safe::SettingsFinding& finding : findings) {
        lines += Line(options.file, finding);
    }
    PrintResult(lines);
    return findings.empty() ? kDone : kFailed;
}

}  // namespace

ExitStatus Get(const GetOptions& options)
{
    if (options.lint) {
        return PrintLint(options);
    }
    const Settings settings = Read(options);
    if (!options.names.empty()) {
        return PrintChosen(options, settings);
    }
    PrintAll(options, settings);
    return kDone;
}
