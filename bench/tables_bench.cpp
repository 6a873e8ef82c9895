// Benchmarks of table rows, and of pages made from table files.

#include "LxFileUtils.h"
#include "safe.h"
#include "support/bench.h"
#include "support/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#ifdef ORV_BENCH_ABSL
#include <absl/strings/str_cat.h>
#include <absl/strings/str_join.h>
#endif
#ifdef ORV_BENCH_BOOST
#include <boost/algorithm/string/join.hpp>
#include <boost/range/iterator_range.hpp>
#endif

namespace bench {

namespace {

// ---- Rows

struct Cells : Fixture {
    std::vector<std::string> cells;

    explicit Cells(std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i) {
            cells.push_back("cell" + std::to_string(i * 7919 % 100000));
        }
    }
};

std::string FloorRow(const std::vector<std::string>& cells)
{
    std::size_t bytes = 0;
    for (const std::string& cell : cells) {
        bytes += cell.size() + 1;
    }
    std::string row(bytes, ',');
    char* at = row.data();
    for (const std::string& cell : cells) {
        std::memcpy(at, cell.data(), cell.size());
        at += cell.size() + 1;
    }
    if (cells.size() > 1) {
        row.back() = ';';
    }
    if (!cells.empty()) {
        row[cells[0].size()] = ':';
    }
    return row;
}

void AddRow(const std::string& name, std::size_t count)
{
    const Workload workload = {name + std::to_string(count), static_cast<double>(count), "cell"};
    const auto make = [count] { return Cells(count); };
    Add(workload, "ours", make, [](Cells& row) { return orv_fileutils::AddTextFileFormattedRow(row.cells); });
    Add(workload, "floor", make, [](const Cells& row) { return FloorRow(row.cells); });
    Add(workload, "std::ostringstream", make, [](const Cells& row) {
        std::ostringstream stream;
        for (std::size_t i = 0; i < row.cells.size(); ++i) {
            stream << row.cells[i] << (i == 0 ? ':' : i + 1 == row.cells.size() ? ';' : ',');
        }
        return stream.str();
    });
#ifdef ORV_BENCH_ABSL
    Add(workload, "Abseil StrJoin", make, [](const Cells& row) {
        const char* const end = row.cells.size() == 1 ? "" : ";";
        return absl::StrCat(row.cells[0], ":", absl::StrJoin(row.cells.begin() + 1, row.cells.end(), ","), end);
    });
#endif
#ifdef ORV_BENCH_BOOST
    Add(workload, "Boost join", make, [](const Cells& row) {
        const auto rest = boost::make_iterator_range(row.cells.begin() + 1, row.cells.end());
        return row.cells[0] + ':' + boost::algorithm::join(rest, ",") + (row.cells.size() == 1 ? "" : ";");
    });
#endif
}

// ---- Pages

const char kHeader[] =
    "<KPX_PLD ua=\"none\" ln=\"1\" schema=\"1\" source=\"Tarnwick\" destination=\"HTML\" version=\"1\" "
    "tagNestLevel=\"1\"> "
    "<!DOCTYPE HTML PUBLIC \"-//W3C//DTD HTML 4.01 Frameset//EN\" \"http://www.w3.org/TR/html4/frameset.dtd\">"
    "<html><head><meta content=\"text/html; charset=utf-8\" http-equiv=\"Content-Type\" >"
    "<meta http-equiv=\"refresh\" content=\"10\" > </head><body>";
const char kFooter[] = "</body></html></KPX_PLD>";

// A table file, and a path for the page on the file system of the temporary page, so that the page is renamed.
struct Page : Fixture {
    std::string textFile;
    std::string page;
    std::string temp;

    explicit Page(std::string file) : textFile(std::move(file))
    {
        char path[64];  // always of one length, because a longer path takes more instructions
        (void)std::snprintf(path, sizeof path, "/var/tmp/orv-bench-page-%07d", static_cast<int>(getpid()));
        page = path;
        temp = page + ".new";
    }

    Page(Page&&) = default;

    ~Page()
    {
        (void)unlink(page.c_str());
    }

    [[nodiscard]] std::string After() const
    {
        return Digest(page);
    }
};

void MakeTables(const std::string& path, std::size_t tables, std::size_t rows, std::size_t cells)
{
    std::ofstream file(path);
    for (std::size_t table = 0; table < tables; ++table) {
        for (std::size_t row = 0; row < rows; ++row) {
            file << "Port " << row << ':';
            for (std::size_t cell = 1; cell < cells; ++cell) {
                file << "cell" << (table * 7919 + row * 31 + cell) % 100000 << (cell + 1 == cells ? ';' : ',');
            }
        }
        file << (table % 10 == 9 ? "\n\n" : "\n");
    }
}

// The floor: reads the text in blocks of the size that a stream uses, and writes the page in blocks of that size.
class PageWriter {
public:
    explicit PageWriter(int descriptor) : descriptor_(descriptor)
    {
    }

    void Write(const char* bytes, std::size_t count)
    {
        while (count > sizeof block_ - used_) {
            const std::size_t part = sizeof block_ - used_;
            std::memcpy(block_ + used_, bytes, part);
            used_ += part;
            bytes += part;
            count -= part;
            Flush();
        }
        std::memcpy(block_ + used_, bytes, count);
        used_ += count;
    }

