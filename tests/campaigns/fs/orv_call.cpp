// Calls the library for a test script. A request is a line on standard input, which begins with the operation. The
// answer is a few lines on standard output; the last begins with "result". Fields are percent-encoded, and each ends in
// a tab.
//
//   request   RenameFileAcrossFs <tab> SOURCE <tab> DESTINATION <tab>
//   request   SafeCopyFile or SafeMoveFile <tab> SOURCE <tab> DESTINATION <tab> OPTIONS <tab>
//             the letters of the options: d durable, v verify, p preserve, n noReplace
//             SafePublishPage <tab> TEXT FILE <tab> PAGE <tab> OPTIONS <tab>
//             SafeRow <tab> CELL <tab> ...
//             SafeMarkupRow <tab> TEXT <tab> ATTRIBUTE <tab> ...    two for each cell
//             SafeWriteSettings <tab> PATH <tab> NAME <tab> VALUE <tab> OPTIONS <tab>
//   answer    report <tab> SEVERITY <tab> TAG <tab> FORMAT <tab> TEXT    for each log call, in order
//             item <tab> VALUE...                                        for each element of a list or map
//             result <tab> VALUE

#include "LxFileUtils.h"
#include "dlog.h"
#include "safe.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <list>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Fields = std::vector<std::string>;

Fields reports;
Fields items;

std::string Encoded(const std::string& text)
{
    std::string encoded;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte > ' ' && byte < 0x7F && byte != '%') {
            encoded += c;
        } else {
            char escape[sizeof "%00"];
            (void)std::snprintf(escape, sizeof escape, "%%%02x", static_cast<unsigned int>(byte));
            encoded += escape;
        }
    }
    return encoded;
}

std::string Decoded(const std::string& text)
{
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%') {
            decoded += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            decoded += text[i];
        }
    }
    return decoded;
}

std::string Line(const Fields& fields)
{
    std::string line;
    for (const std::string& field : fields) {
        line += Encoded(field) + '\t';
    }
    return line;
}

unsigned int Octal(const std::string& text)
{
    return static_cast<unsigned int>(std::stoul(text, nullptr, 8));
}

bool Flag(const std::string& text)
{
    return text == "1";
}

std::string ListDirectory(const Fields& in)
{
    std::list<std::string> names;
    const bool listed = orv_fileutils::GetDirFileList(in.at(1).c_str(), in.at(2).c_str(), in.at(3).c_str(), names,
                                                      Flag(in.at(4)), true, Flag(in.at(5)));
    for (const std::string& name : names) {
        items.push_back(Line({"item", name}));
    }
    return std::to_string(listed);
}

std::string SafeListDirectory(const Fields& in)
{
    orv_safe::ListOptions options;
    options.status = true;
    options.followLinks = Flag(in.at(2));
    std::vector<orv_safe::ListedFile> files;
    const bool listed = orv_safe::ListFiles(in.at(1), "", "", files, options);
    for (const orv_safe::ListedFile& file : files) {
        items.push_back(Line({"item", file.name, std::to_string(file.bytes)}));
    }
    return std::to_string(listed);
}

std::string ReadNameValues(const Fields& in)
{
    std::map<std::string, std::string> nameValues;
    const bool read = orv_fileutils::ReadNameValueFromFile(in.at(1), nameValues, in.at(2).at(0), in.at(3));
    for (const auto& entry : nameValues) {
        items.push_back(Line({"item", entry.first, entry.second}));
    }
    return std::to_string(read);
}

orv_safe::FileOptions FileOptionsOf(const std::string& letters)
{
    const auto has = [&letters](char letter) { return letters.find(letter) != std::string::npos; };
    orv_safe::FileOptions options;
    options.durable = has('d');
    options.verify = has('v');
    options.preserve = has('p');
    options.noReplace = has('n');
    return options;
}

bool IsDurable(const std::string& letters)
{
    return FileOptionsOf(letters).durable;
}

