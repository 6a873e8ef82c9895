// What is known about the lines that the libraries write to the log. `orvfile explain` fills it in for one line;
// docs/diagnostics.md is written from it.
#ifndef ORV_TOOLS_EXPLAIN_TABLE_H
#define ORV_TOOLS_EXPLAIN_TABLE_H

#include "line_pattern.h"

#include <string>
#include <vector>

namespace explain {

const char kCheckTheMedium[] = "check the kernel's log (dmesg) for errors of the medium";

// A form of line. Words in capitals are placeholders, in the pattern and in the texts; see line_pattern.h. The forms
// are tried in order, so a special one comes before the general one. Texts have no full stop at the end.
struct Form {
    const char* pattern;
    const char* meaning;
    const char* disk;          // what is on the disk now
    const char* todo;          // empty: what the error number asks for
    const char* subject = "";  // without `todo`: the placeholder of the path to which the error number applies
    const char* numbers = "";  // the frequent error numbers, such as "2, 13"; only the document names them
    bool (*condition)(const Values& values) = nullptr;  // what the paths must be like; nullptr: anything
    bool errorIsStale = false;                          // the number is that of an earlier call
};

// An error number of Linux on PowerPC, x86 and ARM. PATH in the remedy is the path to which it applies.
struct Error {
    int number;
    const char* name;
    const char* text;  // as the C library describes it
    const char* meaning;
    const char* todo;
};

// A function of orv_safe, and what is on the disk after a call of it has failed.
struct Function {
    const char* name;
    const char* disk;
};

// A system call that lines of orv_safe name, and what its failure means.
struct Call {
    const char* name;
    const char* meaning;
};

const std::vector<Form>& LibraryForms();
const std::vector<Form>& NoteForms();  // of orv_safe: a new file could not keep something, and the call goes on
const std::vector<Form>& SafeForms();  // all others of orv_safe
const std::vector<Form>& LogForms();   // of the substitutes for the log
const std::vector<Error>& Errors();
const std::vector<Function>& SafeFunctions();
const std::vector<Call>& SafeCalls();

// The functions of the library that write lines.
const std::vector<std::string>& LibraryFunctions();

// Returns nullptr if the table does not have it.
const Error* FindError(int number);
const Error* FindError(const std::string& text);

}  // namespace explain

#endif  // ORV_TOOLS_EXPLAIN_TABLE_H
