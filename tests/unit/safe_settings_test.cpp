#include "LxFileUtils.h"
#include "safe/safe.h"
#include "support/cases.h"
#include "support/faults.h"
#include "support/oracle.h"
#include "support/orv_test.h"
#include "support/safe_lines.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <string>
#include <vector>

using orv_safe::CheckSettings;
using orv_safe::ReadSettings;
using orv_safe::SettingsFinding;
using orv_safe::SettingsFindingText;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::PrintToString;
using namespace std::string_literals;

namespace {

using Settings = std::map<std::string, std::string>;

// ---- ReadSettings

class ReadSettingsTest : public OrvTest {
protected:
    // Expects that reading `path` fails with this line and that the map is as it was.
    static void ExpectFailure(const std::string& path, const std::string& call, int error)
    {
        Settings settings = {{"a", "old"}};

        EXPECT_FALSE(ReadSettings(path, settings));

        EXPECT_EQ((Settings{{"a", "old"}}), settings);
        ExpectSafeLines({SafeLine("ReadSettings", call, path, error)});
    }
};

TEST_F(ReadSettingsTest, AddsTheEntriesToTheMap)
{
    const std::string file = dir_.Write("file", "# note\na = 1\n\n b=2=3 \r\nc\nb = 4");
    Settings settings = {{"a", "old"}, {"other", "old"}};

    EXPECT_TRUE(ReadSettings(file, settings));

    EXPECT_EQ((Settings{{"a", "1"}, {"b", "4"}, {"c", ""}, {"other", "old"}}), settings);
}

TEST_F(ReadSettingsTest, UsesAnotherDelimiterAndCommentOnRequest)
{
    const std::string file = dir_.Write("file", "// note\na: 1\n#b: 2\n");
    Settings settings;

    EXPECT_TRUE(ReadSettings(file, settings, ':', "//"));

    EXPECT_EQ((Settings{{"a", "1"}, {"#b", "2"}}), settings);
}

TEST_F(ReadSettingsTest, AgreesWithTheLibraryAndAModelForAnyText)
{
    const std::string alphabet = "aab==#/ \t\r\n\n\v\f\0\x08\x0E\x1F!\x85\xA0\xFF"s;
    const TempDir memory(MemoryDirectory());
    Random random(14);
    std::size_t entries = 0;
    for (int i = 0; i < 5000; ++i) {
        const std::string bytes = random.Text(alphabet, 200);
        const char delimiter = random.ByteOf("====ab# \t\r\n\0\xFF"s);
        const std::string comment = random.Text("#/a =\n\0"s, 2);
        Settings settings = {{"a", "old"}, {"other", "old"}};
        Settings byLibrary = settings;
        const std::string file = memory.Write("file", bytes);
        const Settings expected = oracle::Read(bytes, delimiter, comment, settings);
        entries += expected.size() - 2;

        ASSERT_TRUE(ReadSettings(file, settings, delimiter, comment));
        ASSERT_TRUE(orv_fileutils::ReadNameValueFromFile(file, byLibrary, delimiter, comment));

        ASSERT_EQ(expected, settings) << PrintToString(bytes) << PrintToString(delimiter) << PrintToString(comment);
        ASSERT_EQ(byLibrary, settings);
    }
    EXPECT_LT(20000U, entries);
}

TEST_F(ReadSettingsTest, ReadsManyLinesAndLongOnes)
{
    std::string bytes;
    Settings expected;
    for (int i = 0; i < 10000; ++i) {
        bytes += "name" + std::to_string(i) + " = " + std::to_string(2 * i) + "\n";
        expected["name" + std::to_string(i)] = std::to_string(2 * i);
    }
    expected["long"] = std::string(3 << 20, 'v');
    const std::string file = dir_.Write("file", bytes + "\nlong=" + expected["long"]);
    Settings settings;

    EXPECT_TRUE(ReadSettings(file, settings));

    EXPECT_TRUE(expected == settings);
}

TEST_F(ReadSettingsTest, ReadsADevice)
{
    Settings settings = {{"a", "old"}};

    EXPECT_TRUE(ReadSettings("/dev/null", settings));

    EXPECT_EQ((Settings{{"a", "old"}}), settings);
}

TEST_F(ReadSettingsTest, FailsForAMissingFile)
{
    ExpectFailure(dir_ / "missing", "open", ENOENT);
    ExpectFailure("", "open", ENOENT);
}

TEST_F(ReadSettingsTest, FailsForADirectory)
{
    ExpectFailure(dir_.Path(), "read", EISDIR);
}

TEST_F(ReadSettingsTest, FailsIfAReadFails)
{
    const std::string file = dir_.Write("file", "a=1\n" + std::string(10000, '\n') + "b=2\n");
    for (int nth = 1; nth <= 4; ++nth) {  // three blocks, and the end
        const ScopedFault fault(Call::kRead, nth, EIO);

        ExpectFailure(file, "read", EIO);
    }
}

TEST_F(ReadSettingsTest, RepeatsCallsThatASignalInterrupts)
{
    const std::string file = dir_.Write("file", "a=1\n");
    const ScopedFault noOpen(Call::kOpen, /*nth=*/1, EINTR);
    const ScopedFault noRead(Call::kRead, /*nth=*/1, EINTR);
    Settings settings;

    EXPECT_TRUE(ReadSettings(file, settings));

    EXPECT_EQ((Settings{{"a", "1"}}), settings);
}

// ---- CheckSettings

struct Finding {
    long line;
    SettingsFinding::Kind kind;
    std::string text;
    long firstLine;
};

bool operator==(const Finding& left, const SettingsFinding& right)
{
    return left.line == right.line && left.kind == right.kind && left.text == right.text &&
           left.firstLine == right.firstLine;
}

bool operator==(const SettingsFinding& left, const Finding& right)
{
    return right == left;
}

void PrintTo(const Finding& finding, std::ostream* out)
{
    *out << finding.line << ", kind " << finding.kind << ", " << ::testing::PrintToString(finding.text) << ", "
         << finding.firstLine;
}

class CheckSettingsTest : public OrvTest {
protected:
    // Returns what is found in a file with these bytes.
    std::vector<SettingsFinding> Check(const std::string& bytes, char delimiter = '=', const std::string& comment = "#")
    {
        std::vector<SettingsFinding> findings(1);
        EXPECT_TRUE(CheckSettings(dir_.Write("file", bytes), findings, delimiter, comment));
        return findings;
    }
};

TEST_F(CheckSettingsTest, FindsNothingInAnOrdinaryFile)
{
    EXPECT_THAT(
        Check("# note\n\na=1\r\n b\t = 2 3\nc=\"x\" y\nd=[x]\n[e=1\nf=1]\ng=#fff\nh=\ni='\n\xC3\xA9=\xE2\x82\xAC"),
        IsEmpty());
    EXPECT_THAT(Check(""), IsEmpty());
}

TEST_F(CheckSettingsTest, FindsAByteOrderMarkOnTheFirstLineOnly)
{
    EXPECT_THAT(Check("\xEF\xBB\xBF# note\n\xEF\xBB\xBF#a=1\n"),
                ElementsAre(Finding{1, SettingsFinding::kByteOrderMark, "\xEF\xBB\xBF# note", 0},
                            Finding{1, SettingsFinding::kNoDelimiter, "\xEF\xBB\xBF# note", 0}));
}

TEST_F(CheckSettingsTest, FindsLinesThatAreNotUtf8)
{
    EXPECT_THAT(Check("a=1\n # \xE9t\xE9 \nb=\xC3\n\xA9=2\nc=\xF0\x9F\x98\x80\n"),
                ElementsAre(Finding{2, SettingsFinding::kNotUtf8, "# \xE9t\xE9", 0},
                            Finding{3, SettingsFinding::kNotUtf8, "b=\xC3", 0},
                            Finding{4, SettingsFinding::kNotUtf8, "\xA9=2", 0}));
}

TEST_F(CheckSettingsTest, FindsTheFirstControlCharacterOfALine)
{
    EXPECT_THAT(Check("a=\x01\x02\n#\x7F\nb=1\t2\r\nc=\0"s + "x\nd=\x1F!~\ne=1\r2\n"),
                ElementsAre(Finding{1, SettingsFinding::kControlCharacter, "\x01", 0},
                            Finding{2, SettingsFinding::kControlCharacter, "\x7F", 0},
                            Finding{4, SettingsFinding::kControlCharacter, "\0"s, 0},
                            Finding{5, SettingsFinding::kControlCharacter, "\x1F", 0},
                            Finding{6, SettingsFinding::kControlCharacter, "\r", 0}));
}

TEST_F(CheckSettingsTest, FindsSectionsAndDoesNotCallThemNamesWithoutValue)
{
    EXPECT_THAT(Check(" [one] \n[a=b]\nc\n[\n"), ElementsAre(Finding{1, SettingsFinding::kSection, "[one]", 0},
                                                             Finding{2, SettingsFinding::kSection, "[a=b]", 0},
                                                             Finding{3, SettingsFinding::kNoDelimiter, "c", 0},
                                                             Finding{4, SettingsFinding::kNoDelimiter, "[", 0}));
}

TEST_F(CheckSettingsTest, FindsEmptyNames)
{
    EXPECT_THAT(Check("a=1\n = 1 \n"), ElementsAre(Finding{2, SettingsFinding::kEmptyName, "= 1", 0}));
}

TEST_F(CheckSettingsTest, FindsDuplicateNamesAndTheirFirstLine)
{
    EXPECT_THAT(Check("#\na=1\nb=2\n a =3\na\nA=1\n"),
                ElementsAre(Finding{4, SettingsFinding::kDuplicateName, "a", 2},
                            Finding{5, SettingsFinding::kNoDelimiter, "a", 0},
                            Finding{5, SettingsFinding::kDuplicateName, "a", 2}));
}

TEST_F(CheckSettingsTest, FindsValuesInQuotes)
{
    EXPECT_THAT(
        Check("a=\"1\"\nb='2'\nc='3\"\nd=\"\ne=xx\nf=''\n"),
        ElementsAre(Finding{1, SettingsFinding::kQuotes, "\"1\"", 0}, Finding{2, SettingsFinding::kQuotes, "'2'", 0},
                    Finding{6, SettingsFinding::kQuotes, "''", 0}));
}

TEST_F(CheckSettingsTest, FindsCommentsAfterAValue)
{
    EXPECT_THAT(Check("a=1 # note # more\nb=1#2\nc=1#2\t#3 \nd=#\n"),
                ElementsAre(Finding{1, SettingsFinding::kTrailingComment, "# note # more", 0},
                            Finding{3, SettingsFinding::kTrailingComment, "#3", 0}));
    EXPECT_THAT(Check("a=1 // note\nb=1 # 2\n", '=', "//"),
                ElementsAre(Finding{1, SettingsFinding::kTrailingComment, "// note", 0}));
    EXPECT_THAT(Check("a=1 # note\n", '=', ""), IsEmpty());
}

TEST_F(CheckSettingsTest, UsesTheDelimiter)
{
    EXPECT_THAT(Check("a:1\nb=2\n", ':'), ElementsAre(Finding{2, SettingsFinding::kNoDelimiter, "b=2", 0}));
}

TEST_F(CheckSettingsTest, FailsIfTheFileCannotBeReadAndLeavesTheFindingsAlone)
{
    const std::string file = dir_.Write("file", "a=1\n");
    std::vector<SettingsFinding> findings(3);

    EXPECT_FALSE(CheckSettings(dir_ / "missing", findings));
    EXPECT_FALSE(CheckSettings(dir_.Path(), findings));
    {
        const ScopedFault fault(Call::kRead, /*nth=*/2, EIO);
        EXPECT_FALSE(CheckSettings(file, findings));
    }

    ExpectSafeLines({SafeLine("CheckSettings", "open", dir_ / "missing", ENOENT),
                     SafeLine("CheckSettings", "read", dir_.Path(), EISDIR),
                     SafeLine("CheckSettings", "read", file, EIO)});
    EXPECT_EQ(3u, findings.size());
}

TEST_F(CheckSettingsTest, AFindingIsEmptyAtFirst)
{
    const SettingsFinding finding;

    EXPECT_EQ(SettingsFinding::kByteOrderMark, finding.kind);
    EXPECT_EQ(0, finding.line);
    EXPECT_EQ(0, finding.firstLine);
}

TEST(SettingsFindingTextTest, SaysWhatIsOddAndWhatToDo)
{
    const std::map<SettingsFinding::Kind, std::string> beginnings = {
        {SettingsFinding::kByteOrderMark, "byte-order mark, which becomes part of the line: save"},
        {SettingsFinding::kNotUtf8, "not UTF-8: save"},
        {SettingsFinding::kControlCharacter, "control character: remove"},
        {SettingsFinding::kSection, "looks like a section, but there are none: the names"},
        {SettingsFinding::kNoDelimiter, "no delimiter, so the line is a name with an empty value: add"},
        {SettingsFinding::kEmptyName, "empty name: write"},
        {SettingsFinding::kDuplicateName, "duplicate name, of which the last one counts: remove"},
        {SettingsFinding::kQuotes, "quotes, which become part of the value: remove"},
        {SettingsFinding::kTrailingComment, "comment after a value, which becomes part of it: give"},
    };
    for (const auto& [kind, beginning] : beginnings) {
        EXPECT_THAT(SettingsFindingText(kind), ::testing::StartsWith(beginning));
    }
    EXPECT_STREQ("", SettingsFindingText(static_cast<SettingsFinding::Kind>(SettingsFinding::kTrailingComment + 1)));
}

}  // namespace