// A cell is two fields: its text, and an attribute of the element at its end.
std::string MarkupRow(const Fields& in)
{
    std::vector<orv_safe::Cell> cells;
    for (std::size_t i = 1; i + 1 < in.size(); i += 2) {
        cells.push_back(orv_safe::Cell(in[i]).Markup("<b title=\"").Text(in[i + 1]).Markup("\"></b>"));
    }
    return orv_safe::SafeMarkupRow(cells);
}

std::string WriteSettings(const Fields& in)
{
    orv_safe::SettingsOptions options;
    options.durable = IsDurable(in.at(4));
    return std::to_string(orv_safe::WriteSettings(in.at(1), {{in.at(2), in.at(3)}}, '=', "#", options));
}

const std::map<std::string, std::function<std::string(const Fields&)>> operations = {
    {"FileExists", [](const Fields& in) { return std::to_string(orv_fileutils::FileExists(in.at(1).c_str())); }},
    {"RenameFileAcrossFs",
     [](const Fields& in) { return std::to_string(orv_fileutils::RenameFileAcrossFs(in.at(1), in.at(2))); }},
    {"CopyFile", [](const Fields& in) { return std::to_string(orv_fileutils::CopyFile(in.at(1), in.at(2))); }},
    {"SafeCopyFile",
     [](const Fields& in) { return std::to_string(orv_safe::CopyFile(in.at(1), in.at(2), FileOptionsOf(in.at(3)))); }},
    {"SafeMoveFile",
     [](const Fields& in) { return std::to_string(orv_safe::MoveFile(in.at(1), in.at(2), FileOptionsOf(in.at(3)))); }},
    {"DoMakeDirPath",
     [](const Fields& in) { return std::to_string(orv_fileutils::DoMakeDirPath(in.at(1).c_str(), Octal(in.at(2)))); }},
    {"MakeDirPath",
     [](const Fields& in) {
         return std::to_string(orv_fileutils::MakeDirPath(in.at(1).c_str(), Octal(in.at(2)), Flag(in.at(3))));
     }},
    {"GetDirFileList", ListDirectory},
    {"SafeListFiles", SafeListDirectory},
    {"SafeMakeDirectory",
     [](const Fields& in) { return std::to_string(orv_safe::MakeDirectory(in.at(1), Octal(in.at(2)))); }},
    {"SafeWriteSettings", WriteSettings},
    {"SafePublishPage",
     [](const Fields& in) {
         orv_safe::PageOptions options;
         options.durable = IsDurable(in.at(3));
         return std::to_string(orv_safe::PublishPage(in.at(1), in.at(2), options));
     }},
    {"SafeRow", [](const Fields& in) { return orv_safe::SafeRow(Fields(in.begin() + 1, in.end())); }},
    {"SafeMarkupRow", MarkupRow},
    {"TextFileTableDelimter", [](const Fields&) { return orv_fileutils::TextFileTableDelimter(); }},
    {"AddTextFileFormattedRow",
     [](const Fields& in) {
         Fields cells(in.begin() + 1, in.end());
         return orv_fileutils::AddTextFileFormattedRow(cells);
     }},
    {"GenHtmlPagefromTextFile",
     [](const Fields& in) {
         orv_fileutils::GenHtmlPagefromTextFile(in.at(1).c_str(), in.at(2).c_str());
         return std::string();
     }},
    {"ReadNameValueFromFile", ReadNameValues},
};

void Answer(const Fields& request)
{
    reports.clear();
    items.clear();
    const std::string result = operations.at(request.at(0))(request);
    for (const Fields* lines : {&reports, &items}) {
        for (const std::string& line : *lines) {
            std::cout << line << '\n';
        }
    }
    std::cout << Line({"result", result}) << std::endl;
}

}  // namespace

void __dlog_printf(int severity, const char* sourceTag, const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    char* text = nullptr;
    const int bytes = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (bytes < 0) {
        std::abort();
    }
    reports.push_back(Line({"report", std::to_string(severity), sourceTag, format, text}));
    std::free(text);
}

int main()
{
    std::string line;
    while (std::getline(std::cin, line)) {
        Fields request;
        std::istringstream fields(line);
        for (std::string field; std::getline(fields, field, '\t');) {
            request.push_back(Decoded(field));
        }
        Answer(request);
    }
    return 0;
}
