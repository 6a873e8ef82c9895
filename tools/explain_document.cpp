// The part of docs/diagnostics.md about lines and error numbers.

#include "explain.h"

#include "explain_table.h"

#include <cstddef>
#include <sstream>

using explain::Form;

namespace {

// Names the numbers in a list such as "2, 13".
std::string Named(const std::string& numbers)
{
    std::istringstream stream(numbers);
    std::string named;
    for (std::string number; std::getline(stream >> std::ws, number, ',');) {
        const explain::Error* const error = explain::FindError(std::stoi(number));
        named += (named.empty() ? "" : ", ") + number + " (" + error->name + ")";
    }
    return named;
}

// Breaks a paragraph of a list into lines.
std::string Wrapped(const std::string& paragraph)
{
    const std::size_t kWidth = 120;
    std::istringstream words(paragraph);
    std::string wrapped;
    std::string line;
    for (std::string word; words >> word;) {
        if (line.size() + 1 + word.size() > kWidth) {
            wrapped += line + "\n";
            line = " ";
        }
        line += (line.empty() ? "" : " ") + word;
    }
    return wrapped + line + "\n";
}

std::string Section(const Form& form)
{
    const std::string numbers = form.numbers;
    const std::string disk = form.disk;
    const std::string todo = form.todo;
    return "\n### `" + std::string(form.pattern) + "`\n\n" +
           Wrapped("- **Cause**: " + std::string(form.meaning) + "." +
                   (numbers.empty() ? "" : " Frequent numbers: " + Named(numbers) + ".")) +
           Wrapped("- **On the disk**: " + (disk.empty() ? "what the table of functions below says" : disk) + ".") +
           Wrapped("- **Remedy**: " + (todo.empty() ? "see the [error number](#error-numbers)" : todo) + ".");
}

std::string LibrarySections()
{
    std::string document;
    std::string last;
    for (const Form& form : explain::LibraryForms()) {
        const std::string pattern = form.pattern;
        const std::string function = pattern.substr(0, pattern.find(':'));
        document += (function == last ? "" : (last.empty() ? "## " : "\n## ") + function + "\n") + Section(form);
        last = function;
    }
    return document;
}

std::string SafeSections()
{
    std::string document =
        "\n## Lines of `orv_safe`\n\n"
        "The companion writes its lines with the source tag `orv_safe`. Each begins with the name of the function\n"
        "(FUNCTION). ERROR is the error's number and text, such as `2, No such file or directory`, and TEXT is the "
        "text\n"
        "alone. The header `orv/safe.h` and orv_safe(3) list the lines of each function.\n";
    for (const Form& form : explain::SafeForms()) {
        if (*form.meaning != '\0') {
            document += Section(form);
        }
    }
    return document;
}

std::string GeneralSection()
{
    std::string document =
        "\n### `FUNCTION: CALL(PATH) failed (ERROR).`\n\n"
        "Every other line has this form. CALL says what failed:\n\n| CALL | Cause |\n|---|---|\n";
    for (const explain::Call& call : explain::SafeCalls()) {
        document += "| `" + std::string(call.name) + "` | " + call.meaning + " |\n";
    }
    document += "\nFUNCTION says what is on the disk after it:\n\n| FUNCTION | On the disk |\n|---|---|\n";
    for (const explain::Function& function : explain::SafeFunctions()) {
        document += "| `" + std::string(function.name) + "` | " + function.disk + " |\n";
    }
    return document + "\nERROR says what to do: see the [error number](#error-numbers).\n";
}

std::string NoteSections()
{
    std::string document =
        "\n## Lines of `orv_safe` about what a new file could not keep\n\n"
        "The call goes on after such a line, and can succeed.\n";
    for (const Form& form : explain::NoteForms()) {
        document += Section(form);
    }
    return document;
}

std::string LogSections()
{
    std::string document = "\n## Lines of the substitutes for the log\n";
    for (const Form& form : explain::LogForms()) {
        document += Section(form);
    }
    return document;
}

std::string ErrorNumbers()
{
    std::string document =
        "\n## Error numbers\n\n"
        "These numbers are the same for Linux on PowerPC, x86 and ARM.\n\n"
        "| Number | Name | Meaning here | What to do |\n|---|---|---|---|\n";
    for (const explain::Error& error : explain::Errors()) {
        document += "| " + std::to_string(error.number) + " | " + error.name + " | " + error.meaning + " | " +
                    error.todo + " |\n";
    }
    return document;
}

}  // namespace

std::string DiagnosticsDocument()
{
    return LibrarySections() + SafeSections() + GeneralSection() + NoteSections() + LogSections() + ErrorNumbers();
}
