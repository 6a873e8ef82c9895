// row and page.

#include "commands.h"
#include "csv_reader.h"
#include "watch.h"

#include <LxFileUtils.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>

namespace {

// ---- Rows

// The table file has no quoting and the page no escaping, so separators and markup become character references. The
// semicolon of a reference would end the row, so it is omitted; a digit after it would then be part of the reference,
// so it becomes a reference too. Browsers show the original text.
std::string SafeCell(const std::string& text)
{
    static const std::string kSpecial = "&<>\";,:\r\n";
    std::string safe;
    bool referred = false;
    for (const char c : text) {
        referred = kSpecial.find(c) != std::string::npos || (referred && c >= '0' && c <= '9');
        safe += referred ? "&#" + std::to_string(static_cast<int>(c)) : std::string(1, c);
    }
    return safe;
}

// Says why a byte of a cell would break its row; null if it would not.
const char* WhyItBreaksTheRow(char byte, bool isHead)
{
    switch (byte) {
        case ';':
            return "a semicolon ends the row";
        case '\n':
            return "a line feed ends the table";
        case ':':
            return isHead ? "a colon ends the head cell" : nullptr;
        case ',':
            return isHead ? nullptr : "a comma ends the cell";
        default:
            return nullptr;
    }
}

void RefuseBreakingBytes(const std::string& cell, std::size_t row, std::size_t column)
{
    for (std::size_t at = 0; at < cell.size(); ++at) {
        if (const char* const reason = WhyItBreaksTheRow(cell[at], column == 1)) {
            throw Failure("row " + std::to_string(row) + ", column " + std::to_string(column) + ", byte " +
                              std::to_string(at + 1) + ": " + reason,
                          "omit --raw to have such bytes replaced, or remove them from the cell");
        }
    }
}

std::string RowText(std::vector<std::string> cells, bool raw, std::size_t row)
{
    for (std::size_t i = 0; i < cells.size(); ++i) {
        if (raw) {
            RefuseBreakingBytes(cells[i], row, i + 1);
        } else {
            cells[i] = SafeCell(cells[i]);
        }
    }
    if (cells.size() == 1) {
        cells.emplace_back();  // otherwise the next row would become cells of this one
    }
    return orv_fileutils::AddTextFileFormattedRow(cells);
}

CsvRows RowsOf(const RowOptions& options)
{
    if (!options.cells.empty()) {
        return {options.cells};
    }
    CsvRows rows = ReadCsvFromStandardInput(options.separator);
    if (rows.empty()) {
        throw Failure("standard input contains no rows",
                      "check the command that writes it; an empty table needs no rows");
    }
    return rows;
}

// ---- Pages

bool CanRead(const std::string& path)
{
    return orv_fileutils::FileExists(path.c_str()) && std::ifstream(path).is_open();
}

// Without this check, the library would publish an empty page.
void RequireReadable(const std::string& table)
{
    (void)RequireRegularFile(table);
    if (!CanRead(table)) {
        const int error = errno;
        throw Failure("cannot read " + Quoted(table) + ": " + ErrorText(error), Remedy(error, table));
    }
}

std::size_t TablesIn(const std::string& path)
{
    std::ifstream file(path);
    std::size_t tables = 0;
    for (std::string line; std::getline(file, line);) {
        tables += line.empty() ? 0U : 1U;
    }
    return tables;
}

// If /var/tmp is full, the page is incomplete, and the library does not report it.
bool IsWholePage(const std::string& path)
{
    static const std::string kFooter = "</body></html></KPX_PLD>";
    std::ifstream file(path, std::ios::binary);
    std::string end(kFooter.size(), '\0');
    file.seekg(-static_cast<std::streamoff>(end.size()), std::ios::end);
    return file.read(&end[0], static_cast<std::streamsize>(end.size())) && end == kFooter;
}

// A new page is always a new file, whether it was renamed or copied.
bool IsReplaced(const std::optional<struct stat>& before, const std::optional<struct stat>& after)
{
    return after && (!before || !IsSameFile(*before, *after));
}

void Publish(const PageOptions& options)
{
    const std::optional<struct stat> before = LinkStatusOf(options.page);
    orv_fileutils::GenHtmlPagefromTextFile(options.table.c_str(), options.page.c_str());
    const std::optional<struct stat> after = LinkStatusOf(options.page);
    (void)unlink(("/var/tmp/TextToHtml_" + std::to_string(getpid()) + ".tmp").c_str());  // left by a failed move
    if (!IsReplaced(before, after)) {
        throw Failure("cannot publish " + Quoted(options.page) + "; nothing was replaced",
                      "check that its directory exists and is writable, that it is not a directory itself, and that "
                      "/var/tmp is writable; the lines above name the call that failed");
    }
    if (!IsWholePage(options.page)) {
        throw Failure("an incomplete page was published at " + Quoted(options.page),
                      "free space in /var/tmp (df /var/tmp), then publish it again");
    }
    if (!IsQuiet()) {
        const std::size_t tables = TablesIn(options.table);
        PrintResult("published " + Quoted(options.page) + ": " + std::to_string(tables) +
                    (tables == 1 ? " table, " : " tables, ") + std::to_string(after->st_size) + " bytes\n");
    }
}

void Follow(const PageOptions& options, FileWatch& watch)
{
    while (watch.Wait()) {
        if (options.allowEmpty || CanRead(options.table)) {
            Publish(options);
        } else {
            Warn("cannot read " + Quoted(options.table) + "; the page is not changed",
                 "restore the file, and the page is published again");
        }
    }
}

}  // namespace

ExitStatus Row(const RowOptions& options)
{
    std::string text;
    std::size_t number = 0;
    for (const std::vector<std::string>& cells : RowsOf(options)) {
        text += RowText(cells, options.raw, ++number);
    }
    if (options.tableEnd) {
        text += orv_fileutils::TextFileTableDelimter();
    }
    PrintResult(text);
    return kDone;
}

ExitStatus Page(const PageOptions& options)
{
    const std::optional<struct stat> table = StatusOf(options.table);
    const std::optional<struct stat> page = StatusOf(options.page);
    if (table && page && IsSameFile(*table, *page)) {
        throw Failure(Quoted(options.table) + " and " + Quoted(options.page) + " are the same file",
                      "nothing was changed; name another file for the page");
    }
    if (!options.allowEmpty) {
        RequireReadable(options.table);
    }
    if (!options.watch) {
        Publish(options);
        return kDone;
    }
    FileWatch watch(options.table);  // first, so that no change is missed
    Publish(options);
    Follow(options, watch);
    return kDone;
}
