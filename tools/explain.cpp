#include "explain.h"

#include "explain_table.h"
#include "line_pattern.h"
#include "support.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <vector>

using explain::Error;
using explain::Form;
using explain::Values;

namespace {

// ---- Filling in

std::string TypeName(const std::string& type)
{
    static const std::map<std::string, std::string> names = {
        {"1000", "a FIFO"},         {"2000", "a character device"}, {"4000", "a directory"},
        {"6000", "a block device"}, {"a000", "a symbolic link"},    {"c000", "a socket"},
    };
    const auto found = names.find(type);
    return found == names.end() ? "a file of type 0x" + type : found->second;
}

// Returns the text with the values of the line.
std::string FilledIn(const std::string& text, const Values& values)
{
    return explain::ReplacePlaceholders(text, [&values](const std::string& placeholder) {
        const auto found = values.find(placeholder);
        if (found == values.end()) {
            return placeholder;  // a word in capitals
        }
        return placeholder == "TYPE"          ? TypeName(found->second)
               : explain::IsPath(placeholder) ? Quoted(found->second)
                                              : found->second;
    });
}

std::string Remedy(const Error& error, const std::string& quotedPath)
{
    return explain::ReplacePlaceholders(error.todo, [&quotedPath](const std::string& placeholder) {
        return placeholder == "PATH" ? quotedPath : placeholder;
    });
}

// ---- The error number

struct Number {
    int value;         // 0: none
    std::string text;  // what the line says about it
};

std::string ValueOf(const Values& values, const std::string& placeholder)
{
    const auto found = values.find(placeholder);
    return found == values.end() ? "" : found->second;
}

int IntegerAt(const char* text)
{
    return static_cast<int>(std::strtol(text, nullptr, 10));
}

const char kFailed[] = "failed (";

// Whether the form is that of one error number, which is in its pattern: "failed (116".
bool HasNumber(const Form& form)
{
    const char* const failed = std::strstr(form.pattern, kFailed);
    return failed != nullptr && std::isdigit(static_cast<unsigned char>(failed[sizeof kFailed - 1])) != 0;
}

Number NumberOf(const Form& form, const Values& values)
{
    const std::string text = ValueOf(values, "TEXT");
    if (HasNumber(form)) {
        return {IntegerAt(std::strstr(form.pattern, kFailed) + sizeof kFailed - 1), text};
    }
    const std::string error = ValueOf(values, "ERROR");
    if (!error.empty()) {
        return {IntegerAt(error.c_str()), error.substr(error.find(", ") + 2)};
    }
    const Error* const described = explain::FindError(text);
    return {described == nullptr ? IntegerAt(ValueOf(values, "ERRNO").c_str()) : described->number, text};
}

void AddError(const Form& form, const Values& values, Explanation& explanation)
{
    if (form.errorIsStale) {
        return;
    }
    const Number number = NumberOf(form, values);
    const Error* const error = explain::FindError(number.value);
    if (error == nullptr) {
        explanation.errorName = number.value == 0 ? "" : "error " + std::to_string(number.value);
        explanation.errorText = number.text;
        return;
    }
    explanation.errorName = error->name;
    explanation.errorText = error->text;
    explanation.errorMeaning = HasNumber(form) ? "" : error->meaning;
    if (explanation.todo.empty()) {
        const auto subject = values.find(form.subject);
        explanation.todo = Remedy(*error, subject == values.end() ? "the destination" : Quoted(subject->second));
    }
}

// ---- The form of the line

template <typename Entry>
const Entry* Find(const std::vector<Entry>& entries, const std::string& name)
{
    const auto found =
        std::find_if(entries.begin(), entries.end(), [&](const Entry& entry) { return entry.name == name; });
    return found == entries.end() ? nullptr : &*found;
}

const char kGuess[] = " (where the first path ends is a guess, because the paths contain what is between them)";

// A line that was matched.
struct Reading {
    Values values;
    bool isGuess;
};

bool AreAbsolute(const Values& values)
{
    return std::all_of(values.begin(), values.end(), [](const Values::value_type& value) {
        return !explain::IsPath(value.first) || value.second[0] == '/';
    });
}

bool IsAllowed(const Form& form, const Values& values)
{
    const auto function = values.find("FUNCTION");
    return (function == values.end() || Find(explain::SafeFunctions(), function->second) != nullptr) &&
           (form.condition == nullptr || form.condition(values));
}

// Of several ways to tell two paths apart, prefers one in which both are absolute.
std::optional<Reading> ReadAs(const Form& form, const std::string& text)
{
    std::vector<Values> ways = explain::Match(form.pattern, text);
    ways.erase(std::remove_if(ways.begin(), ways.end(), [&](const Values& way) { return !IsAllowed(form, way); }),
               ways.end());
    if (ways.empty()) {
        return std::nullopt;
    }
    const std::ptrdiff_t absolute = std::count_if(ways.begin(), ways.end(), AreAbsolute);
    const auto likeliest = absolute == 0 ? ways.begin() : std::find_if(ways.begin(), ways.end(), AreAbsolute);
    return Reading{*likeliest, ways.size() > 1 && absolute != 1};
}

// What the line adds to what was tried. The general form adds the error alone; a form of one error number says it all.
std::string ReasonOf(const Form& form, const Explanation& explanation)
{
    const bool saysWhy = HasNumber(form) || explanation.errorText.empty();
    return *form.meaning == '\0' ? explanation.errorText
           : saysWhy             ? explanation.meaning
                                 : explanation.meaning + ": " + explanation.errorText;
}

Explanation Explained(const Form& form, const Values& values)
{
    Explanation explanation;
    explanation.meaning = FilledIn(form.meaning, values);
    explanation.disk = FilledIn(form.disk, values);
    explanation.todo = FilledIn(form.todo, values);
    AddError(form, values, explanation);
    if (explanation.meaning.empty()) {  // the general form
        const explain::Call* const call = Find(explain::SafeCalls(), ValueOf(values, "CALL"));
        explanation.meaning = FilledIn(call == nullptr ? "CALL failed for PATH" : call->meaning, values);
    }
    if (explanation.disk.empty()) {
        explanation.disk = Find(explain::SafeFunctions(), ValueOf(values, "FUNCTION"))->disk;
    }
    if (explanation.todo.empty()) {
        explanation.todo = explain::kCheckTheMedium;
    }
    explanation.reason = ReasonOf(form, explanation);
    return explanation;
}

std::optional<Explanation> ExplainBy(const std::vector<Form>& forms, const std::string& text)
{
    for (const Form& form : forms) {
        const std::optional<Reading> reading = ReadAs(form, text);
        if (reading) {
            Explanation explanation = Explained(form, reading->values);
            explanation.meaning += reading->isGuess ? kGuess : "";
            return explanation;
        }
    }
    return std::nullopt;
}

// ---- Lines of a log

// Removes sequences that choose colours: ESC, "[", parameters, a letter.
std::string WithoutColours(const std::string& line)
{
    std::string plain;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line.compare(i, 2, "\x1b[") != 0) {
            plain += line[i];
            continue;
        }
        const std::size_t end = line.find_first_not_of("0123456789;:?", i + 2);
        if (end == std::string::npos) {
            break;
        }
        i = end;
    }
    return plain;
}

