#include "LxFileUtils.h"
#include "safe/safe.h"
#include "support/cases.h"
#include "support/faults.h"
#include "support/new_fault.h"
#include "support/oracle.h"
#include "support/orv_test.h"
#include "support/safe_lines.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

using orv_safe::CheckSettings;
using orv_safe::ReadSettings;
using orv_safe::RemoveSettings;
using orv_safe::SettingsFinding;
using orv_safe::SettingsFindingText;
using orv_safe::SettingsOptions;
using orv_safe::WriteSettings;
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

TEST_F(ReadSettingsTest, OpensNothingThatOtherProgramsInherit)
{
    const std::string file = dir_.Write("file", "a=1\n");
    const std::vector<std::string> before = InheritedDescriptors();
    const ScopedAction action(Call::kRead, /*nth=*/1, [&before] { EXPECT_EQ(before, InheritedDescriptors()); });
    Settings settings;

    EXPECT_TRUE(ReadSettings(file, settings));
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
    EXPECT_THAT(Check("a=1\n # \xE9t\xE9 \nb=\xC3\n\xA9=2\nc=\xF0\x9F\x98\x80\nd=\x80\n"),
                ElementsAre(Finding{2, SettingsFinding::kNotUtf8, "# \xE9t\xE9", 0},
                            Finding{3, SettingsFinding::kNotUtf8, "b=\xC3", 0},
                            Finding{4, SettingsFinding::kNotUtf8, "\xA9=2", 0},
                            Finding{6, SettingsFinding::kNotUtf8, "d=\x80", 0}));
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

TEST_F(CheckSettingsTest, FindsACommentPrefixOnlyAfterWhiteSpace)
{
    EXPECT_THAT(Check("a=#" + std::string(100, 'x') + "\n"), IsEmpty());
    EXPECT_THAT(Check("a=1x2  3\n", '=', " "), ElementsAre(Finding{1, SettingsFinding::kTrailingComment, " 3", 0}));
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
    const std::map<SettingsFinding::Kind, std::string> texts = {
        {SettingsFinding::kByteOrderMark, "byte-order mark, which becomes part of the line: save the file without it"},
        {SettingsFinding::kNotUtf8, "not UTF-8: save the file in UTF-8"},
        {SettingsFinding::kControlCharacter, "control character: remove it"},
        {SettingsFinding::kSection,
         "looks like a section, but there are none: the names below are shared by the whole file"},
        {SettingsFinding::kNoDelimiter,
         "no delimiter, so the line is a name with an empty value: add the delimiter, or make the line a "
         "comment"},
        {SettingsFinding::kEmptyName, "empty name: write a name before the delimiter"},
        {SettingsFinding::kDuplicateName, "duplicate name, of which the last one counts: remove the others"},
        {SettingsFinding::kQuotes, "quotes, which become part of the value: remove them"},
        {SettingsFinding::kTrailingComment,
         "comment after a value, which becomes part of it: give it a line of its own"},
    };
    for (const auto& [kind, text] : texts) {
        EXPECT_EQ(text, SettingsFindingText(kind));
    }
    EXPECT_STREQ("", SettingsFindingText(static_cast<SettingsFinding::Kind>(SettingsFinding::kTrailingComment + 1)));
}

// ---- WriteSettings

class WriteSettingsTest : public OrvTest {
protected:
    // Returns the text of a file with these bytes after the changes.
    std::string Write(const std::string& bytes, const Settings& changes, char delimiter = '=',
                      const std::string& comment = "#")
    {
        EXPECT_TRUE(WriteSettings(dir_.Write("file", bytes), changes, delimiter, comment, options_));
        EXPECT_EQ(std::vector<std::string>{"file"}, dir_.Names());
        return dir_.Read("file");
    }

    std::string Line(const std::string& call, int error, const std::string& consequence = "") const
    {
        return SafeLine("WriteSettings", call, dir_ / "file", error, consequence);
    }

    SettingsOptions options_;
};

TEST_F(WriteSettingsTest, ReplacesValuesAndNothingElse)
{
    EXPECT_EQ("# a=1\n\n \ta \t=\t 7 8 \t\n[b]\r\nb:2\n\xFF\0=\xFE\nc=9"s,
              Write("# a=1\n\n \ta \t=\t 1 2 \t\n[b]\r\nb:2\n\xFF\0=\xFE\nc=3"s, {{"a", "7 8"}, {"c", "9"}}));
}

TEST_F(WriteSettingsTest, KeepsLinesThatEndInCarriageReturnAndLineFeed)
{
    EXPECT_EQ("a=7\r\nb=2\r\nc = 8\r\n", Write("a=1\r\nb=2\r\nc = \r\n", {{"a", "7"}, {"c", "8"}}));
}

TEST_F(WriteSettingsTest, ChangesTheLastLineOfANameWhichReadersTake)
{
    EXPECT_EQ("a=1\nb=2\n a=7\nb=3\n", Write("a=1\nb=2\n a=3\nb=3\n", {{"a", "7"}, {"b", "3"}}));
}

TEST_F(WriteSettingsTest, GivesALineWithoutDelimiterOneWithItsValue)
{
    EXPECT_EQ(" a=7 \r\nb\nc=8", Write(" a \r\nb\nc", {{"a", "7"}, {"b", ""}, {"c", "8"}}));
    EXPECT_EQ(" a 7 \nb x\n", Write(" a \nb 1\n", {{"a", "7"}, {"b", "x"}}, ' '));
}

TEST_F(WriteSettingsTest, PutsAValueAfterTheBlanksThatFollowTheDelimiter)
{
    EXPECT_EQ("a = \t7\v\nb =8", Write("a = \t\v\nb =", {{"a", "7"}, {"b", "8"}}));
}

TEST_F(WriteSettingsTest, EmptiesAValue)
{
    EXPECT_EQ("a = \nb=\n", Write("a = 1\nb=2\n", {{"a", ""}, {"b", ""}}));
}

TEST_F(WriteSettingsTest, AddsNewNamesAtTheEndWithTheLineEndOfTheFirstLine)
{
    EXPECT_EQ("a=1\nb=7\nc=\n", Write("a=1\n", {{"b", "7"}, {"c", ""}}));
    EXPECT_EQ("a=1\nb=7\n", Write("a=1", {{"b", "7"}}));
    EXPECT_EQ("a=1\r\nb=2\r\nc=7\r\n", Write("a=1\r\nb=2", {{"c", "7"}}));
    EXPECT_EQ("\nc=7\n", Write("\n", {{"c", "7"}}));
    EXPECT_EQ("\r\nc=7\r\n", Write("\r\n", {{"c", "7"}}));
    EXPECT_EQ("\n#" + std::string(100, 'x') + "\nc=7\n", Write("\n#" + std::string(100, 'x'), {{"c", "7"}}));
    EXPECT_EQ("c=7\n", Write("", {{"c", "7"}}));
    EXPECT_EQ("a:1\nb:7\n", Write("a:1\n", {{"b", "7"}}, ':'));
}

TEST_F(WriteSettingsTest, RefusesWhatAReaderWouldNotGetBackAndTouchesNothing)
{
    const std::string file = dir_.Write("file", "a = 1\n");
    const ino_t inode = StatusOf(file).st_ino;
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"", "1"},    {"b\nc", "1"}, {"b=c", "1"}, {" b", "1"}, {"b\r", "1"},    {"#b", "1"},
        {"b", "1\n"}, {"b", " 1"},   {"b", "1\t"}, {"b", "\r"}, {"b", "1\nc=2"}, {"a", "2\n#"},
    };
    for (const auto& [name, value] : refused) {
        Settings changes = {{"a", "7"}, {"z", "1"}};
        changes[name] = value;

        EXPECT_FALSE(WriteSettings(file, changes));

        ExpectSafeLines({SafeLine("WriteSettings", "set", file + ", " + name, EINVAL)});
        EXPECT_EQ("a = 1\n", ReadFile(file));
        EXPECT_EQ(inode, StatusOf(file).st_ino);
    }
    EXPECT_FALSE(WriteSettings(file, {{"a", "7"}}, '=', "a = 7"));  // the line would become a comment
    ExpectSafeLines({SafeLine("WriteSettings", "set", file + ", a", EINVAL)});
    EXPECT_FALSE(WriteSettings(dir_ / "missing", {{"", "7"}}));
    ExpectSafeLines({SafeLine("WriteSettings", "set", dir_ / "missing, ", EINVAL)});
    EXPECT_EQ(std::vector<std::string>{"file"}, dir_.Names());
}

