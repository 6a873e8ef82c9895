// set and unset.

#include "commands.h"
#include "signals.h"

#include <LxStringUtils.h>
#include <orv/safe.h>

#include <map>

namespace {

typedef std::map<std::string, std::string> Settings;

// The texts are NAME=VALUE, with the delimiter of the format. Of equal names, the last one counts.
Settings Split(const SetOptions& options)
{
    Settings settings;
    for (const std::string& text : options.settings) {
        const std::size_t end = text.find(options.format.delimiter);
        settings[text.substr(0, end)] = text.substr(end + 1);
    }
    return settings;
}

bool HasOuterWhiteSpace(std::string text)
{
    const std::size_t size = text.size();
    LxStringUtils::Trim(text);
    return text.size() != size;
}

// Why no line of a file can have this name or value; empty if one can.
std::string WhyRefused(const std::string& name, const std::string& value, const std::string& comment)
{
    if (name.empty()) {
        return "the name is empty";
    }
    if (!comment.empty() && LxStringUtils::StartsWith(name, comment)) {
        return "the name begins with " + Quoted(comment) + ", so its line would be a comment";
    }
    for (const auto& [part, text] : {std::make_pair("name", name), std::make_pair("value", value)}) {
        if (text.find('\n') != std::string::npos) {
            return std::string("the ") + part + " contains a line feed";
        }
        if (HasOuterWhiteSpace(text)) {
            return std::string("the ") + part + " begins or ends with white space, which readers remove";
        }
    }
    return std::string();
}

[[noreturn]] void Fail(const SetOptions& options, const Settings& settings)
{
    for (const auto& [name, value] : settings) {
        const std::string why = WhyRefused(name, value, options.format.comment);
        if (!why.empty()) {
            throw Failure("cannot set " + Quoted(name) + ": " + why,
                          "choose another name or value; " + Quoted(options.file) + " was not changed");
        }
    }
    FailByReports("cannot change " + Quoted(options.file));
}

// A signal ends the process only after the change, which is short.
void EndByCaughtSignal()
{
    if (CaughtSignal() != 0) {
        EndBySignal(CaughtSignal());
    }
}

}  // namespace

ExitStatus Set(const SetOptions& options)
{
    const Settings settings = Split(options);
    CatchSignals();
    if (!orv_safe::WriteSettings(options.file, settings, options.format.delimiter[0], options.format.comment)) {
        Fail(options, settings);
    }
    EndByCaughtSignal();
    return kDone;
}

ExitStatus Unset(const UnsetOptions& options)
{
    CatchSignals();
    if (!orv_safe::RemoveSettings(options.file, options.names, options.format.delimiter[0], options.format.comment)) {
        FailByReports("cannot change " + Quoted(options.file));
    }
    EndByCaughtSignal();
    return kDone;
}
