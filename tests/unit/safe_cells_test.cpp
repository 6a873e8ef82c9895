// Cells and rows of the safe companion.
#include "safe/safe.h"

#include "LxFileUtils.h"
#include "support/cases.h"
#include "support/markup_model.h"
#include "support/oracle.h"
#include "support/orv_test.h"

#include <string>
#include <vector>

namespace {

using markup_model::Decoded;
using markup_model::Rows;
using orv_safe::Cell;
using orv_safe::SafeCell;
using orv_safe::SafeMarkupRow;
using orv_safe::SafeRow;
using namespace std::string_literals;

using Texts = std::vector<std::string>;

// What a browser shows of a table that consists of this text.
std::vector<Texts> Shown(const std::string& rows)
{
    return Rows(oracle::TableMarkup(rows));
}

std::string ShownCell(const std::string& markup)
{
    return Rows("<table  BORDER=2><tr><td>" + markup + "</td></tr></table>").at(0).at(0);
}

struct TextCase {
    std::string name;
    std::string text;
    std::string cell;
};

void PrintTo(const TextCase& param, std::ostream* out)
{
    *out << param.name;
}

class SafeCellTest : public ::testing::TestWithParam<TextCase> {};

TEST_P(SafeCellTest, IsTheExpectedOneAndShowsTheText)
{
    EXPECT_EQ(GetParam().cell, SafeCell(GetParam().text));
    EXPECT_EQ(Decoded(GetParam().text), ShownCell(GetParam().cell));
}

const char kUnknown[] = "\xEF\xBF\xBD";

INSTANTIATE_TEST_SUITE_P(
    Texts, SafeCellTest,
    ::testing::Values(
        TextCase{"Empty", "", ""}, TextCase{"Plain", "eth0 (up) #1", "eth0 (up) #1"},
        TextCase{"BlanksAtTheEnds", "  a  ", "  a  "}, TextCase{"Markup", "<b>", "&#60b&#62"},
        TextCase{"Reference", "&lt;", "&#38lt&#59"}, TextCase{"Quotes", "\"'", "&#34&#39"},
        TextCase{"Separators", ":,;\n", "&#58&#44&#59&#10"}, TextCase{"DigitsAfterOne", ":102 3", "&#58&#49&#48&#50 3"},
        TextCase{"DigitAfterALetter", ":a1", "&#58a1"}, TextCase{"LettersOfHexadecimal", ":ab", "&#58ab"},
        TextCase{"Controls", "\t\x01\x1F\x7F", "&#9&#1&#31&#127"}, TextCase{"CarriageReturn", "a\r\n", "a&#13&#10"},
        TextCase{"Nul", "a\0b"s, "a"s + kUnknown + "b"}, TextCase{"DigitAfterNul", "\0001"s, kUnknown + "1"s},
        TextCase{"TwoBytes", "\xC3\xBC", "\xC3\xBC"}, TextCase{"ThreeBytes", "\xE2\x82\xAC", "\xE2\x82\xAC"},
        TextCase{"FourBytes", "\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},
        TextCase{"HighControlsAreNotReferences", "\xC2\x80\xC2\x9F", "\xC2\x80\xC2\x9F"},
        TextCase{"DigitAfterALetterOfTwoBytes", ";\xC3\xBC"s + "1", "&#59\xC3\xBC"s + "1"},
        TextCase{"Latin1", "\xFC!", kUnknown + "!"s}, TextCase{"ContinuationAlone", "\x80", kUnknown},
        TextCase{"CutShort", "\xE2\x82", kUnknown},
        TextCase{"CutShortBeforeMarkup", "\xF0\x9F\x98<", kUnknown + "&#60"s},
        TextCase{"CutShortBeforeAnother", "\xE2\x82\xC3\xBC", kUnknown + "\xC3\xBC"s},
        TextCase{"Overlong", "\xC0\xBC", kUnknown + std::string(kUnknown)},
        TextCase{"Surrogate", "\xED\xA0\x80", kUnknown + std::string(kUnknown) + kUnknown},
        TextCase{"LastBeforeTheSurrogates", "\xED\x9F\xBF", "\xED\x9F\xBF"},
        TextCase{"TooLarge", "\xF4\x90\x80\x80", kUnknown + std::string(kUnknown) + kUnknown + kUnknown},
        TextCase{"Largest", "\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF"}),
    CaseName<TextCase>);

void ExpectShown(const std::string& text)
{
    EXPECT_EQ(Decoded(text), ShownCell(SafeCell(text))) << ::testing::PrintToString(text);
}

TEST(SafeCellsTest, ShowEveryByteAloneAndBesideEachKindOfByte)
{
    const std::string kinds = "\0\t &:/09a\x7F\x80\xBF\xC2\xE2\xF0\xFF"s;
    for (const char byte : AllBytes()) {
        ExpectShown({byte});
        for (const char kind : kinds) {
            ExpectShown({byte, kind});
            ExpectShown({kind, byte});
        }
    }
}

// The limits of the bytes of all characters of several bytes, and their neighbours; and each first byte.
TEST(SafeCellsTest, ShowEverySequenceOfUpToFourBytes)
{
    const std::string firsts = "\x7F\x80\xC1\xC2\xDF\xE0\xE1\xEC\xED\xEE\xEF\xF0\xF1\xF3\xF4\xF5\xFF";
    const std::string seconds = "\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0";
    const std::string others = "\x7F\x80\xBF\xC0";
    for (const char second : seconds) {
        for (const char first : AllBytes()) {
            ExpectShown({first, second, '\x80', '\xBF'});
        }
        for (const char first : firsts) {
            for (const char third : others) {
                for (const char fourth : others) {
                    ExpectShown({first, second, third, fourth});
                }
            }
        }
    }
}

struct RowCase {
    std::string name;
    Texts cells;
    std::string row;
};

void PrintTo(const RowCase& param, std::ostream* out)
{
    *out << param.name;
}

class SafeRowTest : public ::testing::TestWithParam<RowCase> {};

TEST_P(SafeRowTest, IsTheExpectedOneAndShowsEveryCellInItsPlace)
{
    const std::string row = SafeRow(GetParam().cells);

    EXPECT_EQ(GetParam().row, row);
    EXPECT_EQ((std::vector<Texts>{{"before", ""}, GetParam().cells, {"after", ""}}),
              Shown("before:;" + row + "after:;"));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SafeRowTest,
    ::testing::Values(RowCase{"One", {"A"}, "A</td><!--:-->;"}, RowCase{"OneEmpty", {""}, "</td><!--:-->;"},
                      RowCase{"Two", {"A", "b"}, "A:b;"}, RowCase{"LastOfTwoEmpty", {"A", ""}, "A:;"},
                      RowCase{"TwoEmpty", {"", ""}, ":;"}, RowCase{"Three", {"A", "b", "c"}, "A:b,c;"},
                      RowCase{"LastOfThreeEmpty", {"A", "b", ""}, "A:b,<!---->;"},
                      RowCase{"MiddleEmpty", {"A", "", "c"}, "A:,c;"},
                      RowCase{"ThreeEmpty", {"", "", ""}, ":,<!---->;"},
                      RowCase{"LastTwoOfFourEmpty", {"A", "b", "", ""}, "A:b,,<!---->;"},
                      RowCase{"Separators", {":;", ",\n", "--> "}, "&#58&#59:&#44&#10,--&#62 ;"}),
    CaseName<RowCase>);

TEST(SafeRowsTest, ARowWithoutCellsIsEmpty)
{
    EXPECT_EQ("", SafeRow({}));
    EXPECT_EQ("", SafeMarkupRow({}));
}

class CellTest : public OrvTest {};

TEST_F(CellTest, ShowsTextLikeSafeCell)
{
    EXPECT_EQ(SafeRow({"<a>", "b;", "\xFF"}), SafeMarkupRow({"<a>", std::string("b;"), Cell().Text("\xFF")}));
    EXPECT_EQ("A</td><!--:-->;", SafeMarkupRow({"A"}));
    EXPECT_EQ("A:b,<!---->;", SafeMarkupRow({"A", "b", Cell()}));
}

TEST_F(CellTest, KeepsMarkupBesideText)
{
    const std::string name = "\"><script>";

    EXPECT_EQ("<a title=\"&#34&#62&#60script&#62\">&#34&#62&#60script&#62</a>:<i>1</i>;",
              SafeMarkupRow({Cell().Markup("<a title=\"").Text(name).Markup("\">").Text(name).Markup("</a>"),
                             Cell().Markup("<i>1</i>")}));
}

struct JunctionCase {
    std::string name;
    Cell cell;
    std::string markup;
};

void PrintTo(const JunctionCase& param, std::ostream* out)
{
    *out << param.name;
}

class CellJunctionTest : public ::testing::TestWithParam<JunctionCase> {};

TEST_P(CellJunctionTest, EndsTheReferenceOfThePartBefore)
{
    EXPECT_EQ("H:" + GetParam().markup + ";", SafeMarkupRow({"H", GetParam().cell}));
}

INSTANTIATE_TEST_SUITE_P(
    Parts, CellJunctionTest,
    ::testing::Values(JunctionCase{"TextText", Cell().Text(";").Text("12a3"), "&#59&#49&#50a3"},
                      JunctionCase{"TextMarkup", Cell().Text(";").Markup("12<b>3</b>"), "&#59&#49&#50<b>3</b>"},
                      JunctionCase{"TextMarkupOfDigits", Cell().Text(";").Markup("12"), "&#59&#49&#50"},
                      JunctionCase{"TextMarkupOfAColon", Cell().Text(";").Markup(":1"), "&#59:1"},
                      JunctionCase{"TextNoMarkup", Cell().Text(";").Markup(""), "&#59"},
                      JunctionCase{"PlainMarkup", Cell().Text("1").Markup("2"), "12"},
                      JunctionCase{"MarkupText", Cell().Markup("&lt").Text("a1"), "&lt&#97&#49"},
                      JunctionCase{"MarkupTextUpper", Cell().Markup("&#x2").Text("F"), "&#x2&#70"},
                      JunctionCase{"MarkupTextDigit", Cell().Markup("&#3").Text("0z9Z"), "&#3&#48z9Z"},
                      JunctionCase{"MarkupTextZ", Cell().Markup("&a9Zz").Text("z"), "&a9Zz&#122"},
                      JunctionCase{"MarkupTextUpperA", Cell().Markup("&A").Text("A"), "&A&#65"},
                      JunctionCase{"MarkupTextUpperZ", Cell().Markup("&").Text("Z9"), "&&#90&#57"},
                      JunctionCase{"MarkupTextOther", Cell().Markup("&lt").Text("(1"), "&lt(1"},
                      JunctionCase{"MarkupTextBetween", Cell().Markup("&lt").Text("_@[`{"), "&lt_@[`{"},
                      JunctionCase{"MarkupTextBracket", Cell().Markup("&lt").Text("[1"), "&lt[1"},
                      JunctionCase{"MarkupTextBrace", Cell().Markup("&lt").Text("{1"), "&lt{1"},
                      JunctionCase{"MarkupEmptyText", Cell().Markup("&lt").Text(""), "&lt"},
                      JunctionCase{"AlphanumericMarkupText", Cell().Markup("lt").Text("a1"), "lta1"},
                      JunctionCase{"LongMarkupOfLettersText", Cell().Markup(std::string(100, 'a')).Text("1"),
                                   std::string(100, 'a') + "1"},
                      JunctionCase{"EndedMarkupText", Cell().Markup("&lt ").Text("a1"), "&lt a1"}),
    CaseName<JunctionCase>);

TEST_F(CellTest, LeavesOutMarkupThatTheRowCannotContain)
{
    const auto line = [](const std::string& markup) {
        return "SafeMarkupRow: Markup(" + markup + ") failed (22, Invalid argument).";
    };
    const auto takeLines = [] {
        Texts lines;
        for (const DlogCall& call : TakeDlogCalls()) {
            EXPECT_EQ(3, call.severity);
            EXPECT_EQ("orv_safe", call.sourceTag);
            lines.push_back(call.text);
        }
        return lines;
    };

    EXPECT_EQ(":b;", SafeMarkupRow({Cell().Markup("a:b"), "b"}));
    EXPECT_EQ(Texts{line("a:b")}, takeLines());
    EXPECT_EQ(":,,d;", SafeMarkupRow({Cell().Markup("&lt;"), Cell().Markup("a,b"), Cell().Markup("a;b"), "d"}));
    EXPECT_EQ((Texts{line("&lt;"), line("a,b"), line("a;b")}), takeLines());
    EXPECT_EQ(":,<!---->;", SafeMarkupRow({Cell().Markup("\n"), "", Cell().Markup("b\n")}));
    EXPECT_EQ((Texts{line("\n"), line("b\n")}), takeLines());
    EXPECT_EQ("a,b~:c:d~;", SafeMarkupRow({Cell().Markup("a,b~"), Cell().Markup("c:d~")}));
}

}  // namespace