    template <std::size_t kBytes>
    void Write(const char (&text)[kBytes])
    {
        Write(text, kBytes - 1);
    }

    void Flush()
    {
        good_ = good_ && write(descriptor_, block_, used_) == static_cast<ssize_t>(used_);
        used_ = 0;
    }

    [[nodiscard]] bool Good() const
    {
        return good_;
    }

private:
    int descriptor_;
    std::size_t used_ = 0;
    bool good_ = true;
    char block_[BUFSIZ - 1];
};

// Splits the rest of a row at ",". An empty rest is one empty cell; an empty piece at the end is not a cell.
void FloorCells(PageWriter& page, const char* rest, const char* end)
{
    do {
        const void* const comma = std::memchr(rest, ',', static_cast<std::size_t>(end - rest));
        const char* const cellEnd = comma == nullptr ? end : static_cast<const char*>(comma);
        page.Write("<td>");
        page.Write(rest, static_cast<std::size_t>(cellEnd - rest));
        page.Write("</td>");
        rest = comma == nullptr ? end : cellEnd + 1;
    } while (rest != end);
}

void FloorTable(PageWriter& page, const char* row, const char* lineEnd)
{
    page.Write("<table  BORDER=2>");
    do {
        const void* const terminator = std::memchr(row, ';', static_cast<std::size_t>(lineEnd - row));
        const char* const end = terminator == nullptr ? lineEnd : static_cast<const char*>(terminator);
        const void* const colon = std::memchr(row, ':', static_cast<std::size_t>(end - row));
        const char* const headEnd = colon == nullptr ? end : static_cast<const char*>(colon);
        page.Write("<tr><td>");
        page.Write(row, static_cast<std::size_t>(headEnd - row));
        page.Write("</td>");
        FloorCells(page, colon == nullptr ? row : headEnd + 1, end);
        page.Write("</tr>");
        row = terminator == nullptr ? lineEnd : end + 1;
    } while (row != lineEnd);
    page.Write("</table>");
}

void FloorLine(PageWriter& page, const char* line, const char* end)
{
    if (line == end) {
        page.Write("<p></p>");
    } else {
        FloorTable(page, line, end);
    }
}

void FloorLines(PageWriter& page, int text)
{
    char block[BUFSIZ - 1];
    std::string line;  // the part of a line that was in an earlier block
    ssize_t got = 0;
    while ((got = read(text, block, sizeof block)) > 0) {
        const char* at = block;
        const char* const end = block + got;
        while (const void* const found = std::memchr(at, '\n', static_cast<std::size_t>(end - at))) {
            const char* const lineEnd = static_cast<const char*>(found);
            if (line.empty()) {
                FloorLine(page, at, lineEnd);
            } else {
                line.append(at, lineEnd);
                FloorLine(page, line.data(), line.data() + line.size());
                line.clear();
            }
            at = lineEnd + 1;
        }
        line.append(at, end);
    }
    if (!line.empty()) {
        FloorLine(page, line.data(), line.data() + line.size());
    }
}

bool FloorPage(const Page& paths)
{
    const int text = open(paths.textFile.c_str(), O_RDONLY);
    const int temp = open(paths.temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (text == -1 || temp == -1) {
        return false;
    }
    PageWriter page(temp);
    page.Write(kHeader);
    FloorLines(page, text);
    page.Write(kFooter);
    page.Flush();
    (void)close(text);
    (void)close(temp);
    struct stat status;
    return page.Good() && stat(paths.temp.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           rename(paths.temp.c_str(), paths.page.c_str()) == 0;
}

// Code that a program would write by hand, with streams only: string streams split the lines, ...
void StringStreamTable(std::ostream& page, const std::string& line)
{
    page << "<table  BORDER=2>";
    std::istringstream rows(line);
    for (std::string row; std::getline(rows, row, ';');) {
        const bool headed = row.find(':') != std::string::npos;
        std::istringstream cells(row);
        std::string head;
        std::getline(cells, head, ':');
        page << "<tr><td>" << head << "</td>";
        if (!headed) {
            cells.clear();
            cells.str(row);
        }
        std::string cell;
        if (!std::getline(cells, cell, ',')) {
            page << "<td></td>";
        } else {
            do {
                page << "<td>" << cell << "</td>";
            } while (std::getline(cells, cell, ','));
        }
        page << "</tr>";
    }
    page << "</table>";
}

// ... or std::string::find does, and views avoid copies. The page is a stream or a string.
void Put(std::ostream& page, std::string_view text)
{
    page << text;
}

void Put(std::string& page, std::string_view text)
{
    page += text;
}

template <typename PageSink>
void ViewTable(PageSink& page, std::string_view line)
{
    Put(page, "<table  BORDER=2>");
    while (!line.empty()) {
        const std::string_view row = line.substr(0, line.find(';'));
        line.remove_prefix(std::min(line.size(), row.size() + 1));
        const std::size_t colon = row.find(':');
        Put(page, "<tr><td>");
        Put(page, row.substr(0, colon));
        Put(page, "</td>");
        std::string_view rest = colon == std::string_view::npos ? row : row.substr(colon + 1);
        do {
            const std::string_view cell = rest.substr(0, rest.find(','));
            rest.remove_prefix(std::min(rest.size(), cell.size() + 1));
            Put(page, "<td>");
            Put(page, cell);
            Put(page, "</td>");
        } while (!rest.empty());
        Put(page, "</tr>");
    }
    Put(page, "</table>");
}

template <typename WriteTable>
bool StreamPage(const Page& paths, const WriteTable& writeTable)
{
    std::ifstream text(paths.textFile);
    std::ofstream page(paths.temp);
    page << kHeader;
    for (std::string line; std::getline(text, line);) {
        if (line.empty()) {
            page << "<p></p>";
        } else {
            writeTable(page, line);
        }
    }
    page << kFooter;
    page.close();
    return page && std::rename(paths.temp.c_str(), paths.page.c_str()) == 0;
}

// The whole text in one string, and the whole page in another, which one write(2) writes.
bool ReadWhole(const std::string& path, std::string& text)
{
    const int file = open(path.c_str(), O_RDONLY);
    struct stat status;
    if (file == -1 || fstat(file, &status) != 0) {
        return false;
    }
    text.resize(static_cast<std::size_t>(status.st_size));
    std::size_t done = 0;
    ssize_t got = 1;
    while (done < text.size() && got > 0) {  // one read takes at most 2 GiB
        got = read(file, text.data() + done, text.size() - done);
        done += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    (void)close(file);
    return done == text.size();
}

bool WriteWhole(const std::string& path, const std::string& page)
{
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    std::size_t done = 0;
    ssize_t put = 1;
    while (file != -1 && done < page.size() && put > 0) {
        put = write(file, page.data() + done, page.size() - done);
        done += put > 0 ? static_cast<std::size_t>(put) : 0;
    }
    return file != -1 && close(file) == 0 && done == page.size();
}

bool WholePage(const Page& paths)
{
    std::string text;
    if (!ReadWhole(paths.textFile, text)) {
        return false;
    }
    std::string page = kHeader;
    for (std::string_view rest = text; !rest.empty();) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(rest.size(), line.size() + 1));
        if (line.empty()) {
            page += "<p></p>";
        } else {
            ViewTable(page, line);
        }
    }
    page += kFooter;
    return WriteWhole(paths.temp, page) && std::rename(paths.temp.c_str(), paths.page.c_str()) == 0;
}

bool Generate(const Page& paths)
{
    orv_fileutils::GenHtmlPagefromTextFile(paths.textFile.c_str(), paths.page.c_str());
    return true;
}

// A page of tables, and its text file.
struct PageSize {
    std::size_t tables;
    std::size_t rows;  // of each table

    [[nodiscard]] Workload As(const std::string& family) const
    {
        const bool heavy = tables >= 20000;

        const std::size_t all = tables * rows;
        return Workload{family + std::to_string(all),
                        static_cast<double>(all),
                        "row",
                        /*calls=*/heavy ? 1 : 0,
                        heavy,
                        /*inMemory=*/true};
    }

    [[nodiscard]] Page Make() const
    {
        const PageSize size = *this;
        return Page(Shared("tables_" + std::to_string(tables) + '_' + std::to_string(rows),
                           [size](const std::string& path) { MakeTables(path, size.tables, size.rows, 8); }));
    }
};

void AddPage(const std::string& family, PageSize size)
{
    const Workload workload = size.As(family);
    const auto make = [size] { return size.Make(); };
    Add(workload, "ours", make, Generate);
    Add(workload, "floor", make, FloorPage);
    Add(workload, "streams", make, [](const Page& paths) { return StreamPage(paths, StringStreamTable); });
    Add(workload, "streams with views", make,
        [](const Page& paths) { return StreamPage(paths, ViewTable<std::ofstream>); });
    Add(workload, "one string, one write", make, WholePage);
}

// The floor of a page that is checked is the page that is not.
void AddPublished(PageSize size)
{
    const Workload workload = size.As("publish/rows:");
    const auto make = [size] { return size.Make(); };
    Add(workload, "ours", make, [](const Page& paths) { return orv_safe::PublishPage(paths.textFile, paths.page); });
    Add(workload, "floor", make, Generate);
}

}  // namespace

void AddTables()
{
    AddRow("row/cells:", 1);
    AddRow("row/cells:", 8);
    AddRow("row/cells:", 64);
    for (const PageSize size :
         {PageSize{1, 10}, PageSize{1000, 50}, PageSize{26000, 50}}) {  // the last: 100 MB of text
        AddPage("page/rows:", size);
        AddPublished(size);
    }
    ForEachSize(10000000, [](std::size_t cells) { AddRow("growth/row:", cells); });
    ForEachSize(10000000, [](std::size_t rows) {
        const std::size_t rowsOfATable = std::min<std::size_t>(rows, 50);
        AddPage("growth/page:", {rows / rowsOfATable, rowsOfATable});
    });
}

}  // namespace bench