TEST_F(WriteSettingsTest, AgreesWithAModelForAnyText)
{
    const std::string alphabet = "aabb==#/ \t\r\n\n\v\0\xFF"s;
    const TempDir memory(MemoryDirectory());
    options_.durable = false;
    Random random(15);
    int written = 0;
    int refused = 0;
    for (int i = 0; i < 4000; ++i) {
        const std::string bytes = random.Text(alphabet, 60);
        const char delimiter = random.ByteOf("=====a# \t\n\0\xFF"s);
        const std::string comment = random.Text("#/a ="s, 2);
        Settings changes;
        for (std::size_t count = random.Below(3); count != 0; --count) {
            changes[random.Text("aab= #\r\n\xFF", 3)] = random.Text("aab== #\n\r", 3);
        }
        const std::string file = memory.Write("file", bytes);
        const std::string changed = oracle::Changed(bytes, delimiter, comment, changes);
        Settings expected = oracle::Read(bytes, delimiter, comment, {});
        for (const auto& [name, value] : changes) {
            expected[name] = value;
        }
        const bool isSafe = changes.count("") == 0 && oracle::Read(changed, delimiter, comment, {}) == expected;
        const std::string shown =
            PrintToString(bytes) + PrintToString(delimiter) + PrintToString(comment) + PrintToString(changes);

        ASSERT_EQ(isSafe, WriteSettings(file, changes, delimiter, comment, options_)) << shown;

        ASSERT_EQ(isSafe ? changed : bytes, ReadFile(file)) << shown;
        ASSERT_EQ(isSafe ? 0U : 1U, TakeDlogCalls().size());
        (isSafe ? written : refused) += 1;
    }
    EXPECT_LT(1000, written);
    EXPECT_LT(1000, refused);
}

