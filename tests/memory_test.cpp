// What must not allocate, and what happens when memory runs out.
#include "LxFileUtils.h"
#include "LxStringUtils.h"
#include "support/faults.h"
#include "support/heap.h"
#include "support/messages.h"
#include "support/orv_test.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <list>
#include <map>
#include <new>
#include <set>
#include <string>
#include <vector>

namespace {

class MemoryTest : public TwoFileSystemsTest {};

TEST_F(MemoryTest, FileExistsAllocatesNothing)
{
    const std::string file = dir_.Write("file", "abc");

    const ScopedHeapCount heap;
    const bool exists = orv_fileutils::FileExists(file.c_str());
    const int allocations = heap.Allocations();

    EXPECT_TRUE(exists);
    EXPECT_EQ(0, allocations);
}

TEST_F(MemoryTest, AMoveOnOneFileSystemAllocatesNothing)
{
    const std::string source = dir_.Write("source", "abc");
    const std::string destination = dir_ / "destination";

    const ScopedHeapCount heap;
    const bool moved = orv_fileutils::RenameFileAcrossFs(source, destination);
    const int allocations = heap.Allocations();

    EXPECT_TRUE(moved);
    EXPECT_EQ(0, allocations);
}

TEST_F(MemoryTest, AMoveAcrossFileSystemsAllocatesNothing)
{
    const std::string source = dir_.Write("source", std::string(10000, 'x'));
    const std::string destination = other_ / "destination";

    const ScopedHeapCount heap;
    const bool moved = orv_fileutils::RenameFileAcrossFs(source, destination);
    const int allocations = heap.Allocations();

    EXPECT_TRUE(moved);
    EXPECT_EQ(std::string(10000, 'x'), other_.Read("destination"));
    EXPECT_EQ(0, allocations);
}

TEST_F(MemoryTest, TheHeapCounterSeesWhatAListingAllocates)
{
    std::list<std::string> names;
    dir_.Write("a name too long for the string object itself", "");

    const ScopedHeapCount heap;
    const bool listed = orv_fileutils::GetDirFileList(dir_.Path().c_str(), nullptr, nullptr, names, false, true, true);
    const int allocations = heap.Allocations();

    EXPECT_TRUE(listed);
    EXPECT_LT(2, allocations);  // the directory stream, the element, the text
}

TEST_F(MemoryTest, DoMakeDirPathReportsThatItsWorkingCopyCannotBeAllocated)
{
    const std::string path = dir_ / "a/b";

    const ScopedAllocationFault fault(1);
    const bool made = orv_fileutils::DoMakeDirPath(path.c_str(), 0755);

    EXPECT_FALSE(made);
    EXPECT_TRUE(fault.Fired());
    ExpectReports({{messages::kWorkerMalloc, "DoMakeDirPath: malloc failure (dirCopy)"}});
    EXPECT_EQ(std::vector<std::string>{}, dir_.Names());
}

// ---- Memory exhaustion at every allocation in turn

// How a call ended one of whose allocations failed.
struct Outcome {
    bool fired;  // false in the last run of a sweep, in which no allocation failed
    bool threw;  // std::bad_alloc
};

// Runs `act` with its first, its second, ... allocation failing, up to a run without failure; `prepare` runs before,
// `check`, which gets an Outcome, after each. No run may leave a descriptor open. Returns the number of failures.
template <typename Prepare, typename Act, typename Check>
int SweepAllocations(Prepare prepare, Act act, Check check)
{
    for (int nth = 1;; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        prepare();
        const std::vector<std::string> descriptors = OpenDescriptors();
        Outcome outcome{};
        {
            const ScopedAllocationFault fault(nth);
            try {
                act();
            } catch (const std::bad_alloc&) {
                outcome.threw = true;
            }
            outcome.fired = fault.Fired();
        }
        check(outcome);
        EXPECT_EQ(descriptors, OpenDescriptors());
        EXPECT_TRUE(outcome.fired || !outcome.threw);
        if (!outcome.fired) {
            return nth - 1;
        }
    }
}

bool IsBeginningOf(const std::string& whole, const std::string& text)
{
    return whole.compare(0, text.size(), text) == 0;
}

class MemoryExhaustionTest : public MemoryTest {};

TEST_F(MemoryExhaustionTest, SplitThrowsAndTheVectorHoldsTheFirstPieces)
{
    const std::string piece(100, 'x');
    const std::string text = piece + "1;" + piece + "2;" + piece + "3";
    const std::vector<std::string> expected = {"before", piece + "1", piece + "2", piece + "3"};
    std::vector<std::string> pieces;

    const int failures = SweepAllocations([&] { pieces = std::vector<std::string>{"before"}; },
                                          [&] { LxStringUtils::Split(text, ';', pieces); },
                                          [&](Outcome outcome) {
                                              EXPECT_EQ(outcome.fired, outcome.threw);
                                              ASSERT_FALSE(pieces.empty());
                                              ASSERT_GE(expected.size(), pieces.size());
                                              EXPECT_TRUE(std::equal(pieces.begin(), pieces.end(), expected.begin()));
                                              EXPECT_EQ(outcome.threw, pieces.size() < expected.size());
                                          });

    EXPECT_LE(3, failures);
}

TEST_F(MemoryExhaustionTest, AddTextFileFormattedRowThrowsAndLeavesTheCellsAlone)
{
    const std::vector<std::string> expected = {std::string(100, 'h'), std::string(100, 'c'), std::string(5000, 'd')};
    std::vector<std::string> cells = expected;
    std::string row;

    const int failures = SweepAllocations(
        [&] { row.clear(); }, [&] { row = orv_fileutils::AddTextFileFormattedRow(cells); },
        [&](Outcome outcome) {
            EXPECT_EQ(outcome.fired, outcome.threw);
            EXPECT_EQ(outcome.threw ? "" : expected[0] + ":" + expected[1] + "," + expected[2] + ";", row);
            EXPECT_EQ(expected, cells);
        });

    EXPECT_LE(1, failures);
}

TEST_F(MemoryExhaustionTest, CopyFileThrowsOrEndsEarly)
{
    const std::string bytes(100000, 'x');
    const std::string source = dir_.Write("source", bytes);
    const std::string destination = dir_ / "destination";
    int result = 1;
    bool threw = false;

    const int failures = SweepAllocations(
        [&] { dir_.Write("destination", "old"); }, [&] { result = orv_fileutils::CopyFile(source, destination); },
        [&](Outcome outcome) {
            const std::string copy = dir_.Read("destination");
            if (outcome.threw) {
                threw = true;
                EXPECT_TRUE(copy == "old" || copy.empty()) << copy.size();
            } else if (!outcome.fired) {
                EXPECT_EQ(0, result);
                EXPECT_EQ(bytes, copy);
            } else if (result == 0) {
                EXPECT_TRUE(IsBeginningOf(bytes, copy)) << copy.size();
            } else {
                EXPECT_TRUE(result == -2 || result == -3) << result;
                EXPECT_EQ("old", copy);
            }
            EXPECT_EQ(bytes, dir_.Read("source"));
            EXPECT_EQ((std::vector<std::string>{"destination", "source"}), dir_.Names());
        });

    EXPECT_LE(2, failures);
    EXPECT_TRUE(threw);
}

// Closes the one descriptor that was opened since `before`, which must be one of `path`.
void CloseLeaked(const std::vector<std::string>& before, const std::string& path)
{
    std::vector<std::string> leaked;
    const std::vector<std::string> now = OpenDescriptors();
    std::set_difference(now.begin(), now.end(), before.begin(), before.end(), std::back_inserter(leaked));
    ASSERT_EQ(1U, leaked.size());
    EXPECT_EQ(path, std::filesystem::read_symlink("/proc/self/fd/" + leaked[0]));
    EXPECT_EQ(0, close(std::stoi(leaked[0])));
}

// The directory handle stays open; that is the one thing that the library leaves behind.
TEST_F(MemoryExhaustionTest, GetDirFileListThrowsAndTheListKeepsWhatItHas)
{
    std::list<std::string> expected;
    for (int i = 0; i < 5; ++i) {
        expected.push_back(dir_.Write("a name too long for the string object itself " + std::to_string(i), ""));
    }
    std::list<std::string> names;
    std::vector<std::string> descriptors;
    bool listed = false;
    std::set<std::size_t> sizes;  // of the lists that an exception left

    const int failures = SweepAllocations(
        [&] {
            names = std::list<std::string>{"old"};
            descriptors = OpenDescriptors();
        },
        [&] {
            listed = orv_fileutils::GetDirFileList(dir_.Path().c_str(), "*", "", names, /*withDirPath=*/true,
                                                   /*clearList=*/false, /*logOpenError=*/true);
        },
        [&](Outcome outcome) {
            if (outcome.threw) {
                CloseLeaked(descriptors, dir_.Path());
                sizes.insert(names.size());
                ASSERT_FALSE(names.empty());
                EXPECT_EQ("old", names.back());
                names.pop_back();
                const std::set<std::string> unique(names.begin(), names.end());
                EXPECT_EQ(names.size(), unique.size());
                EXPECT_TRUE(std::includes(expected.begin(), expected.end(), unique.begin(), unique.end()));
            } else if (outcome.fired) {
                EXPECT_FALSE(listed);
                EXPECT_EQ(std::list<std::string>{"old"}, names);
                ExpectReports({{messages::kListOpen, "GetDirFileList: Error opening directory folder '" + dir_.Path() +
                                                         "', errno: " + std::to_string(ENOMEM)}});
            } else {
                EXPECT_TRUE(listed);
                names.remove("old");
                EXPECT_EQ(expected, names);
            }
        });

    EXPECT_LE(1 + 2 * 5, failures);
    EXPECT_EQ((std::set<std::size_t>{1, 2, 3, 4, 5}), sizes);
}

TEST_F(MemoryExhaustionTest, GenHtmlPagefromTextFileThrowsOrEndsThePageEarly)
{
    const std::string temporary = "/var/tmp/TextToHtml_" + std::to_string(getpid()) + ".tmp";
    const std::string page = dir_ / "page";
    const std::string cell(100, 'x');
    std::string lines;
    std::vector<std::string> pages;  // with no line of the text, with its first, with its first two, ...
    for (int i = 0; i <= 4; ++i) {
        const std::string text = dir_.Write("text", lines);
        orv_fileutils::GenHtmlPagefromTextFile(text.c_str(), page.c_str());
        pages.push_back(dir_.Read("page"));
        // Longer from line to line, so that each line needs memory of its own.
        lines +=
            cell + std::to_string(i) + ":" + std::string(100U << i, 'y') + "," + cell + ";" + cell + ":" + cell + ";\n";
    }
    const std::string text = dir_ / "text";  // holds the first four
    int thrown = 0;
    int cut = 0;
    int refused = 0;

    SweepAllocations(
        [&] { dir_.Write("page", "old"); }, [&] { orv_fileutils::GenHtmlPagefromTextFile(text.c_str(), page.c_str()); },
        [&](Outcome outcome) {
            const std::string written = dir_.Read("page");
            if (outcome.threw) {
                ++thrown;
                EXPECT_EQ("old", written);
            } else if (!outcome.fired) {
                EXPECT_EQ(pages.back(), written);
            } else if (written == "old") {
                ++refused;  // the temporary file could not be opened
                ExpectReports({{messages::kRenameStat, "RenameFileAcrossFs: stat(" + temporary + ") failed (2)."},
                               {messages::kPageMove, "GenHtmlPagefromTextFile: RenameFileAcrossFs(" + temporary + ", " +
                                                         page + ") failed."}});
            } else {
                ++cut;
                EXPECT_THAT(pages, ::testing::Contains(written));
            }
            EXPECT_EQ((std::vector<std::string>{"page", "text"}), dir_.Names());
            (void)unlink(temporary.c_str());  // left behind by an exception
        });

    EXPECT_LE(4 * 4, thrown);
    EXPECT_LE(1, cut);
    EXPECT_EQ(1, refused);
}

using NameValues = std::map<std::string, std::string>;

TEST_F(MemoryExhaustionTest, ReadNameValueFromFileThrowsOrReportsTheLineOrEndsEarly)
{
    const std::string longText(100, 'x');
    const std::vector<NameValues::value_type> entries = {
        {"1" + longText, "a" + longText}, {"2" + longText, "b" + longText}, {"3" + longText, "c" + longText}};
    const std::vector<int> lineNumbers = {3, 4, 6};
    const std::string file =
        dir_.Write("file", "# a comment longer than a string object itself\n\n" + entries[0].first + "=" +
                               entries[0].second + "\n" + entries[1].first + " = " + entries[1].second + "\n  \n" +
                               entries[2].first + "=" + entries[2].second + "\n");
    NameValues nameValues;
    bool read = false;
    int thrown = 0;
    std::set<int> reportedLines;

    SweepAllocations(
        [&] {
            nameValues = NameValues{{"0 old", "value"}};
        },
        [&] { read = orv_fileutils::ReadNameValueFromFile(file, nameValues, '=', "#"); },
        [&](Outcome outcome) {
            // The entries of the first lines; the value of one may be missing, when there was no memory for it.
            ASSERT_EQ(1U, nameValues.count("0 old"));
            EXPECT_EQ("value", nameValues["0 old"]);
            nameValues.erase("0 old");
            ASSERT_GE(entries.size(), nameValues.size());
            const std::size_t stored = nameValues.size();
            int missing = 0;
            for (std::size_t i = 0; i < stored; ++i) {
                ASSERT_EQ(1U, nameValues.count(entries[i].first));
                const std::string& value = nameValues[entries[i].first];
                missing += value.empty();
                EXPECT_TRUE(value.empty() || value == entries[i].second) << value;
            }
            EXPECT_GE(1, missing);

            if (outcome.threw) {
                ++thrown;
            } else if (!outcome.fired) {
                EXPECT_TRUE(read);
                EXPECT_EQ(3U, stored);
                EXPECT_EQ(0, missing);
            } else if (!read) {
                const std::vector<DlogCall> calls = TakeDlogCalls();
                ASSERT_EQ(1U, calls.size());
                EXPECT_EQ(3, calls[0].severity);
                EXPECT_EQ("LxFileUtils.cpp", calls[0].sourceTag);
                EXPECT_EQ(0, missing);
                if (calls[0].format == messages::kNameValueOpen) {
                    EXPECT_EQ(0U, stored);
                    EXPECT_EQ("ReadNameValueFromFile: Unable to open file \"" + file + "\"", calls[0].text);
                } else {
                    ASSERT_GT(entries.size(), stored);
                    reportedLines.insert(lineNumbers[stored]);
                    EXPECT_EQ(messages::kNameValueLine, calls[0].format);
                    EXPECT_EQ("ReadNameValueFromFile: Error processing line " + std::to_string(lineNumbers[stored]) +
                                  " in file \"" + file + "\".  No delimiter '=' found.",
                              calls[0].text);
                }
            }
        });

    EXPECT_LE(3, thrown);
    EXPECT_EQ((std::set<int>{3, 4, 6}), reportedLines);
}

}  // namespace
