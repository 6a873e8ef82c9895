// Checks which string operations the library calls, with which arguments and in which order. This program defines the
// four operations itself, records each call and forwards it to the string library.
#include "LxFileUtils.h"
#include "LxStringUtils.h"
#include "support/oracle.h"
#include "support/orv_test.h"

#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <list>
#include <map>
#include <new>
#include <string>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

namespace {

std::vector<std::string> recorded;
int callsUntilFailure = 0;  // 0: no call fails

void Record(const std::string& call)
{
    recorded.push_back(call);
    if (callsUntilFailure > 0 && --callsUntilFailure == 0) {
        throw std::bad_alloc();
    }
}

std::string Quoted(const std::string& text)
{
    return "'" + text + "'";
}

// Finds the definition of `operation` in the string library, the next one with this name.
template <typename Function>
Function* Real(Function* operation)
{
    Dl_info own;
    void* const symbol = dladdr(reinterpret_cast<void*>(operation), &own) != 0 && own.dli_sname != nullptr
                             ? dlsym(RTLD_NEXT, own.dli_sname)
                             : nullptr;
    if (symbol == nullptr) {
        std::abort();
    }
    return reinterpret_cast<Function*>(symbol);
}

}  // namespace

namespace LxStringUtils {

void Split(const std::string& text, char delimiter, std::vector<std::string>& pieces)
{
    Record("Split(" + Quoted(text) + ", " + Quoted(std::string(1, delimiter)) + ", " + std::to_string(pieces.size()) +
           " pieces)");
    Real (&Split)(text, delimiter, pieces);
}

void Trim(std::string& text)
{
    Record("Trim(" + Quoted(text) + ")");
    Real (&Trim)(text);
}

bool StartsWith(const std::string& text, const std::string& prefix)
{
    Record("StartsWith(" + Quoted(text) + ", " + Quoted(prefix) + ")");
    return Real(&StartsWith)(text, prefix);
}

bool WildcardedStringMatch(const std::string& text, const std::string& pattern)
{
    Record("Match(" + Quoted(text) + ", " + Quoted(pattern) + ")");
    return Real(&WildcardedStringMatch)(text, pattern);
}

}  // namespace LxStringUtils

namespace {

class StringCallsTest : public OrvTest {
protected:
    StringCallsTest()
    {
        recorded.clear();
        callsUntilFailure = 0;
    }
};

class ListingStringCallsTest : public StringCallsTest {
protected:
    void List(const char* includePattern, const char* excludePattern)
    {
        EXPECT_TRUE(orv_fileutils::GetDirFileList(dir_.Path().c_str(), includePattern, excludePattern, names_,
                                                  /*withDirPath=*/true, /*clearList=*/true, /*logOpenError=*/true));
    }

    // Returns the names of the regular files in the order of the directory.
    std::vector<std::string> NamesAsRead() const
    {
        std::vector<std::string> names;
        DIR* const directory = opendir(dir_.Path().c_str());
        while (const dirent* const entry = readdir(directory)) {
            if (entry->d_type == DT_REG) {
                names.emplace_back(entry->d_name);
            }
        }
        closedir(directory);
        return names;
    }

