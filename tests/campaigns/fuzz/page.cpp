// GenHtmlPagefromTextFile. The input is the text table file.
#include "LxFileUtils.h"
#include "fuzz.h"

#include <unistd.h>

#include <fstream>
#include <sstream>

namespace {

constexpr char kHeader[] =
    R"(<KPX_PLD ua="none" ln="1" schema="1" source="Tarnwick" destination="HTML" version="1" tagNestLevel="1"> )"
    R"(<!DOCTYPE HTML PUBLIC "-//W3C//DTD HTML 4.01 Frameset//EN" "http://www.w3.org/TR/html4/frameset.dtd">)"
    R"(<html><head><meta content="text/html; charset=utf-8" http-equiv="Content-Type" >)"
    R"(<meta http-equiv="refresh" content="10" > </head><body>)";
constexpr char kFooter[] = "</body></html></KPX_PLD>";

std::string Cell(const std::string& text)
{
    return "<td>" + text + "</td>";
}

std::string TableByModel(const std::string& line)
{
    std::string table = "<table  BORDER=2>";
    for (const std::string& row : PiecesByModel(line, ';')) {
        std::string rest = row;
        const std::string head = TakeUpTo(':', rest);
        table += "<tr>" + Cell(head);
        for (const std::string& cell : PiecesByModel(head.size() == row.size() ? row : rest, ',')) {
            table += Cell(cell);
        }
        table += "</tr>";
    }
    return table + "</table>";
}

std::string PageByModel(std::string bytes)
{
    std::string page = kHeader;
    while (!bytes.empty()) {
        const std::string line = TakeUpTo('\n', bytes);
        page += line.empty() ? "<p></p>" : TableByModel(line);
    }
    return page + kFooter;
}

std::string Take(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    Require(unlink(path.c_str()) == 0, "there is a page");
    return bytes.str();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const MemoryFile textFile;
    // On the file system of the library's temporary page, so that the move there is a rename.
    static const std::string pagePath = "/var/tmp/orv_fuzz_page_" + std::to_string(getpid());
    static const std::string temporary = "/var/tmp/TextToHtml_" + std::to_string(getpid()) + ".tmp";
    const std::string bytes(data, data + size);
    textFile.Write(bytes);

    orv_fileutils::GenHtmlPagefromTextFile(textFile.Path().c_str(), pagePath.c_str());

    Require(Take(pagePath) == PageByModel(bytes), "the page is that of the model");
    Require(access(temporary.c_str(), F_OK) != 0, "the temporary page is gone");
    Require(Reports() == 0, "nothing is reported");
    return 0;
}