TEST_F(WriteSettingsTest, LetsReadersSeeTheOldOrTheNewFile)
{
    const std::string file = dir_.Write("file", "a=1\n");
    const int old = open(file.c_str(), O_RDONLY | O_CLOEXEC);

    EXPECT_TRUE(WriteSettings(file, {{"a", "2"}}));

    char bytes[10];
    EXPECT_EQ(4, read(old, bytes, sizeof bytes));
    EXPECT_EQ("a=1\n", std::string(bytes, 4));
    EXPECT_EQ(0, close(old));
    EXPECT_EQ("a=2\n", ReadFile(file));
}

TEST_F(WriteSettingsTest, WritesNothingIfNothingChanges)
{
    const std::string file = dir_.Write("file", "a=1\nb\n");
    const ino_t inode = StatusOf(file).st_ino;

    EXPECT_TRUE(WriteSettings(file, {{"a", "1"}, {"b", ""}}));
    EXPECT_TRUE(WriteSettings(file, {}));

    EXPECT_EQ(inode, StatusOf(file).st_ino);
}

TEST_F(WriteSettingsTest, MakesAMissingFileWithOrdinaryPermissions)
{
    {
        const ScopedMask none(0);
        EXPECT_TRUE(WriteSettings(dir_ / "file", {}));
        EXPECT_EQ(0666u, ModeOf(dir_ / "file"));
        ASSERT_EQ(0, unlink((dir_ / "file").c_str()));
    }
    const ScopedMask mask(027);

    EXPECT_TRUE(WriteSettings(dir_ / "file", {{"a", "1"}}));
    EXPECT_TRUE(WriteSettings(dir_ / "empty", {}));

    EXPECT_EQ("a=1\n", dir_.Read("file"));
    EXPECT_EQ(0640u, ModeOf(dir_ / "file"));
    EXPECT_EQ("", dir_.Read("empty"));
    EXPECT_EQ((std::vector<std::string>{"empty", "file"}), dir_.Names());
}

TEST_F(WriteSettingsTest, WorksInTheCurrentDirectory)
{
    RunInChild([this] {
        ASSERT_EQ(0, chdir(dir_.Path().c_str()));
        EXPECT_TRUE(WriteSettings("file", {{"a", "1"}}));
        EXPECT_TRUE(WriteSettings("file", {{"a", "2"}}));
        ExpectSafeLines({});
    });

    EXPECT_EQ("a=2\n", dir_.Read("file"));
}

TEST_F(WriteSettingsTest, KeepsThePermissions)
{
    const ScopedMask mask(077);
    for (const mode_t mode : {0644U, 0600U, 0666U, 0751U}) {
        const std::string file = dir_.Write("file", "a=1\n", mode);

        EXPECT_TRUE(WriteSettings(file, {{"a", "2"}}));

        EXPECT_EQ(mode, ModeOf(file));
    }
    dir_.Write("file", "a=1\n", 04755);
    EXPECT_TRUE(WriteSettings(dir_ / "file", {{"a", "2"}}));
    EXPECT_EQ(0755u, ModeOf(dir_ / "file"));
}

TEST_F(WriteSettingsTest, KeepsOwnerAndGroupWhereItMay)
{
    if (geteuid() != 0) {
        ORV_SKIP("only root may give files away");
    }
    for (const uid_t owner : {0U, 1234U}) {
        for (const gid_t group : {0U, 4321U}) {
            const std::string file = dir_.Write("file", "a=1\n", 0640);
            ASSERT_EQ(0, chown(file.c_str(), owner, group));

            EXPECT_TRUE(WriteSettings(file, {{"a", "2"}}));

            EXPECT_EQ(owner, StatusOf(file).st_uid);
            EXPECT_EQ(group, StatusOf(file).st_gid);
            EXPECT_EQ(0640u, ModeOf(file));
        }
    }
}

TEST_F(WriteSettingsTest, ChangesNoOwnerThatIsTheSame)
{
    if (geteuid() != 0) {
        ORV_SKIP("only root may give files away");
    }
    const std::string file = dir_.Write("file", "a=1\n");
    int calls = 0;
    const ScopedCall chown("fchown", /*nth=*/1, [&calls] {
        ++calls;
        return std::nullopt;
    });

    EXPECT_TRUE(WriteSettings(file, {{"a", "2"}}));
    EXPECT_EQ(0, calls);

    ASSERT_EQ(0, ::chown(file.c_str(), 1234, static_cast<gid_t>(-1)));
    EXPECT_TRUE(WriteSettings(file, {{"a", "3"}}));
    EXPECT_EQ(1, calls);
}

