// row.

#include "commands.h"
#include "csv_reader.h"

#include <LxFileUtils.h>

namespace {

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
