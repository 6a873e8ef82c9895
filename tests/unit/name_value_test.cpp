#include "LxFileUtils.h"
#include "support/cases.h"
#include "support/faults.h"
#include "support/messages.h"
#include "support/oracle.h"
#include "support/orv_test.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <ostream>
#include <string>
#include <vector>

using orv_fileutils::ReadNameValueFromFile;
using ::testing::PrintToString;
using namespace std::string_literals;

namespace {

using oracle::NameValues;

class NameValueTest : public OrvTest {
protected:
    // Reads a file with these bytes. Reading succeeds for any bytes.
    NameValues Read(const std::string& bytes, char delimiter = '=', const std::string& commentPrefix = "#",
                    NameValues nameValues = {})
    {
        const std::string file = dir_.Write("file", bytes);
        EXPECT_TRUE(ReadNameValueFromFile(file, nameValues, delimiter, commentPrefix));
        return nameValues;
    }
};

// ---- Names and values

struct FileCase {
    const char* name;
    std::string bytes;
    NameValues nameValues;
};

void PrintTo(const FileCase& param, std::ostream* out)
{
    *out << param.name;
}

// Delimiter '=' and comment prefix "#".
class FileCaseTest : public NameValueTest, public ::testing::WithParamInterface<FileCase> {};

TEST_P(FileCaseTest, ReadsTheEntries)
{
    EXPECT_EQ(GetParam().nameValues, Read(GetParam().bytes));
    EXPECT_EQ(GetParam().nameValues, oracle::Read(GetParam().bytes, '=', "#", {}));
}

INSTANTIATE_TEST_SUITE_P(
    Entries, FileCaseTest,
    ::testing::Values(
        FileCase{"One", "key=value\n", {{"key", "value"}}},
        FileCase{"BlanksAround", "  key  =  some value  \n", {{"key", "some value"}}},
        FileCase{"TabsAround", "\tkey\t=\tsome\tvalue\t\n", {{"key", "some\tvalue"}}},
        FileCase{"InnerBlanksOfTheName", " the  key = value\n", {{"the  key", "value"}}},
        FileCase{"FirstDelimiterDivides", "a=b=c\n", {{"a", "b=c"}}},
        FileCase{"DelimitersAlone", "===\n", {{"", "=="}}},
        FileCase{"NothingAfterTheDelimiter", "key=\n", {{"key", ""}}},
        FileCase{"BlanksAfterTheDelimiter", "key=  \t \n", {{"key", ""}}},
        FileCase{"NoDelimiter", "key\n", {{"key", ""}}},
        FileCase{"NoDelimiterButBlanks", "  two words \n", {{"two words", ""}}},
        FileCase{"EmptyName", "=value\n", {{"", "value"}}}, FileCase{"BlankName", "   = value\n", {{"", "value"}}},
        FileCase{"EmptyNameAndValue", "=\n", {{"", ""}}},
        FileCase{"LaterLineWins", "a=1\nb=2\na=3\n", {{"a", "3"}, {"b", "2"}}},
        FileCase{"LaterEmptyValueWins", "a=1\na=\n", {{"a", ""}}},
        FileCase{"LaterLineWithoutDelimiterWins", "a=1\na\n", {{"a", ""}}},
        FileCase{"ValueDoesNotLeakIntoAnEmptyOne", "a=1\nb=\nc\nd=4\n", {{"a", "1"}, {"b", ""}, {"c", ""}, {"d", "4"}}},
        FileCase{"CaseCounts", "A=1\na=2\n", {{"A", "1"}, {"a", "2"}}}),
    CaseName<FileCase>);

INSTANTIATE_TEST_SUITE_P(Lines, FileCaseTest,
                         ::testing::Values(FileCase{"Empty", "", {}}, FileCase{"LineFeed", "\n", {}},
                                           FileCase{"BlankLines", "\n  \n\t\n\v\f\r\n \n", {}},
                                           FileCase{"CommentsAlone", "#\n# a=1\n   # b=2\n#c=3", {}},
                                           FileCase{"BlanksAndComments", "\n# a=1\n\n  \n#", {}},
                                           FileCase{"NoFinalLineFeed", "a=1\nb=2", {{"a", "1"}, {"b", "2"}}},
                                           FileCase{"NoFinalLineFeedNoDelimiter", "a=1\nb", {{"a", "1"}, {"b", ""}}},
                                           FileCase{"NoFinalLineFeedNoValue", "a=1\nb=", {{"a", "1"}, {"b", ""}}},
                                           FileCase{"CommentLines", "# x=1\n   # x=1\ny=2\n", {{"y", "2"}}},
                                           FileCase{"CommentBehindAValue", "x=1 # note\n", {{"x", "1 # note"}}},
                                           FileCase{"CommentPrefixInAName", "x#y=1\n", {{"x#y", "1"}}},
                                           FileCase{"CrLf",
                                                    "a=1\r\nb=\r\nc\r\n\r\n# d=4\r\ne=5\r\n",
                                                    {{"a", "1"}, {"b", ""}, {"c", ""}, {"e", "5"}}},
                                           FileCase{"CrInsideALine", "a\rb=1\r2\n", {{"a\rb", "1\r2"}}},
                                           FileCase{"CrAloneEndsNoLine", "a=1\rb=2\r", {{"a", "1\rb=2"}}}),
                         CaseName<FileCase>);

INSTANTIATE_TEST_SUITE_P(
    BytesAreNotInterpreted, FileCaseTest,
    ::testing::Values(FileCase{"Nul", "a\0b=\0c\0\n\0=1\n"s, {{"a\0b"s, "\0c\0"s}, {"\0"s, "1"}}},
                      FileCase{"HighBytes", "\xFF\x80=\xA0\xFE \n", {{"\xFF\x80", "\xA0\xFE"}}},
                      FileCase{"Quotes", "\"a=b\" = 'c'\n", {{"\"a", "b\" = 'c'"}}},
                      FileCase{"Backslashes", "a\\=b=c\\\nd=e\\nf\n", {{"a\\", "b=c\\"}, {"d", "e\\nf"}}},
                      FileCase{"Sections", "[a]\nb=1\n", {{"[a]", ""}, {"b", "1"}}},
                      FileCase{"ByteOrderMark", "\xEF\xBB\xBF#a=1\n", {{"\xEF\xBB\xBF#a", "1"}}},
                      FileCase{"Formats", "%s=%n\n", {{"%s", "%n"}}}),
    CaseName<FileCase>);

TEST_F(NameValueTest, KeepsEveryByteValueExceptLineFeedAndDelimiter)
{
    std::string bytes = AllBytes();
    bytes.erase(bytes.find('='), 1);
    bytes.erase(bytes.find('\n'), 1);  // neither end is white space

    EXPECT_EQ((NameValues{{bytes, bytes}}), Read(bytes + "=" + bytes + "\n"));
}

TEST_F(NameValueTest, ReadsLinesOfMegabytes)
{
    const std::string name(1 << 20, 'n');
    const std::string value(3 << 20, 'v');

    EXPECT_EQ((NameValues{{name, value}, {name + "x", ""}, {"b", "2"}}),
              Read(name + "=" + value + "\n" + name + "x\n#" + value + "\nb=2\n"));
}

TEST_F(NameValueTest, ReadsManyLines)
{
    std::string bytes;
    NameValues expected;
    for (int i = 0; i < 100000; ++i) {
        bytes += "name" + std::to_string(i) + " = " + std::to_string(2 * i) + "\n";
        expected["name" + std::to_string(i)] = std::to_string(2 * i);
    }

    EXPECT_TRUE(expected == Read(bytes));
}

// ---- The map

TEST_F(NameValueTest, KeepsEntriesThatTheFileDoesNotContain)
{
    EXPECT_EQ((NameValues{{"", "nameless"}, {"a", "1"}, {"b", "old"}, {"c", "3"}}),
              Read("a=1\nc=3\n", '=', "#", {{"", "nameless"}, {"b", "old"}}));
}

TEST_F(NameValueTest, OverwritesEntriesThatTheFileContains)
{
    EXPECT_EQ((NameValues{{"", "new"}, {"a", "1"}, {"b", ""}, {"c", ""}}),
              Read("a=1\nb=\nc\n=new\n", '=', "#", {{"", "old"}, {"a", "old"}, {"b", "old"}, {"c", "old"}}));
}

TEST_F(NameValueTest, LeavesTheMapAloneWhenThereAreNoEntries)
{
    EXPECT_EQ((NameValues{{"a", "old"}}), Read("", '=', "#", {{"a", "old"}}));
    EXPECT_EQ((NameValues{{"a", "old"}}), Read("\n  \n# a=1\n", '=', "#", {{"a", "old"}}));
}

// ---- Delimiter and comment prefix

struct SyntaxCase {
    const char* name;
    char delimiter;
    std::string commentPrefix;
    std::string bytes;
    NameValues nameValues;
};

void PrintTo(const SyntaxCase& param, std::ostream* out)
{
    *out << param.name;
}

class SyntaxCaseTest : public NameValueTest, public ::testing::WithParamInterface<SyntaxCase> {};

TEST_P(SyntaxCaseTest, ReadsTheEntries)
{
    EXPECT_EQ(GetParam().nameValues, Read(GetParam().bytes, GetParam().delimiter, GetParam().commentPrefix));
    EXPECT_EQ(GetParam().nameValues,
              oracle::Read(GetParam().bytes, GetParam().delimiter, GetParam().commentPrefix, {}));
}

INSTANTIATE_TEST_SUITE_P(Delimiters, SyntaxCaseTest,
                         ::testing::Values(SyntaxCase{"Colon", ':', "#", "a=1:b=2\n", {{"a=1", "b=2"}}},
                                           SyntaxCase{"Blank", ' ', "#", " a  b c \n d\n", {{"a", "b c"}, {"d", ""}}},
                                           SyntaxCase{"Tab", '\t', "#", "\ta b\tc\td\t\n", {{"a b", "c\td"}}},
                                           SyntaxCase{"Nul", '\0', "#", "a\0b=c\0d\n"s, {{"a", "b=c\0d"s}}},
                                           SyntaxCase{"HighestByte",
                                                      '\xFF',
                                                      "#",
                                                      "a\xFF"
                                                      "b\xFF\n\xFE=1\n",
                                                      {{"a", "b\xFF"}, {"\xFE=1", ""}}},
                                           SyntaxCase{"ByteAbove7F",
                                                      '\x80',
                                                      "#",
                                                      "a\x80"
                                                      "b\n",
                                                      {{"a", "b"}}},
                                           SyntaxCase{
                                               "LineFeedIsInNoLine", '\n', "#", "a=1\nb\n", {{"a=1", ""}, {"b", ""}}},
                                           SyntaxCase{"CarriageReturn", '\r', "#", "a\rb\r\n", {{"a", "b"}}},
                                           SyntaxCase{"Letter", 'x', "#", "axbxc\nxd\n", {{"a", "bxc"}, {"", "d"}}}),
                         CaseName<SyntaxCase>);

INSTANTIATE_TEST_SUITE_P(
    CommentPrefixes, SyntaxCaseTest,
    ::testing::Values(SyntaxCase{"None", '=', "", "#x=1\n\n=2\n", {{"#x", "1"}, {"", "2"}}},
                      SyntaxCase{"Long", '=', "//", "//a=1\n  // b=2\n/c=3\n/ /d=4\n", {{"/c", "3"}, {"/ /d", "4"}}},
                      SyntaxCase{"LongerThanTheLine", '=', "a=1#", "a=1\n", {{"a", "1"}}},
                      SyntaxCase{"TheWholeLine", '=', "a=1", "a=1\na=12\na=2\n", {{"a", "2"}}},
                      SyntaxCase{"CaseCounts", '=', "rem", "rem a=1\nREM b=2\n", {{"REM b", "2"}}},
                      SyntaxCase{"BlankFirstNeverFits", '=', " #", " #a=1\n", {{"#a", "1"}}},
                      SyntaxCase{"BlankLastIsTrimmedAway", '=', "# ", "# a=1\n#\n#b=2\n", {{"#", ""}, {"#b", "2"}}},
                      SyntaxCase{"SameAsTheDelimiter", '#', "#", "#a\n  # b\nc#1\n", {{"c", "1"}}},
                      SyntaxCase{"BeginsWithTheDelimiter", '=', "==", "=a\n==b\n= =c\n", {{"", "=c"}}},
                      SyntaxCase{"HighByte",
                                 '=',
                                 "\xFF",
                                 "\xFF"
                                 "a=1\n\xFE"
                                 "b=2\n",
                                 {{"\xFE"
                                   "b",
                                   "2"}}},
                      SyntaxCase{"NulFirst", '=', "\0#"s, "\0#a=1\n\0b=2\n"s, {{"\0b"s, "2"}}},
                      SyntaxCase{"NoWildcards", '=', "*", "a=1\n*b=2\n", {{"a", "1"}}}),
    CaseName<SyntaxCase>);

TEST_F(NameValueTest, AcceptsEveryByteValueAsDelimiter)
{
    for (const char delimiter : AllBytes()) {
        const std::string line = "n"s + delimiter + "1";
        const NameValues expected = delimiter == '\n'  ? NameValues{{"n", ""}, {"1", ""}}
                                    : delimiter == 'n' ? NameValues{{"", "n1"}}
                                                       : NameValues{{"n", "1"}};

        EXPECT_EQ(expected, Read(line, delimiter, "")) << PrintToString(delimiter);
    }
}

// ---- Any text

TEST_F(NameValueTest, AgreesWithAModelForAnyText)
{
    const std::string alphabet = "aab==#/ \t\r\n\n\0\xFF"s;
    const TempDir memory(MemoryDirectory());  // because many files take long on a busy disk
    Random random(1);
    std::size_t entries = 0;
    for (int i = 0; i < 5000; ++i) {
        const std::string bytes = random.Text(alphabet, 200);
        const char delimiter = random.ByteOf("====ab# \t\r\n\0\xFF"s);
        const std::string commentPrefix = random.Text("#/a =\0"s, 2);
        NameValues nameValues = {{"a", "old"}, {"other", "old"}};
        const std::string file = memory.Write("file", bytes);
        const NameValues expected = oracle::Read(bytes, delimiter, commentPrefix, nameValues);
        entries += expected.size() - 2;

        ASSERT_TRUE(ReadNameValueFromFile(file, nameValues, delimiter, commentPrefix));

        ASSERT_EQ(expected, nameValues) << PrintToString(bytes) << PrintToString(delimiter)
                                        << PrintToString(commentPrefix);
    }
    EXPECT_LT(20000U, entries);
}

// ---- The file

class OpenFailureTest : public NameValueTest {
protected:
    // Expects that `path` cannot be opened, and that the report shows `shown`.
    static void ExpectRefusal(const std::string& path, const std::string& shown)
    {
        NameValues nameValues = {{"a", "old"}};

        EXPECT_FALSE(ReadNameValueFromFile(path, nameValues, '=', "#"));

        EXPECT_EQ((NameValues{{"a", "old"}}), nameValues);
        ExpectReports({messages::kNameValueOpen(shown)});
    }
};

TEST_F(OpenFailureTest, ReportsAMissingFile)
{
    ExpectRefusal(dir_ / "missing", dir_ / "missing");
    EXPECT_THAT(dir_.Names(), ::testing::IsEmpty());
}

TEST_F(OpenFailureTest, ReportsAnEmptyPath)
{
    ExpectRefusal("", "");
}

TEST_F(OpenFailureTest, ReportsADanglingLink)
{
    ASSERT_EQ(0, symlink("nowhere", (dir_ / "link").c_str()));

    ExpectRefusal(dir_ / "link", dir_ / "link");
}

TEST_F(OpenFailureTest, ReportsAPathThroughAFile)
{
    const std::string file = dir_.Write("file", "a=1\n");

    ExpectRefusal(file + "/x", file + "/x");
}

TEST_F(OpenFailureTest, ReportsAPathThatIsTooLong)
{
    const std::string path(1 << 20, 'x');

    ExpectRefusal(path, path);
}

TEST_F(OpenFailureTest, ReportsAPathThatLooksLikeAFormat)
{
    ExpectRefusal(dir_ / "%s%n \"\\\n\xFF", dir_ / "%s%n \"\\\n\xFF");
}

TEST_F(OpenFailureTest, ReportsAPathUpToItsFirstNul)
{
    ExpectRefusal(dir_ / "missing" + "\0more"s, dir_ / "missing");
}

TEST_F(OpenFailureTest, ReportsAFileThatTheCallerMayNotRead)
{
    const std::string file = dir_.Write("file", "a=1\n", 0);

    RunAsNobody([&] { ExpectRefusal(file, file); });
}

TEST_F(OpenFailureTest, ReportsAFileInADirectoryThatTheCallerMayNotSearch)
{
    ASSERT_EQ(0, mkdir((dir_ / "closed").c_str(), 0700));
    const std::string file = dir_.Write("closed/file", "a=1\n");
    ASSERT_EQ(0, chmod((dir_ / "closed").c_str(), 0));

    RunAsNobody([&] { ExpectRefusal(file, file); });

    ASSERT_EQ(0, chmod((dir_ / "closed").c_str(), 0700));
}

TEST_F(NameValueTest, OpensThePathUpToItsFirstNul)
{
    const std::string file = dir_.Write("file", "a=1\n");
    NameValues nameValues;

    EXPECT_TRUE(ReadNameValueFromFile(file + "\0more"s, nameValues, '=', "#"));

    EXPECT_EQ((NameValues{{"a", "1"}}), nameValues);
}

TEST_F(NameValueTest, FollowsALink)
{
    dir_.Write("file", "a=1\n");
    ASSERT_EQ(0, symlink("file", (dir_ / "link").c_str()));
    NameValues nameValues;

    EXPECT_TRUE(ReadNameValueFromFile(dir_ / "link", nameValues, '=', "#"));

    EXPECT_EQ((NameValues{{"a", "1"}}), nameValues);
}

TEST_F(NameValueTest, ResolvesARelativePathAgainstTheCurrentDirectory)
{
    dir_.Write("file", "a=1\n");

    RunInChild([this] {
        ASSERT_EQ(0, chdir(dir_.Path().c_str()));
        NameValues nameValues;

        EXPECT_TRUE(ReadNameValueFromFile("file", nameValues, '=', "#"));

        EXPECT_EQ((NameValues{{"a", "1"}}), nameValues);
        ExpectReports({});
    });
}

TEST_F(NameValueTest, OnlyReadsTheFile)
{
    const std::string file = dir_.Write("file", "a=1\n", 0444);
    const struct stat before = StatusOf(file);

    RunAsNobody([&] {
        NameValues nameValues;

        EXPECT_TRUE(ReadNameValueFromFile(file, nameValues, '=', "#"));

        EXPECT_EQ((NameValues{{"a", "1"}}), nameValues);
        ExpectReports({});
    });

    EXPECT_EQ("a=1\n", ReadFile(file));
    EXPECT_EQ(before.st_mtim.tv_nsec, StatusOf(file).st_mtim.tv_nsec);
    EXPECT_EQ(std::vector<std::string>{"file"}, dir_.Names());
}

TEST_F(NameValueTest, ReadsADirectoryAsAnEmptyFile)
{
    NameValues nameValues = {{"a", "old"}};

    EXPECT_TRUE(ReadNameValueFromFile(dir_.Path(), nameValues, '=', "#"));

    EXPECT_EQ((NameValues{{"a", "old"}}), nameValues);
}

TEST_F(NameValueTest, ReadsADevice)
{
    NameValues nameValues = {{"a", "old"}};

    EXPECT_TRUE(ReadNameValueFromFile("/dev/null", nameValues, '=', "#"));

    EXPECT_EQ((NameValues{{"a", "old"}}), nameValues);
}

TEST_F(NameValueTest, ReportsNothingWhenTheFirstReadFails)
{
    const std::string file = dir_.Write("file", "a=1\n");
    NameValues nameValues = {{"a", "old"}};
    const ScopedFault fault(Call::kRead, /*nth=*/1, EIO);

    EXPECT_TRUE(ReadNameValueFromFile(file, nameValues, '=', "#"));

    EXPECT_EQ((NameValues{{"a", "old"}}), nameValues);
}

TEST_F(NameValueTest, KeepsTheEntriesReadBeforeAReadFails)
{
    const std::string file = dir_.Write("file", "a=1\n# note\nb=2\nc=" + std::string(1 << 20, 'x') + "\nd=4\n");
    NameValues nameValues = {{"a", "old"}, {"c", "old"}};
    const ScopedFault fault(Call::kRead, /*nth=*/2, EIO);

    EXPECT_TRUE(ReadNameValueFromFile(file, nameValues, '=', "#"));

    if (kStreamsUseStdio) {  // whose first part of a line that cannot be read counts as a line
        EXPECT_EQ(std::string(nameValues["c"].size(), 'x'), nameValues["c"]);
        EXPECT_GT(1U << 20, nameValues["c"].size());
        nameValues["c"] = "old";
    }
    EXPECT_EQ((NameValues{{"a", "1"}, {"b", "2"}, {"c", "old"}}), nameValues);
}

}  // namespace