TEST_F(WriteSettingsTest, SaysThatOwnerOrGroupWereNotKeptAndLetsANewGroupDoNoMoreThanAll)
{
    if (geteuid() != 0) {
        ORV_SKIP("only root may give files away");
    }
    const std::string kept = "the new file has another owner or group";
    const std::string file = dir_.Write("file", "a=1\n", 0674);
    ASSERT_EQ(0, chown(file.c_str(), 1234, getegid()));
    {
        const ScopedCall fault("fchown", /*nth=*/1, FailWith(EPERM));
        EXPECT_TRUE(WriteSettings(file, {{"a", "2"}}));
    }
    ExpectSafeLines({Line("fchown", EPERM, kept)});
    EXPECT_EQ(geteuid(), StatusOf(file).st_uid);
    EXPECT_EQ(0674u, ModeOf(file));  // the group is the same

    ASSERT_EQ(0, chown(file.c_str(), 1234, 4321));
    {
        const ScopedCall fault("fchown", /*nth=*/1, FailWith(EPERM));
        EXPECT_TRUE(WriteSettings(file, {{"a", "3"}}));
    }
    ExpectSafeLines({Line("fchown", EPERM, kept)});
    EXPECT_EQ(4321u, StatusOf(file).st_gid);
    EXPECT_EQ(0674u, ModeOf(file));  // the group was kept by itself

    {
        const ScopedCall fault("fchown", /*nth=*/1, FailWith(EPERM), /*times=*/2);
        EXPECT_TRUE(WriteSettings(file, {{"a", "4"}}));
    }
    ExpectSafeLines({Line("fchown", EPERM, kept)});
    EXPECT_EQ(getegid(), StatusOf(file).st_gid);
    EXPECT_EQ(0644u, ModeOf(file));
    EXPECT_EQ("a=4\n", ReadFile(file));
}

TEST_F(WriteSettingsTest, ReplacesTheFileThatALinkLeadsToAndKeepsTheLinks)
{
    ASSERT_EQ(0, mkdir((dir_ / "real").c_str(), 0755));
    dir_.Write("real/file", "a=1\n");
    ASSERT_EQ(0, symlink("real/file", (dir_ / "relative").c_str()));
    ASSERT_EQ(0, symlink((dir_ / "relative").c_str(), (dir_ / "absolute").c_str()));

    EXPECT_TRUE(WriteSettings(dir_ / "absolute", {{"a", "2"}}));

    EXPECT_EQ("a=2\n", dir_.Read("real/file"));
    EXPECT_TRUE(S_ISLNK(StatusOf(dir_ / "absolute").st_mode));
    EXPECT_TRUE(S_ISLNK(StatusOf(dir_ / "relative").st_mode));
    EXPECT_EQ(std::vector<std::string>{"file"}, NamesIn(dir_ / "real"));
}

TEST_F(WriteSettingsTest, MakesTheFileThatALinkLeadsTo)
{
    ASSERT_EQ(0, symlink("file", (dir_ / "link").c_str()));

    EXPECT_TRUE(WriteSettings(dir_ / "link", {{"a", "2"}}));

    EXPECT_EQ("a=2\n", dir_.Read("file"));
    EXPECT_TRUE(S_ISLNK(StatusOf(dir_ / "link").st_mode));
}

TEST_F(WriteSettingsTest, RefusesLinksThatLeadNowhere)
{
    ASSERT_EQ(0, symlink("loop", (dir_ / "loop").c_str()));
    ASSERT_EQ(0, symlink("missing/file", (dir_ / "link").c_str()));

    EXPECT_FALSE(WriteSettings(dir_ / "loop", {{"a", "2"}}));
    EXPECT_FALSE(WriteSettings(dir_ / "link", {{"a", "2"}}));

    ExpectSafeLines({SafeLine("WriteSettings", "open", dir_ / "loop", ELOOP),
                     SafeLine("WriteSettings", "open", dir_ / "missing/", ENOENT)});
}

TEST_F(WriteSettingsTest, FollowsAsManyLinksAsTheKernel)
{
    dir_.Write("0", "a=1\n");
    for (int i = 1; i <= 41; ++i) {
        ASSERT_EQ(0, symlink(std::to_string(i - 1).c_str(), (dir_ / std::to_string(i)).c_str()));
    }

    EXPECT_TRUE(WriteSettings(dir_ / "40", {{"a", "2"}}));
    EXPECT_EQ("a=2\n", dir_.Read("0"));

    EXPECT_FALSE(WriteSettings(dir_ / "41", {{"a", "3"}}));
    ExpectSafeLines({SafeLine("WriteSettings", "open", dir_ / "41", ELOOP)});
}

TEST_F(WriteSettingsTest, FollowsNoMoreLinksThatAppearMeanwhile)
{
    dir_.Write("0", "a=1\n");
    for (int i = 1; i <= 40; ++i) {
        ASSERT_EQ(0, symlink(std::to_string(i - 1).c_str(), (dir_ / std::to_string(i)).c_str()));
    }
    const ScopedAction other(Call::kOpen, /*nth=*/2, [this] {
        ASSERT_EQ(0, rename((dir_ / "0").c_str(), (dir_ / "file").c_str()));
        ASSERT_EQ(0, symlink("file", (dir_ / "0").c_str()));
    });

    EXPECT_FALSE(WriteSettings(dir_ / "40", {{"a", "2"}}));

    ExpectSafeLines({SafeLine("WriteSettings", "readlinkat", dir_ / "40", ELOOP)});
    EXPECT_EQ("a=1\n", dir_.Read("file"));
}

