// row.

#include "commands.h"
#include "csv_reader.h"
#include "streams.h"

#include <LxFileUtils.h>

#include <orv/safe.h>

namespace {

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

std::string RawRow(const std::vector<std::string>& cells, std::size_t row)
{
    std::vector<orv_safe::Cell> raw;
    for (const std::string& cell : cells) {
        RefuseBreakingBytes(cell, row, raw.size() + 1);
        raw.push_back(orv_safe::Cell().Markup(cell));
    }
    return orv_safe::SafeMarkupRow(raw);
}

// Many spreadsheets write semicolons where the comma is the decimal separator.
void RefuseOtherSeparator(const CsvRow& first)
{
    if (first.size() == 1 && first[0].find(';') != std::string::npos) {
        throw Failure("standard input seems to be separated by semicolons: its first row has no comma, but semicolons",
                      "add --delimiter ';', or --delimiter , if commas separate the values");
    }
}

// Forms rows and counts them.
class Table {
public:
    explicit Table(const RowOptions& options) : options_(options)
    {
    }

    void Add(const std::vector<std::string>& cells)
    {
        if (++rows_ == 1 && options_.isSeparatorAssumed) {
            RefuseOtherSeparator(cells);
        }
        text_.Add(options_.raw ? RawRow(cells, rows_) : orv_safe::SafeRow(cells));
    }

    void Print()
    {
        if (options_.tableEnd) {
            text_.Add(orv_fileutils::TextFileTableDelimter());
        }
        text_.Print();
    }

    bool IsEmpty() const
    {
        return rows_ == 0;
    }

private:
    const RowOptions& options_;
    std::size_t rows_ = 0;
    Spool text_;  // nothing is printed before the whole input has proved right
};

}  // namespace

ExitStatus Row(const RowOptions& options)
{
    Table table(options);
    if (!options.cells.empty()) {
        table.Add(options.cells);
    } else {
        ReadCsv(options.separator, options.encoding, [&table](const CsvRow& row) { table.Add(row); });
    }
    if (table.IsEmpty()) {
        throw Failure("standard input contains no rows",
                      "check the command that writes it; an empty table needs no rows");
    }
    table.Print();
    return kDone;
}