bool IsHexDigit(char c)
{
    return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}

// Undoes what the substitutes for the log do to control characters and backslashes.
std::string Unescaped(const std::string& text)
{
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char next = text[i] == '\\' ? text[i + 1] : '\0';  // at the end, that is '\0' as well
        if (next == '\\' || next == 'n') {
            plain += next == 'n' ? '\n' : '\\';
            ++i;
        } else if (next == 'x' && IsHexDigit(text[i + 2]) && IsHexDigit(text[i + 3])) {
            plain += static_cast<char>(std::strtol(text.substr(i + 2, 2).c_str(), nullptr, 16));
            i += 3;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

const std::vector<std::string>& Beginnings()
{
    static const std::vector<std::string> beginnings = [] {
        std::vector<std::string> all = {"dlog: "};
        for (const std::string& function : explain::LibraryFunctions()) {
            all.push_back(function + ": ");
        }
        for (const explain::Function& function : explain::SafeFunctions()) {
            all.push_back(function.name + std::string(": "));
        }
        return all;
    }();
    return beginnings;
}

// Returns where the text of a library begins: the first name of a function that is a word of its own. What follows may
// contain a path that looks like another line.
std::size_t FindText(const std::string& line)
{
    std::size_t first = std::string::npos;
    for (const std::string& beginning : Beginnings()) {
        std::size_t at = line.find(beginning);
        while (at != std::string::npos && at > 0 && line[at - 1] != ' ' && line[at - 1] != '\t') {
            at = line.find(beginning, at + 1);
        }
        first = std::min(first, at);
    }
    return first;
}

}  // namespace

std::optional<Explanation> Explain(const std::string& text)
{
    for (const auto* const forms :
         {&explain::LibraryForms(), &explain::NoteForms(), &explain::SafeForms(), &explain::LogForms()}) {
        if (std::optional<Explanation> explanation = ExplainBy(*forms, text)) {
            explanation->isNote = forms == &explain::NoteForms();
            return explanation;
        }
    }
    return std::nullopt;
}

std::optional<Explanation> ExplainLine(const std::string& line)
{
    const std::string plain = WithoutColours(line);
    const std::size_t begin = FindText(plain);
    if (begin == std::string::npos) {
        return std::nullopt;
    }
    const std::size_t end = plain.find_last_not_of(" \t\r") + 1;
    return Explain(Unescaped(plain.substr(begin, end - begin)));
}

std::string RemedyOf(int error, const std::string& path)
{
    const Error* const found = explain::FindError(error);
    return found == nullptr ? explain::kCheckTheMedium : Remedy(*found, Quoted(path));
}