TEST_F(WriteSettingsTest, OpensNothingThatOtherProgramsInherit)
{
    const std::string file = dir_.Write("file", "a=1\n");
    const std::vector<std::string> before = InheritedDescriptors();
    const ScopedAction action(Call::kFsync, /*nth=*/1, [&before] { EXPECT_EQ(before, InheritedDescriptors()); });

    EXPECT_TRUE(WriteSettings(file, {{"a", "2"}}));
}

TEST_F(WriteSettingsTest, ClosesOnlyWhatItOpened)
{
    const ScopedTrace trace;

    EXPECT_EQ("a=2\n", Write("a=1\n", {{"a", "2"}}));

    for (const std::string& call : trace.Calls()) {
        EXPECT_EQ(std::string::npos, call.find("close(-")) << call;
    }
}

TEST_F(WriteSettingsTest, EndsInALoopThatAppearsMeanwhile)
{
    const std::string file = dir_.Write("file", "a=1\n");
    const ScopedAction other(Call::kOpen, /*nth=*/2, [&file] {
        ASSERT_EQ(0, unlink(file.c_str()));
        ASSERT_EQ(0, symlink("file", file.c_str()));
    });

    EXPECT_FALSE(WriteSettings(file, {{"a", "2"}}));

    ExpectSafeLines({Line("readlinkat", ELOOP)});
}

TEST_F(WriteSettingsTest, RefusesAFileThatWasReplacedMeanwhile)
{
    const std::string file = dir_.Write("file", "a=1\n");
    {
        const ScopedAction other(Call::kOpen, /*nth=*/2, [this, &file] {
            ASSERT_EQ(0, rename(dir_.Write("new", "a=5\n").c_str(), file.c_str()));
        });
        EXPECT_FALSE(WriteSettings(file, {{"a", "2"}}));
    }
    ExpectSafeLines({Line("open", ESTALE)});
    EXPECT_EQ("a=5\n", ReadFile(file));

    ASSERT_EQ(0, unlink(file.c_str()));
    {
        const ScopedAction other(Call::kOpen, /*nth=*/2, [this] { dir_.Write("file", "a=6\n"); });
        EXPECT_FALSE(WriteSettings(file, {{"a", "2"}}));
    }
    ExpectSafeLines({Line("linkat", EEXIST)});
    EXPECT_EQ("a=6\n", ReadFile(file));
}

TEST_F(WriteSettingsTest, RefusesAFileWhosePathLeadsToAnotherFileSystemMeanwhile)
{
    const TempDir other(MemoryDirectory());
    if (StatusOf(dir_.Path()).st_dev == StatusOf(other.Path()).st_dev) {
        ORV_SKIP("no file system besides that of /var/tmp is writable");
    }
    ASSERT_EQ(0, mkdir((dir_ / "a").c_str(), 0755));
    dir_.Write("a/file", "a=1\n");
    other.Write("file", "a=5\n");
    const ScopedAction action(Call::kOpen, /*nth=*/2, [&] {
        ASSERT_EQ(0, rename((dir_ / "a").c_str(), (dir_ / "b").c_str()));
        ASSERT_EQ(0, symlink(other.Path().c_str(), (dir_ / "a").c_str()));
    });

    EXPECT_FALSE(WriteSettings(dir_ / "a/file", {{"a", "2"}}));

    ExpectSafeLines({SafeLine("WriteSettings", "open", dir_ / "a/file", ESTALE)});
    EXPECT_EQ("a=5\n", other.Read("file"));
    EXPECT_EQ("a=1\n", dir_.Read("b/file"));
}

// Otherwise btrfs of Linux 6.1 loses the content in a power cut, which script/board power-cuts shows.
TEST_F(WriteSettingsTest, FlushesAFileThatHasANameOfItsOwn)
{
    for (const std::string value : {"1", "2"}) {  // into a new file, and into an existing one
        std::vector<std::string> names;
        {
            const ScopedAction flushed(Call::kFsync, /*nth=*/1, [&] { names = dir_.Names(); });

            EXPECT_TRUE(WriteSettings(dir_ / "file", {{"a", value}}));
        }

        ASSERT_EQ(value == "1" ? 1u : 2u, names.size());
        EXPECT_THAT(names[0], ::testing::MatchesRegex("\\.orv_[0-9a-f]{16}"));
        EXPECT_EQ(std::vector<std::string>{"file"}, dir_.Names());
    }
}

TEST_F(WriteSettingsTest, LetsNobodyElseReadAStagedFileWhosePermissionsAreNotSet)
{
    const ScopedMask mask(0);
    const std::string file = dir_.Write("file", "a=1\n", 0640);
    const ScopedCall noName("tmpfile", /*nth=*/1, FailWith(EOPNOTSUPP));
    const ScopedCall beforeChmod("fchmod", /*nth=*/1, [this]() -> std::optional<long> {
        for (const std::string& name : dir_.Names()) {
            EXPECT_EQ(name == "file" ? 0640u : 0600u, ModeOf(dir_ / name));
        }
        EXPECT_EQ(2u, dir_.Names().size());
        return std::nullopt;
    });

    EXPECT_TRUE(WriteSettings(file, {{"a", "2"}}));

    EXPECT_EQ("a=2\n", ReadFile(file));
    EXPECT_EQ(0640u, ModeOf(file));
}

