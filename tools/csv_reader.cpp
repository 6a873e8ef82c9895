#include "csv_reader.h"

#include "support.h"

#include <csv.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

namespace {

// The result of the callbacks. They must not throw, because libcsv is C code.
struct Filled {
    CsvRows rows;
    std::vector<std::string> row;
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
        filled.rows.push_back(std::move(filled.row));
    } catch (const std::bad_alloc&) {
        filled.outOfMemory = true;
    }
    filled.row.clear();
}

class Parser {
public:
    explicit Parser(char separator)
    {
        if (csv_init(&parser_, CSV_STRICT | CSV_STRICT_FINI) != 0) {
            throw std::bad_alloc();
        }
        csv_set_delim(&parser_, static_cast<unsigned char>(separator));
    }
    ~Parser()
    {
        csv_free(&parser_);
    }
    Parser(const Parser&) = delete;
    Parser& operator=(const Parser&) = delete;

    void Add(const char* bytes, std::size_t size)
    {
        const std::size_t taken = csv_parse(&parser_, bytes, size, AddCell, AddRow, &filled_);
        Require(taken == size, "unexpected quotation mark at byte " + std::to_string(taken + 1) + " of the input");
    }

    CsvRows Finish()
    {
        Require(csv_fini(&parser_, AddCell, AddRow, &filled_) == 0, "the input ends inside quotation marks");
        return std::move(filled_.rows);
    }

private:
    void Require(bool parsed, const std::string& mistake) const
    {
        if (filled_.outOfMemory || (!parsed && csv_error(&parser_) != CSV_EPARSE)) {
            throw std::bad_alloc();
        }
        if (!parsed) {
            throw Failure("standard input, row " + std::to_string(filled_.rows.size() + 1) + ": " + mistake,
                          "put the cell between quotation marks, and double each quotation mark inside it");
        }
    }

    mutable struct csv_parser parser_ = {};  // mutable because csv_error takes a non-const pointer
    Filled filled_;
};

// Some programs begin such a file with a byte-order mark. It is not part of the first cell.
std::size_t ByteOrderMarkBytes(const char* bytes, std::size_t size)
{
    static const char kMark[] = "\xEF\xBB\xBF";
    return size >= 3 && std::memcmp(bytes, kMark, 3) == 0 ? 3 : 0;
}

std::string ReadStandardInput()
{
    std::string text;
    char block[65536];
    ssize_t got;
    while ((got = read(STDIN_FILENO, block, sizeof block)) != 0) {
        if (got == -1 && errno != EINTR) {
            throw Failure("cannot read standard input: " + ErrorText(errno), "redirect it from a file or a pipe");
        }
        text.append(block, got == -1 ? 0 : static_cast<std::size_t>(got));
    }
    return text;
}

}  // namespace

CsvRows ReadCsvFromStandardInput(char separator)
{
    const std::string text = ReadStandardInput();
    const std::size_t skipped = ByteOrderMarkBytes(text.data(), text.size());
    Parser parser(separator);
    parser.Add(text.data() + skipped, text.size() - skipped);
    return parser.Finish();
}
