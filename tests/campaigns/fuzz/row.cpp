// SafeRow and SafeMarkupRow of the safe companion. The input is the cells of a row: a byte with the length of each, and
// its bytes. The page is read back by a strict parser.
#include "fuzz.h"

#include "safe/safe.h"
#include "support/markup_model.h"

#include <algorithm>
#include <stdexcept>

namespace {

using Texts = std::vector<std::string>;

Texts CellsOf(const std::string& bytes)
{
    Texts cells;
    for (std::size_t at = 0; at < bytes.size();) {
        const std::size_t length = static_cast<unsigned char>(bytes[at]);
        cells.push_back(bytes.substr(at + 1, length));
        at += 1 + length;
    }
    return cells;
}

Texts Shown(const std::string& row)
{
    try {
        const std::vector<Texts> rows = markup_model::Rows(oracle::TableMarkup("before:;" + row + "after:;"));
        Require(rows.size() == 3, "the row is one row");
        return rows[1];
    } catch (const std::runtime_error& refusal) {
        Require(false, refusal.what());
        return {};
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const Texts cells = CellsOf(std::string(data, data + size));
    if (cells.empty()) {
        return 0;
    }
    Texts whole;
    Texts inTwoParts;
    std::vector<orv_safe::Cell> parts;
    for (const std::string& cell : cells) {
        const std::string first = cell.substr(0, cell.size() / 2);
        const std::string second = cell.substr(first.size());
        whole.push_back(markup_model::Decoded(cell));
        inTwoParts.push_back(markup_model::Decoded(first) + markup_model::Decoded(second));
        parts.push_back(orv_safe::Cell().Text(first).Markup("").Text(second));
    }

    Require(Shown(orv_safe::SafeRow(cells)) == whole, "each cell shows its text");
    Require(Shown(orv_safe::SafeMarkupRow(parts)) == inTwoParts, "each cell shows the text of both parts");
    Require(Reports() == 0, "nothing is reported");
    return 0;
}