TEST_F(WriteSettingsTest, SetsNoModeThatTheNewFileHasAlready)
{
    const std::string same = dir_.Write("same", "a=1\n", 0600);
    const std::string other = dir_.Write("other", "a=1\n", 0640);
    int calls = 0;
    const ScopedCall noModes("fchmod", /*nth=*/1, [&calls] {
        ++calls;
        errno = EPERM;
        return -1;
    });

    EXPECT_TRUE(WriteSettings(same, {{"a", "2"}}));
    EXPECT_EQ(0, calls);
    EXPECT_EQ("a=2\n", ReadFile(same));

    EXPECT_FALSE(WriteSettings(other, {{"a", "2"}}));
    EXPECT_EQ(1, calls);
    EXPECT_EQ("a=1\n", ReadFile(other));
    ExpectSafeLines({SafeLine("WriteSettings", "fchmod", other, EPERM)});
}

TEST_F(WriteSettingsTest, RefusesWhatIsNotARegularFile)
{
    ASSERT_EQ(0, mkfifo((dir_ / "fifo").c_str(), 0644));

    EXPECT_FALSE(WriteSettings(dir_ / "fifo", {{"a", "2"}}));
    EXPECT_FALSE(WriteSettings(dir_.Path(), {{"a", "2"}}));
    EXPECT_FALSE(WriteSettings("", {{"a", "2"}}));
    EXPECT_FALSE(WriteSettings(dir_ / "missing/", {{"a", "2"}}));
    EXPECT_FALSE(WriteSettings(dir_ / "missing/file", {{"a", "2"}}));

    ExpectSafeLines({"WriteSettings: " + dir_ / "fifo" + " is not a regular file (0x1000).",
                     "WriteSettings: " + dir_.Path() + " is not a regular file (0x4000).",
                     SafeLine("WriteSettings", "openat", "", ENOENT),
                     SafeLine("WriteSettings", "open", dir_ / "missing/", ENOENT),
                     SafeLine("WriteSettings", "open", dir_ / "missing/", ENOENT)});
    EXPECT_EQ(std::vector<std::string>{"fifo"}, dir_.Names());
}

// Each change fails and leaves the file as it was.
class FailedWriteSettingsTest : public WriteSettingsTest {
protected:
    FailedWriteSettingsTest()
    {
        dir_.Write("file", "a=1\n");
    }

    void TearDown() override
    {
        EXPECT_EQ("a=1\n", dir_.Read("file"));
        EXPECT_EQ(std::vector<std::string>{"file"}, dir_.Names());
        WriteSettingsTest::TearDown();
    }

    void ExpectFailure(const std::string& line)
    {
        EXPECT_FALSE(WriteSettings(dir_ / "file", {{"a", "2"}}, '=', "#", options_));
        ExpectSafeLines({line});
    }
};

TEST_F(FailedWriteSettingsTest, NamesTheCallThatFailed)
{
    {
        const ScopedFault fault(Call::kOpen, /*nth=*/1, EACCES);
        ExpectFailure(Line("open", EACCES));
    }
    {
        const ScopedFault fault(Call::kRead, /*nth=*/1, EIO);
        ExpectFailure(Line("read", EIO));
    }
    {
        const ScopedFault fault(Call::kWrite, /*nth=*/1, ENOSPC);
        ExpectFailure(Line("write", ENOSPC));
    }
    {
        const ScopedFault fault(Call::kFsync, /*nth=*/1, EIO);
        ExpectFailure(Line("fsync", EIO));
    }
    for (const std::string call : {"readlinkat", "fchmod", "renameat"}) {
        const ScopedCall fault(call, /*nth=*/1, FailWith(EIO));
        ExpectFailure(Line(call, EIO));
    }
    for (const int nth : {1, 2}) {
        const ScopedCall fault("fstat", nth, FailWith(EIO));
        ExpectFailure(Line("fstat", EIO));
    }
}

TEST_F(FailedWriteSettingsTest, NamesTheDirectoryOrTheStagedFile)
{
    {
        const ScopedFault fault(Call::kOpen, /*nth=*/2, EMFILE);
        ExpectFailure(SafeLine("WriteSettings", "open", dir_.Path() + "/", EMFILE));
    }
    const ScopedCall noName("tmpfile", /*nth=*/1, FailWith(EOPNOTSUPP));
    const ScopedFault fault(Call::kOpenat, /*nth=*/1, ENOSPC);
    ExpectFailure(SafeLine("WriteSettings", "openat", dir_ / ".orv_*", ENOSPC));
}