    std::list<std::string> names_;
};

TEST_F(ListingStringCallsTest, WithoutPatternsNothingIsMatched)
{
    dir_.Write("a.log", "");

    List(nullptr, nullptr);
    List("", "");
    List(nullptr, "");
    List("", nullptr);

    EXPECT_THAT(recorded, IsEmpty());
}

TEST_F(ListingStringCallsTest, AnIncludePatternIsMatchedOnceForEachRegularFileInTheOrderOfTheDirectory)
{
    for (const char* const name : {"c", "a", "d", "b"}) {
        dir_.Write(name, "");
    }
    std::vector<std::string> expected;
    for (const std::string& name : NamesAsRead()) {
        expected.push_back("Match('" + name + "', '?')");
    }

    List("?", nullptr);

    EXPECT_EQ(4U, recorded.size());
    EXPECT_EQ(expected, recorded);
}

TEST_F(ListingStringCallsTest, AnExcludePatternOnlyIsMatchedOnceForEachRegularFile)
{
    dir_.Write("a.log", "");
    dir_.Write("b.txt", "");

    List("", "*.log");

    EXPECT_THAT(recorded, UnorderedElementsAre("Match('a.log', '*.log')", "Match('b.txt', '*.log')"));
}

TEST_F(ListingStringCallsTest, TheIncludePatternIsMatchedBeforeTheExcludePattern)
{
    dir_.Write("a.log", "");

    List("a*", "*.log");

    EXPECT_THAT(recorded, ElementsAre("Match('a.log', 'a*')", "Match('a.log', '*.log')"));
    EXPECT_THAT(names_, IsEmpty());
}

TEST_F(ListingStringCallsTest, TheExcludePatternIsNotMatchedWithANameThatIsNotIncluded)
{
    dir_.Write("a.log", "");

    List("b*", "*.log");

    EXPECT_THAT(recorded, ElementsAre("Match('a.log', 'b*')"));
}

TEST_F(ListingStringCallsTest, OnlyRegularFilesAreMatched)
{
    ASSERT_EQ(0, mkdir((dir_ / "directory").c_str(), 0755));
    ASSERT_EQ(0, mkfifo((dir_ / "fifo").c_str(), 0644));
    ASSERT_EQ(0, symlink("nowhere", (dir_ / "link").c_str()));

    List("*", "*");

    EXPECT_THAT(recorded, IsEmpty());
}

TEST_F(ListingStringCallsTest, AnExceptionPassesKeepsTheNamesListedAndLeavesTheDirectoryOpen)
{
    for (const char* const name : {"a", "b", "c"}) {
        dir_.Write(name, "");
    }
    const std::vector<std::string> asRead = NamesAsRead();

    RunInChild([&] {  // the end of the child closes the directory
        const std::size_t descriptors = OpenDescriptors().size();
        names_ = {"z", "y"};
        callsUntilFailure = 3;

        EXPECT_THROW(orv_fileutils::GetDirFileList(dir_.Path().c_str(), "*", nullptr, names_, false, false, true),
                     std::bad_alloc);

        EXPECT_THAT(names_, ElementsAre(asRead[1], asRead[0], "z", "y"));
        EXPECT_EQ(descriptors + 1, OpenDescriptors().size());
        EXPECT_THAT(TakeDlogCalls(), IsEmpty());
    });
}

class PageStringCallsTest : public StringCallsTest {
protected:
    // Returns the page of a text file with these bytes.
    std::string PageOf(const std::string& text)
    {
        orv_fileutils::GenHtmlPagefromTextFile(dir_.Write("table", text).c_str(), (dir_ / "page").c_str());
        return dir_.Read("page");
    }
};

TEST_F(PageStringCallsTest, ATableLineIsSplitIntoRowsAndThenEachRowIntoCells)
{
    PageOf("Port:1,up;Name:x;\n");

    EXPECT_THAT(recorded, ElementsAre("Split('Port:1,up;Name:x;', ';', 0 pieces)", "Split('1,up', ',', 0 pieces)",
                                      "Split('x', ',', 0 pieces)"));
}

TEST_F(PageStringCallsTest, TablesAreSplitInTheOrderOfTheirLinesAndAnEmptyLineIsNot)
{
    PageOf("a:1\n\nb:2\n");

    EXPECT_THAT(recorded, ElementsAre("Split('a:1', ';', 0 pieces)", "Split('1', ',', 0 pieces)",
                                      "Split('b:2', ';', 0 pieces)", "Split('2', ',', 0 pieces)"));
}

TEST_F(PageStringCallsTest, ARowWithoutColonIsSplitWhole)
{
    PageOf("a,b\n");

    EXPECT_THAT(recorded, ElementsAre("Split('a,b', ';', 0 pieces)", "Split('a,b', ',', 0 pieces)"));
}

TEST_F(PageStringCallsTest, AHeadCellAloneSplitsTheEmptyText)
{
    PageOf("a:\n");

    EXPECT_THAT(recorded, ElementsAre("Split('a:', ';', 0 pieces)", "Split('', ',', 0 pieces)"));
}

TEST_F(PageStringCallsTest, WithoutATableNothingIsSplit)
{
    PageOf("");
    PageOf("\n\n");

    EXPECT_THAT(recorded, IsEmpty());
}

TEST_F(PageStringCallsTest, AnExceptionPassesAndLeavesThePageAsItWasAndTheTemporaryFileToTheNextCall)
{
    dir_.Write("page", "old");
    const std::string tempPage = oracle::OwnTemporaryPage();
    callsUntilFailure = 2;

    EXPECT_THROW(PageOf("a:1\n"), std::bad_alloc);

    EXPECT_EQ("old", dir_.Read("page"));
    EXPECT_THAT(dir_.Names(), ElementsAre("page", "table"));
    EXPECT_TRUE(Exists(tempPage));
    EXPECT_EQ(oracle::Page(""), PageOf(""));
    EXPECT_FALSE(Exists(tempPage));
}

class NameValueStringCallsTest : public StringCallsTest {
protected:
    bool Read(const std::string& text, const std::string& commentPrefix)
    {
        return orv_fileutils::ReadNameValueFromFile(dir_.Write("settings", text), values_, '=', commentPrefix);
    }

