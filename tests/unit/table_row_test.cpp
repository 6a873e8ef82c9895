#include "LxFileUtils.h"
#include "support/cases.h"
#include "support/oracle.h"
#include "support/orv_test.h"

#include <cstdint>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

using orv_fileutils::AddTextFileFormattedRow;
using orv_fileutils::TextFileTableDelimter;
using ::testing::PrintToString;
using namespace std::string_literals;

namespace {

using Cells = std::vector<std::string>;

std::string RowOf(Cells cells)
{
    return AddTextFileFormattedRow(cells);
}

struct RowCase {
    const char* name;
    Cells cells;
    std::string row;
};

void PrintTo(const RowCase& param, std::ostream* out)
{
    *out << param.name;
}

class RowCaseTest : public OrvTest, public ::testing::WithParamInterface<RowCase> {};

TEST_P(RowCaseTest, FormatsTheRowAndLeavesTheCellsAlone)
{
    Cells cells = GetParam().cells;

    EXPECT_EQ(GetParam().row, AddTextFileFormattedRow(cells));
    EXPECT_EQ(GetParam().row, oracle::Row(cells));

    EXPECT_EQ(GetParam().cells, cells);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, RowCaseTest,
    ::testing::Values(RowCase{"None", {}, ""}, RowCase{"HeadAloneHasNoTerminator", {"A"}, "A:"},
                      RowCase{"Two", {"A", "B"}, "A:B;"}, RowCase{"Three", {"A", "B", "D"}, "A:B,D;"},
                      RowCase{"Four", {"A", "B", "D", "E"}, "A:B,D,E;"}, RowCase{"EmptyHead", {"", "x"}, ":x;"},
                      RowCase{"ThreeEmpty", {"", "", ""}, ":,;"}, RowCase{"OneEmpty", {""}, ":"},
                      RowCase{"TwoEmpty", {"", ""}, ":;"}, RowCase{"EmptyLast", {"A", "B", ""}, "A:B,;"},
                      RowCase{"Port", {"Port", "1", "up"}, "Port:1,up;"}),
    CaseName<RowCase>);

INSTANTIATE_TEST_SUITE_P(
    BytesAreNotInterpreted, RowCaseTest,
    ::testing::Values(RowCase{"TerminatorInACell", {"a;b", "c"}, "a;b:c;"},
                      RowCase{"EveryMarkInEveryCell", {":,;\n", ":,;\n", ":,;\n"}, ":,;\n::,;\n,:,;\n;"},
                      RowCase{"MarksInAHeadAlone", {"a:b,c;"}, "a:b,c;:"},
                      RowCase{"Nul", {"\0"s, "a\0b"s, "\0"s}, "\0:a\0b,\0;"s},
                      RowCase{"AllByteValues", {AllBytes(), AllBytes()}, AllBytes() + ":" + AllBytes() + ";"},
                      RowCase{"Blanks", {" A ", " B\t", "\r"}, " A : B\t,\r;"},
                      RowCase{"Markup", {"<b>", "&amp", "\"q\""}, "<b>:&amp,\"q\";"},
                      RowCase{"Formats", {"%s", "%n", "\\n"}, "%s:%n,\\n;"}),
    CaseName<RowCase>);

class TableRowTest : public OrvTest {};

TEST_F(TableRowTest, AgreesWithAModelForAnyCells)
{
    Random random(1);
    for (int i = 0; i < 30000; ++i) {
        Cells cells(random.Below(7));
        for (std::string& cell : cells) {
            cell = random.Text("ab:,;\n\0\xFF"s, 5);
        }
        const Cells before = cells;

        ASSERT_EQ(oracle::Row(before), AddTextFileFormattedRow(cells)) << PrintToString(before);
        ASSERT_EQ(before, cells);
    }
}

TEST_F(TableRowTest, LeavesCapacityAndPlaceOfTheCellsAlone)
{
    Cells cells = {"Port", std::string(100, 'x')};
    cells.reserve(10);
    const std::string* const first = cells.data();
    const char* const text = cells[1].data();
    const std::size_t capacity = cells.capacity();

    EXPECT_EQ("Port:" + std::string(100, 'x') + ";", AddTextFileFormattedRow(cells));

    EXPECT_EQ(first, cells.data());
    EXPECT_EQ(text, cells[1].data());
    EXPECT_EQ(capacity, cells.capacity());
}

TEST_F(TableRowTest, AcceptsLongAndManyCells)
{
    EXPECT_EQ(std::string(1 << 20, 'a') + ":" + std::string(1 << 20, 'b') + ";",
              RowOf({std::string(1 << 20, 'a'), std::string(1 << 20, 'b')}));

    Cells many(100001, "x");
    const std::string row = AddTextFileFormattedRow(many);

    EXPECT_EQ(200002U, row.size());
    EXPECT_EQ("x:x,x,", row.substr(0, 6));
    EXPECT_EQ(",x,x;", row.substr(row.size() - 5));
}

TEST_F(TableRowTest, ReturnsAStringOfItsOwnForEachCall)
{
    Cells cells = {"A", "B"};

    std::string first = AddTextFileFormattedRow(cells);
    first += "changed";

    EXPECT_EQ("A:B;", AddTextFileFormattedRow(cells));
}

TEST_F(TableRowTest, TheTableDelimiterIsOneLineFeed)
{
    const std::string delimiter = TextFileTableDelimter();

    EXPECT_EQ(1U, delimiter.size());
    EXPECT_EQ(0x0A, delimiter[0]);
}

TEST_F(TableRowTest, TableDelimitersAreIndependentStrings)
{
    std::string first = TextFileTableDelimter();
    const std::string second = TextFileTableDelimter();
    EXPECT_EQ(first, second);

    first[0] = 'x';
    first += "changed";

    EXPECT_EQ("\n", second);
    EXPECT_EQ("\n", TextFileTableDelimter());
}

#if SIZE_MAX == UINT32_MAX && !_GLIBCXX_USE_CXX11_ABI
// Strings from before C++11 can share one block, so on 32 bits, cells can be longer together than any string.
TEST_F(TableRowTest, ARowLongerThanAnyStringIsRefused)
{
    std::vector<std::string> cells(4096, std::string(1024UL * 1024, 'x'));

    EXPECT_THROW(AddTextFileFormattedRow(cells), std::length_error);
}
#endif

TEST_F(TableRowTest, RowsAndDelimiterMakeATableLine)
{
    EXPECT_EQ("Port:1,up;Port:2,down;\n",
              RowOf({"Port", "1", "up"}) + RowOf({"Port", "2", "down"}) + TextFileTableDelimter());
}

TEST_F(TableRowTest, AOneCellRowRunsIntoTheNextOne)
{
    EXPECT_EQ("Total:\n", RowOf({"Total"}) + TextFileTableDelimter());
    EXPECT_EQ("Total:Port:1,up;\n", RowOf({"Total"}) + RowOf({"Port", "1", "up"}) + TextFileTableDelimter());
}

TEST_F(TableRowTest, ARowWithoutCellsLeavesNoTrace)
{
    EXPECT_EQ("A:1;B:2;\n", RowOf({"A", "1"}) + RowOf({}) + RowOf({"B", "2"}) + TextFileTableDelimter());
}

}  // namespace