TEST_F(WriteSettingsTest, SaysThatAPowerCutCanUndoTheChangeIfTheDirectoryIsNotFlushed)
{
    const std::string file = dir_.Write("file", "a=1\n");
    const ScopedFault fault(Call::kFsync, /*nth=*/2, EIO);

    EXPECT_FALSE(WriteSettings(file, {{"a", "2"}}));

    ExpectSafeLines({SafeLine("WriteSettings", "fsync", dir_.Path() + "/", EIO,
                              "the file is in place, but a power cut can undo that")});
    EXPECT_EQ("a=2\n", ReadFile(file));
}

TEST_F(WriteSettingsTest, FlushesFileAndDirectoryAlsoIfNothingChanges)
{
    const std::string file = dir_.Write("file", "a=1\n");
    for (const int nth : {1, 2}) {
        const ScopedFault fault(Call::kFsync, nth, EIO);
        EXPECT_FALSE(WriteSettings(file, {{"a", "1"}}));
    }
    ExpectSafeLines({Line("fsync", EIO), SafeLine("WriteSettings", "fsync", dir_.Path() + "/", EIO,
                                                  "the file is in place, but a power cut can undo that")});
}

TEST_F(WriteSettingsTest, FlushesNothingUnlessItMustBeDurable)
{
    options_.durable = false;
    const ScopedTrace trace;

    EXPECT_EQ("a=2\n", Write("a=1\n", {{"a", "2"}}));
    EXPECT_EQ("a=2\n", Write("a=2\n", {{"a", "2"}}));

    for (const std::string& call : trace.Calls()) {
        EXPECT_EQ(std::string::npos, call.find("sync")) << call;
    }
}

TEST_F(FailedWriteSettingsTest, FindsOutThatWritesFailedLaterIfItFlushesNothing)
{
    options_.durable = false;
    const ScopedCall fault("dup", /*nth=*/1, FailWith(EDQUOT));

    ExpectFailure(Line("close", EDQUOT));
}

TEST_F(WriteSettingsTest, RepeatsCallsThatASignalInterrupts)
{
    if (geteuid() != 0) {
        ORV_SKIP("only root may give files away");
    }
    const std::string file = dir_.Write("file", "a=1\n");
    ASSERT_EQ(0, chown(file.c_str(), 1234, static_cast<gid_t>(-1)));
    const ScopedFault noOpen(Call::kOpen, /*nth=*/1, EINTR);
    const ScopedCall noLink("readlinkat", /*nth=*/1, FailWith(EINTR));
    const ScopedCall noOwner("fchown", /*nth=*/1, FailWith(EINTR));
    const ScopedCall noMode("fchmod", /*nth=*/1, FailWith(EINTR));

    EXPECT_TRUE(WriteSettings(file, {{"a", "2"}}));

    EXPECT_EQ("a=2\n", ReadFile(file));
}

TEST_F(WriteSettingsTest, RepeatsAnInterruptedFlushOfAnUnchangedFile)
{
    const std::string file = dir_.Write("file", "a=1\n");
    const ScopedFault fault(Call::kFsync, /*nth=*/1, EINTR);

    EXPECT_TRUE(WriteSettings(file, {{"a", "1"}}));
}

TEST_F(WriteSettingsTest, WritesMegabytes)
{
    const std::string value(3 << 20, 'x');

    EXPECT_TRUE("a=" + value + "\n" == Write("a=1\n", {{"a", value}}));
}

// ---- RemoveSettings

class RemoveSettingsTest : public OrvTest {};

TEST_F(RemoveSettingsTest, RemovesEveryLineOfTheNamesAndNothingElse)
{
    const std::string file = dir_.Write("file", "# a=1\n a = 1\r\n\nb=2\r\na\nc=3\na=4", 0640);

    EXPECT_TRUE(RemoveSettings(file, {"a", "c", "missing"}));

    EXPECT_EQ("# a=1\n\nb=2\r\n", ReadFile(file));
    EXPECT_EQ(0640u, ModeOf(file));
    EXPECT_EQ(std::vector<std::string>{"file"}, dir_.Names());
}

TEST_F(RemoveSettingsTest, WritesNothingIfNoNameIsThere)
{
    const std::string file = dir_.Write("file", "a=1");
    const ino_t inode = StatusOf(file).st_ino;

    EXPECT_TRUE(RemoveSettings(file, {"b", ""}));
    EXPECT_TRUE(RemoveSettings(file, {}));

    EXPECT_EQ("a=1", ReadFile(file));
    EXPECT_EQ(inode, StatusOf(file).st_ino);
}

TEST_F(RemoveSettingsTest, FlushesUnlessToldOtherwise)
{
    const std::string file = dir_.Write("file", "a=1\nb=2\n");
    SettingsOptions options;
    options.durable = false;
    const ScopedFault fault(Call::kFsync, /*nth=*/1, EIO);

    EXPECT_TRUE(RemoveSettings(file, {"a"}, '=', "#", options));
    EXPECT_FALSE(RemoveSettings(file, {"b"}));

    ExpectSafeLines({SafeLine("RemoveSettings", "fsync", file, EIO)});
    EXPECT_EQ("b=2\n", ReadFile(file));
}

TEST_F(RemoveSettingsTest, FailsForAMissingFile)
{
    EXPECT_FALSE(RemoveSettings(dir_ / "missing", {"a"}));

    ExpectSafeLines({SafeLine("RemoveSettings", "open", dir_ / "missing", ENOENT)});
    EXPECT_THAT(dir_.Names(), IsEmpty());
}