    std::map<std::string, std::string> values_;
};

TEST_F(NameValueStringCallsTest, AnEntryLineIsTrimmedComparedWithThePrefixAndTrimmedInBothParts)
{
    EXPECT_TRUE(Read(" key = value \n", "#"));

    EXPECT_THAT(recorded, ElementsAre("Trim(' key = value ')", "StartsWith('key = value', '#')", "Trim('key ')",
                                      "Trim(' value')"));
    EXPECT_THAT(values_, ElementsAre(Pair("key", "value")));
}

TEST_F(NameValueStringCallsTest, AnEmptyPrefixIsNeverCompared)
{
    EXPECT_TRUE(Read("a=1\n", ""));

    EXPECT_THAT(recorded, ElementsAre("Trim('a=1')", "Trim('a')", "Trim('1')"));
}

TEST_F(NameValueStringCallsTest, ABlankLineIsTrimmedAndThenSkipped)
{
    EXPECT_TRUE(Read("\n  \n", "#"));

    EXPECT_THAT(recorded, ElementsAre("Trim('')", "Trim('  ')"));
}

TEST_F(NameValueStringCallsTest, ACommentLineIsComparedAndThenSkipped)
{
    EXPECT_TRUE(Read("  # a=1\n", "# "));

    EXPECT_THAT(recorded, ElementsAre("Trim('  # a=1')", "StartsWith('# a=1', '# ')"));
    EXPECT_THAT(values_, IsEmpty());
}

TEST_F(NameValueStringCallsTest, AMissingValueIsNotTrimmed)
{
    EXPECT_TRUE(Read("a=1\nb=\nc\n", ""));

    EXPECT_THAT(recorded, ElementsAre("Trim('a=1')", "Trim('a')", "Trim('1')", "Trim('b=')", "Trim('b')", "Trim('c')",
                                      "Trim('c')"));
    EXPECT_THAT(values_, ElementsAre(Pair("a", "1"), Pair("b", ""), Pair("c", "")));
}

TEST_F(NameValueStringCallsTest, TheWholeRestAfterTheFirstDelimiterIsTrimmed)
{
    EXPECT_TRUE(Read("a= b = c \n", ""));

    EXPECT_THAT(recorded, ElementsAre("Trim('a= b = c ')", "Trim('a')", "Trim(' b = c')"));
}

TEST_F(NameValueStringCallsTest, AFileThatCannotBeOpenedCallsNothing)
{
    EXPECT_FALSE(orv_fileutils::ReadNameValueFromFile(dir_ / "missing", values_, '=', "#"));

    EXPECT_THAT(recorded, IsEmpty());
    EXPECT_EQ(1U, TakeDlogCalls().size());
}

TEST_F(NameValueStringCallsTest, AnExceptionPassesKeepsTheEntriesReadAndClosesTheFile)
{
    values_ = {{"old", "kept"}};
    callsUntilFailure = 6;  // the value of the second line

    EXPECT_THROW(Read("a=1\nb=2\nc=3\n", ""), std::bad_alloc);

    EXPECT_THAT(values_, ElementsAre(Pair("a", "1"), Pair("old", "kept")));
}

}  // namespace
