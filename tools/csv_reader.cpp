#include "csv_reader.h"

#include "support.h"
#include "utf8_input.h"

#include <csv.h>

#include <new>
#include <utility>

namespace {

// The result of the callbacks. They must not throw, because libcsv is C code.
struct Filled {
    std::vector<CsvRow> rows;
    CsvRow row;
    bool outOfMemory = false;
};

void AddCell(void* bytes, std::size_t size, void* data)
{
    Filled& filled = *static_cast<Filled*>(data);
    try {
        filled.row.emplace_back(static_cast<const char*>(bytes), size);
    } catch (const std::bad_alloc&) {
        filled.outOfMemory = true;
    }
}

void AddRow(int /*lineEnd*/, void* data)
{
    Filled& filled = *static_cast<Filled*>(data);
    try {
        filled.rows.push_back(std::exchange(filled.row, {}));
    } catch (const std::bad_alloc&) {
        filled.outOfMemory = true;
    }
}

class Parser {
public:
    explicit Parser(char separator)
    {
        (void)csv_init(&parser_, CSV_STRICT | CSV_STRICT_FINI);  // fails without a parser only
        csv_set_delim(&parser_, static_cast<unsigned char>(separator));
    }
    ~Parser()
    {
        csv_free(&parser_);
    }
    Parser(const Parser&) = delete;
    Parser& operator=(const Parser&) = delete;

    void Add(const std::string& text)
    {
        const std::size_t mark = bytes_ == 0 ? ByteOrderMarkBytes(text) : 0;
        const std::size_t size = text.size() - mark;
        const std::size_t taken = csv_parse(&parser_, text.data() + mark, size, AddCell, AddRow, &filled_);
        bytes_ += mark + taken;
        Require(taken == size, "unexpected quotation mark at byte " + std::to_string(bytes_ + 1) + " of the input");
    }

    void Finish()
    {
        Require(csv_fini(&parser_, AddCell, AddRow, &filled_) == 0, "the input ends inside quotation marks");
    }

    // The rows that have been completed since the last call.
    std::vector<CsvRow> TakeRows()
    {
        rowsTaken_ += filled_.rows.size();
        return std::exchange(filled_.rows, {});
    }

    // Where the parser is, for messages.
    std::string Place() const
    {
        return "standard input, row " + std::to_string(rowsTaken_ + filled_.rows.size() + 1) + ": ";
    }

private:
    // Some programs begin such a file with a byte-order mark. It is not part of the first cell.
    static std::size_t ByteOrderMarkBytes(const std::string& text)
    {
        static const std::string kMark = "\xEF\xBB\xBF";
        return text.compare(0, kMark.size(), kMark) == 0 ? kMark.size() : 0;
    }

    void Require(bool parsed, const std::string& mistake) const
    {
        if (filled_.outOfMemory || (!parsed && csv_error(&parser_) != CSV_EPARSE)) {
            throw std::bad_alloc();
        }
        if (!parsed) {
            throw Failure(Place() + mistake,
                          "put the cell between quotation marks, and double each quotation mark inside it");
        }
    }

    mutable struct csv_parser parser_ = {};  // mutable because csv_error takes a non-const pointer
    Filled filled_;
    std::size_t rowsTaken_ = 0;
    std::size_t bytes_ = 0;  // that were parsed
};

}  // namespace

void ReadCsv(char separator, const std::string& encoding, const std::function<void(const CsvRow&)>& use)
{
    Utf8Input input(encoding);
    Parser parser(separator);
    const auto useRows = [&] {
        for (const CsvRow& row : parser.TakeRows()) {
            use(row);
        }
    };
    for (std::string text; input.Read(text);) {
        parser.Add(text);
        useRows();
    }
    if (input.Mistake()) {
        throw Failure(parser.Place() + input.Mistake()->what(), input.Mistake()->Next());
    }
    parser.Finish();
    useRows();
}