TEST_F(RemoveSettingsTest, AgreesWithAModelForAnyText)
{
    const TempDir memory(MemoryDirectory());
    SettingsOptions options;
    options.durable = false;
    Random random(16);
    for (int i = 0; i < 2000; ++i) {
        const std::string bytes = random.Text("aabb==# \t\r\n\n\v\0\xFF"s, 60);
        const char delimiter = random.ByteOf("====# \t\n\0\xFF"s);
        const std::string comment = random.Text("#a ="s, 2);
        const std::vector<std::string> names = {random.Text("aab\xFF", 2), random.Text("aab\xFF", 2)};
        const std::string file = memory.Write("file", bytes);

        ASSERT_TRUE(RemoveSettings(file, names, delimiter, comment, options));

        ASSERT_EQ(oracle::Without(bytes, delimiter, comment, names), ReadFile(file))
            << PrintToString(bytes) << PrintToString(delimiter) << PrintToString(comment) << PrintToString(names);
    }
}

// ---- Memory runs out at every allocation in turn

class SettingsMemoryTest : public OrvTest {
protected:
    // Runs `act` with each allocation failing in turn, until there are no more. After a failure the result is false
    // with the one line, and `isAsBefore` is true; otherwise the result is true.
    void FailEachAllocation(const std::string& function, const std::function<void()>& prepare,
                            const std::function<bool()>& act, const std::function<bool()>& isAsBefore) const
    {
        int failures = 0;
        for (bool fired = true; fired; ++failures) {
            prepare();
            const std::vector<std::string> descriptors = OpenDescriptors();
            bool done = false;
            {
                const ScopedNewFault fault(failures + 1);
                done = act();
                fired = fault.Fired();
            }
            EXPECT_NE(fired, done) << failures;
            EXPECT_EQ(fired, isAsBefore()) << failures;
            ExpectSafeLines(fired ? std::vector<std::string>{SafeLine(function, "new", dir_ / "file", ENOMEM)}
                                  : std::vector<std::string>{});
            EXPECT_EQ(descriptors, OpenDescriptors());
            EXPECT_EQ(std::vector<std::string>{"file"}, dir_.Names());
        }
        EXPECT_LT(5, failures);
    }

    const std::string long_ = std::string(100, 'x');
    const std::string text_ = "a" + long_ + "=1" + long_ + "\nb" + long_ + "=2" + long_ + "\n";
    const std::string file_ = dir_ / "file";
    const std::string comment_ = "#";  // some strings allocate even that
    SettingsOptions options_;
};

TEST_F(SettingsMemoryTest, ReadSettingsLeavesTheMapAsItWas)
{
    const Settings old = {{"a" + long_, "old" + long_}};
    Settings settings;

    FailEachAllocation(
        "ReadSettings",
        [&] {
            dir_.Write("file", text_);
            settings = old;
        },
        [&] { return ReadSettings(file_, settings, '=', comment_); }, [&] { return settings == old; });
}

TEST_F(SettingsMemoryTest, CheckSettingsLeavesTheFindingsAsTheyWere)
{
    std::vector<SettingsFinding> findings;

    FailEachAllocation(
        "CheckSettings",
        [&] {
            dir_.Write("file", text_ + "[section" + long_ + "]\n");
            findings.resize(7);
        },
        [&] { return CheckSettings(file_, findings, '=', comment_); }, [&] { return findings.size() == 7; });
}

TEST_F(SettingsMemoryTest, WriteSettingsLeavesTheFileAsItWas)
{
    const Settings changes = {{"a" + long_, "7" + long_}, {"c" + long_, "8" + long_}};
    for (const bool durable : {false, true}) {
        options_.durable = durable;
        FailEachAllocation(
            "WriteSettings", [&] { dir_.Write("file", text_); },
            [&] { return WriteSettings(file_, changes, '=', comment_, options_); },
            [&] { return ReadFile(file_) == text_; });
    }
}

TEST_F(SettingsMemoryTest, WriteSettingsMakesNoFile)
{
    const Settings changes = {{"a" + long_, "1"}};
    int failures = 0;
    for (bool fired = true; fired; ++failures) {
        (void)unlink(file_.c_str());
        const ScopedNewFault fault(failures + 1);
        const bool written = WriteSettings(file_, changes, '=', comment_);
        fired = fault.Fired();
        EXPECT_NE(fired, written);
        EXPECT_EQ(written, Exists(file_));
        EXPECT_EQ(fired ? 1U : 0U, TakeDlogCalls().size());
    }
    EXPECT_LT(5, failures);
}

TEST_F(SettingsMemoryTest, RemoveSettingsLeavesTheFileAsItWas)
{
    const std::vector<std::string> names = {"a" + long_};
    FailEachAllocation(
        "RemoveSettings", [&] { dir_.Write("file", text_); },
        [&] { return RemoveSettings(file_, names, '=', comment_); }, [&] { return ReadFile(file_) == text_; });
}

}  // namespace
