// Tests what does not allocate, and what happens if memory runs out.
#include "LxFileUtils.h"
#include "LxStringUtils.h"
#include "support/cases.h"
#include "support/faults.h"
#include "support/heap.h"
#include "support/messages.h"
#include "support/oracle.h"
#include "support/orv_test.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <list>
#include <map>
#include <new>
#include <set>
#include <string>
#include <utility>
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

TEST_F(MemoryTest, ARowIsAllocatedOnceInItsFullSize)
{
    std::vector<std::string> cells(20, std::string(50, 'x'));

    const ScopedHeapCount heap;
    const std::string row = orv_fileutils::AddTextFileFormattedRow(cells);
    const int allocations = heap.Allocations();

    EXPECT_EQ(20U * 51, row.size());
    EXPECT_EQ(1, allocations);
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
    ExpectReports({messages::kWorkerMalloc()});
    EXPECT_EQ(std::vector<std::string>{}, dir_.Names());
}

// ---- The faults

struct Allocator {
    std::string name;
    bool (*allocates)();  // and releases; returns false if there was no memory
};

bool Releases(void* block)
{
    std::free(block);
    return block != nullptr;
}

bool AllocatesByRealloc()
{
    void* volatile none = nullptr;  // volatile, so that the compiler does not call malloc instead
    return Releases(std::realloc(none, 100));
}

bool AllocatesByNew()
{
    try {
        ::operator delete(::operator new(100));
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool AllocatesByNewThatDoesNotThrow()
{
    void* const block = ::operator new(100, std::nothrow);
    ::operator delete(block);
    return block != nullptr;
}

bool AllocatesInTheCLibrary()
{
    return Releases(strdup("abc"));
}

class AllocationFaultTest : public OrvTest, public ::testing::WithParamInterface<Allocator> {};

TEST_P(AllocationFaultTest, FailsTheOneThatWasAskedForAndOnRequestAllThatFollow)
{
    const auto allocates = GetParam().allocates;
    for (const Failing failing : {Failing::kOnce, Failing::kFromThereOn}) {
        const ScopedHeapCount heap;
        bool allocated[4];
        bool fired[4];
        int error = 0;
        {
            const ScopedAllocationFault fault(3, failing);
            for (int i = 0; i < 4; ++i) {
                errno = 0;
                allocated[i] = allocates();
                error = allocated[i] ? error : errno;
                fired[i] = fault.Fired();
            }
        }
        const bool allocatedAfterwards = allocates();
        const int allocations = heap.Allocations();

        EXPECT_THAT(allocated, ::testing::ElementsAre(true, true, false, failing == Failing::kOnce));
        EXPECT_THAT(fired, ::testing::ElementsAre(false, false, true, true));
        EXPECT_EQ(ENOMEM, error);
        EXPECT_TRUE(allocatedAfterwards);
        EXPECT_LE(5, allocations);  // an exception is allocated too
    }
}

INSTANTIATE_TEST_SUITE_P(Allocators, AllocationFaultTest,
                         ::testing::Values(Allocator{"malloc", [] { return Releases(std::malloc(100)); }},
                                           Allocator{"calloc", [] { return Releases(std::calloc(10, 10)); }},
                                           Allocator{"realloc", AllocatesByRealloc}, Allocator{"new", AllocatesByNew},
                                           Allocator{"newThatDoesNotThrow", AllocatesByNewThatDoesNotThrow},
                                           Allocator{"strdup", AllocatesInTheCLibrary}),
                         CaseName<Allocator>);

// ---- Memory runs out at every allocation in turn

using Outcomes = std::vector<std::string>;

// The std::string from before C++11 cannot store short texts in itself, and its copies share the text.
#if defined(_GLIBCXX_USE_CXX11_ABI) && !_GLIBCXX_USE_CXX11_ABI
constexpr bool kOldStrings = true;
#else
constexpr bool kOldStrings = false;
#endif

// Runs `act` so that its first, second, ... allocation fails (or this one and all that follow), until a run has no
// failure; `prepare` runs before each. `outcome` gets whether act threw std::bad_alloc, checks the result and describes
// it. Returns the descriptions in order. Equal neighbours are listed once, so that the list does not depend on the
// number of allocations that the standard library makes for one purpose. No run may leave a descriptor open.
Outcomes Sweep(Failing failing, const std::function<void()>& prepare, const std::function<void()>& act,
               const std::function<std::string(bool threw)>& outcome)
{
    Outcomes outcomes;
    for (int nth = 1;; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        prepare();
        const std::vector<std::string> descriptors = OpenDescriptors();
        bool threw = false;
        bool fired = false;
        {
            const ScopedAllocationFault fault(nth, failing);
            try {
                act();
            } catch (const std::bad_alloc&) {
                threw = true;
            }
            fired = fault.Fired();
        }
        const std::string words = (fired ? "" : "without failure: ") + outcome(threw);
        EXPECT_EQ(descriptors, OpenDescriptors());
        if (outcomes.empty() || outcomes.back() != words) {
            outcomes.push_back(words);
        }
        if (!fired) {
            EXPECT_FALSE(threw);
            return outcomes;
        }
    }
}

// `first` are the outcomes of opening a stream. A stream of libstdc++ allocates its buffer after it opened the file,
// and throws if it cannot. A stream of libc++ allocates its buffer before, and its FILE works without a buffer of its
// own.
Outcomes Joined(Outcomes first, const Outcomes& rest)
{
    first.insert(first.end(), rest.begin(), rest.end());
    return first;
}

// The result of each run; in each, a later allocation fails than in the one before.
void ExpectBothSweeps(const Outcomes& expected, const std::function<void()>& prepare, const std::function<void()>& act,
                      const std::function<std::string(bool threw)>& outcome)
{
    EXPECT_EQ(expected, Sweep(Failing::kOnce, prepare, act, outcome));
    EXPECT_EQ(expected, Sweep(Failing::kFromThereOn, prepare, act, outcome));
}

bool IsBeginningOf(const std::string& whole, const std::string& text)
{
    return whole.compare(0, text.size(), text) == 0;
}

const auto kNothing = [] {};

class MemoryExhaustionTest : public MemoryTest {};

TEST_F(MemoryExhaustionTest, FileExistsAndMovesAllocateNothingThatCouldFail)
{
    const std::string bytes(10000, 'x');
    const std::string source = dir_ / "source";
    const std::string missing = dir_ / "missing";
    const std::string near = dir_ / "near";
    const std::string far = other_ / "far";

    ExpectBothSweeps(
        {"without failure: moved twice"}, [&] { dir_.Write("source", bytes); },
        [&] {
            (void)orv_fileutils::FileExists(source.c_str());
            (void)orv_fileutils::RenameFileAcrossFs(missing, near);
            (void)orv_fileutils::RenameFileAcrossFs(source, near);
            (void)orv_fileutils::RenameFileAcrossFs(near, far);
        },
        [&](bool) {
            ExpectReports({messages::kRenameStat(missing, 2)});
            EXPECT_EQ(std::vector<std::string>{}, dir_.Names());
            EXPECT_EQ(bytes, other_.Read("far"));
            return "moved twice";
        });
}

TEST_F(MemoryExhaustionTest, MakingDirectoriesFailsWithItsLinesAndMakesNothing)
{
    const std::string path = dir_ / "a/b";
    bool workerMade = false;
    bool made = false;

    ExpectBothSweeps(
        {"refused", "without failure: made"},
        [&] {
            (void)rmdir(path.c_str());
            (void)rmdir((dir_ / "a").c_str());
        },
        [&] { made = orv_fileutils::MakeDirPath(path.c_str(), 0755, /*applyMode=*/true); },
        [&](bool threw) {
            EXPECT_FALSE(threw);
            EXPECT_EQ(made, Exists(path));
            EXPECT_EQ(made, Exists(dir_ / "a"));
            if (!made) {
                ExpectReports({messages::kWorkerMalloc(), messages::kMakeFailed(path)});
            }
            return made ? "made" : "refused";
        });
    ExpectBothSweeps(
        {"refused", "without failure: made"}, kNothing,
        [&] { workerMade = orv_fileutils::DoMakeDirPath(path.c_str(), 0755); },
        [&](bool threw) {
            EXPECT_FALSE(threw);
            if (!workerMade) {
                ExpectReports({messages::kWorkerMalloc()});
            }
            return workerMade ? "made" : "refused";
        });
}

TEST_F(MemoryExhaustionTest, SplitThrowsAndTheVectorContainsTheFirstPieces)
{
    const std::string piece(100, 'x');
    const std::string text = piece + "1;" + piece + "2;" + piece + "3";
    const std::vector<std::string> expected = {"before", piece + "1", piece + "2", piece + "3"};
    std::vector<std::string> pieces;

    ExpectBothSweeps(
        {"threw, 1", "threw, 2", "threw, 3", "without failure: 4"},
        [&] { pieces = std::vector<std::string>{"before"}; }, [&] { LxStringUtils::Split(text, ';', pieces); },
        [&](bool threw) {
            EXPECT_GE(expected.size(), pieces.size());
            EXPECT_TRUE(std::equal(pieces.begin(), pieces.end(), expected.begin()));
            return (threw ? "threw, " : "") + std::to_string(pieces.size());
        });
}

TEST_F(MemoryExhaustionTest, TheOtherStringOperationsAllocateNothingThatCouldFail)
{
    const std::string original = "  \t" + std::string(100, 'x') + " \r\n";
    const std::string pattern = "*x?x*";
    std::string text;
    bool matches = false;

    ExpectBothSweeps(
        {"without failure: trimmed"}, [&] { text.assign(original.data(), original.size()); },
        [&] {
            LxStringUtils::Trim(text);
            matches = LxStringUtils::StartsWith(text, text) && LxStringUtils::WildcardedStringMatch(text, pattern);
        },
        [&](bool) {
            EXPECT_TRUE(matches);
            EXPECT_EQ(std::string(100, 'x'), text);
            return "trimmed";
        });
}

TEST_F(MemoryExhaustionTest, TheTableDelimiterIsTooShortToFailInAStringWithRoomForShortTexts)
{
    std::string delimiter;

    ExpectBothSweeps(
        kOldStrings ? Outcomes{"threw", "without failure: delimiter"} : Outcomes{"without failure: delimiter"},
        [&] { delimiter.clear(); }, [&] { delimiter = orv_fileutils::TextFileTableDelimter(); },
        [&](bool threw) {
            EXPECT_EQ(threw ? "" : "\n", delimiter);
            return threw ? "threw" : "delimiter";
        });
}

TEST_F(MemoryExhaustionTest, AddTextFileFormattedRowThrowsAndLeavesTheCellsAlone)
{
    const std::vector<std::string> expected = {std::string(100, 'h'), std::string(100, 'c'), std::string(5000, 'd')};
    std::vector<std::string> cells = expected;
    std::string row;

    ExpectBothSweeps(
        {"threw", "without failure: row"}, [&] { row.clear(); },
        [&] { row = orv_fileutils::AddTextFileFormattedRow(cells); },
        [&](bool threw) {
            EXPECT_EQ(threw ? "" : expected[0] + ":" + expected[1] + "," + expected[2] + ";", row);
            EXPECT_EQ(expected, cells);
            return threw ? "threw" : "row";
        });
}

// If only the large buffer cannot be had, the file is copied all the same. A stream reports that it could not open; a
// stream's own buffer throws. After both are open, the copy needs no memory.
TEST_F(MemoryExhaustionTest, CopyFileReturnsItsCodeForAStreamAndThrowsForABuffer)
{
    const std::string bytes(100000, 'x');
    const std::string source = dir_.Write("source", bytes);
    const std::string destination = dir_ / "destination";
    int result = 1;

    const auto sweep = [&](Failing failing) {
        return Sweep(
            failing, [&] { dir_.Write("destination", "old"); },
            [&] { result = orv_fileutils::CopyFile(source, destination); },
            [&](bool threw) {
                const std::string copy = dir_.Read("destination");
                EXPECT_EQ(bytes, dir_.Read("source"));
                EXPECT_EQ((std::vector<std::string>{"destination", "source"}), dir_.Names());
                return (threw ? "threw" : std::to_string(result)) + ", " +
                       (copy.empty()    ? "empty"
                        : copy == bytes ? "copy"
                                        : copy);
            });
    };
    const Outcomes streams = kStreamsUseStdio
                                 ? Outcomes{"threw, old", "-2, old", "-3, old", "0, copy", "without failure: 0, copy"}
                                 : Outcomes{"-2, old", "-3, old", "threw, empty", "without failure: 0, copy"};

    EXPECT_EQ(Joined({"0, copy"}, streams), sweep(Failing::kOnce));
    EXPECT_EQ(streams, sweep(Failing::kFromThereOn));
}

// Closes the only descriptor that was opened since `before`. It must be open on `path`.
void CloseLeaked(const std::vector<std::string>& before, const std::string& path)
{
    std::vector<std::string> leaked;
    const std::vector<std::string> now = OpenDescriptors();
    std::set_difference(now.begin(), now.end(), before.begin(), before.end(), std::back_inserter(leaked));
    ASSERT_EQ(1U, leaked.size());
    EXPECT_EQ(path, std::filesystem::read_symlink("/proc/self/fd/" + leaked[0]));
    EXPECT_EQ(0, close(std::stoi(leaked[0])));
}

class ListingExhaustionTest : public MemoryExhaustionTest {
protected:
    ListingExhaustionTest()
    {
        for (const char* const last : {"0", "3", "1", "4", "2"}) {  // unsorted, in whatever order they are read
            expected_.push_back(dir_.Write(std::string("a name too long for the string object itself ") + last, ""));
        }
        expected_.sort();
    }

    Outcomes SweepListing(Failing failing, bool clearList)
    {
        std::list<std::string> names;
        std::vector<std::string> descriptors;
        bool listed = false;
        return Sweep(
            failing,
            [&] {
                names = std::list<std::string>{"old"};
                descriptors = OpenDescriptors();
            },
            [&] {
                listed = orv_fileutils::GetDirFileList(dir_.Path().c_str(), "*name too long for the string object*",
                                                       "no such name, also one too long for the object", names,
                                                       /*withDirPath=*/true, clearList, /*logOpenError=*/true);
            },
            [&](bool threw) {
                if (!clearList) {
                    EXPECT_TRUE(!names.empty() && (listed || names.back() == "old"));
                    names.remove("old");
                }
                const std::set<std::string> unique(names.begin(), names.end());
                EXPECT_EQ(names.size(), unique.size());
                EXPECT_TRUE(std::includes(expected_.begin(), expected_.end(), unique.begin(), unique.end()));
                if (threw) {
                    CloseLeaked(descriptors, dir_.Path());
                    return "threw, " + std::to_string(names.size());
                }
                if (!listed) {
                    EXPECT_EQ(std::list<std::string>{}, names);
                    ExpectReports({messages::kListOpen(dir_.Path(), ENOMEM)});
                    return std::string("not opened");
                }
                EXPECT_EQ(expected_, names);
                return std::string("listed");
            });
    }

    std::list<std::string> expected_;
};

// The directory stays open. The library leaves nothing else open or allocated.
TEST_F(ListingExhaustionTest, GetDirFileListThrowsAndTheListKeepsWhatItHas)
{
    const Outcomes expected = {"not opened",
                               "threw, 0",
                               "threw, 1",
                               "threw, 2",
                               "threw, 3",
                               "threw, 4",
                               "listed",  // sorted without more memory
                               "without failure: listed"};

    EXPECT_EQ(expected, SweepListing(Failing::kOnce, /*clearList=*/false));
    EXPECT_EQ(expected, SweepListing(Failing::kFromThereOn, /*clearList=*/false));
    EXPECT_EQ(expected, SweepListing(Failing::kOnce, /*clearList=*/true));
    EXPECT_EQ(expected, SweepListing(Failing::kFromThereOn, /*clearList=*/true));
}

class PageExhaustionTest : public MemoryExhaustionTest {
protected:
    PageExhaustionTest()
    {
        const std::string cell(100, 'x');
        std::string lines;
        for (std::size_t i = 0; i <= kLines; ++i) {
            dir_.Write("text", lines);
            orv_fileutils::GenHtmlPagefromTextFile(text_.c_str(), page_.c_str());
            pages_.push_back(dir_.Read("page"));
            // Each line is longer than the one before, so that it needs more memory.
            lines += i == kLines ? ""
                                 : cell + ":" + std::string(100U << (2 * i), 'y') + "," + cell + ";" + cell + ":" +
                                       cell + ";\n";
        }
    }

    // Returns a description of the temporary page, and removes it.
    std::string TakeTemporary() const
    {
        if (!Exists(temporary_)) {
            return "none";
        }
        const std::string bytes = ReadFile(temporary_);
        EXPECT_EQ(0, unlink(temporary_.c_str()));
        const auto page = std::find(pages_.begin(), pages_.end(), bytes);
        if (page != pages_.end()) {
            return "of " + std::to_string(page - pages_.begin()) + " lines";
        }
        EXPECT_TRUE(IsBeginningOf(pages_.back(), bytes)) << bytes;
        return bytes.empty() ? "empty" : "begun";
    }

    Outcomes SweepPage(Failing failing)
    {
        return Sweep(
            failing, [&] { dir_.Write("page", "old"); },
            [&] { orv_fileutils::GenHtmlPagefromTextFile(text_.c_str(), page_.c_str()); },
            [&](bool threw) {
                EXPECT_EQ((std::vector<std::string>{"page", "text"}), dir_.Names());
                const std::string written = dir_.Read("page");
                const std::string temporary = TakeTemporary();
                if (threw) {
                    EXPECT_EQ("old", written);
                    return "threw, temporary page " + temporary;
                }
                EXPECT_EQ("none", temporary);
                if (written == "old") {
                    ExpectReports({messages::kRenameStat(temporary_, 2), messages::kPageMove(temporary_, page_)});
                    return std::string("refused");
                }
                const auto page = std::find(pages_.begin(), pages_.end(), written);
                EXPECT_NE(pages_.end(), page) << written;
                return "page of " + std::to_string(page - pages_.begin()) + " lines";
            });
    }

    static constexpr std::size_t kLines = 3;
    const std::string temporary_ = oracle::OwnTemporaryPage();
    const std::string text_ = dir_ / "text";
    const std::string page_ = dir_ / "page";
    std::vector<std::string> pages_;  // with 0, 1, 2, ... lines of the text
};

// A stream that cannot open is ignored; a line without memory ends the text; everything else throws.
TEST_F(PageExhaustionTest, GenHtmlPagefromTextFileThrowsOrEndsThePageEarly)
{
    const Outcomes opening = kStreamsUseStdio
                                 ? Outcomes{"threw, temporary page none",
                                            "page of 0 lines",  // the text was not opened
                                            "threw, temporary page none", "refused", "page of 3 lines"}
                                 : Outcomes{"page of 0 lines",  // the text was not opened
                                            "threw, temporary page none", "refused", "threw, temporary page empty"};
    const Outcomes rest = {"page of 0 lines",  // the first line was not read
                           "threw, temporary page begun",
                           "page of 1 lines",
                           "threw, temporary page begun",
                           "page of 2 lines",
                           "threw, temporary page begun",
                           "threw, temporary page of 3 lines",  // no memory for the arguments of the move
                           "without failure: page of 3 lines"};

    EXPECT_EQ(Joined(opening, rest), SweepPage(Failing::kOnce));
}

// Streams ignore lack of memory, but then the arguments of the move throw: no incomplete page is published.
TEST_F(PageExhaustionTest, GenHtmlPagefromTextFileAlwaysThrowsWhenNoMemoryComesBack)
{
    const Outcomes opening = kStreamsUseStdio ? Outcomes{"threw, temporary page none"}
                                              : Outcomes{"threw, temporary page none", "threw, temporary page empty"};
    const Outcomes rest = {"threw, temporary page of 0 lines", "threw, temporary page begun",
                           "threw, temporary page of 1 lines", "threw, temporary page begun",
                           "threw, temporary page of 2 lines", "threw, temporary page begun",
                           "threw, temporary page of 3 lines", "without failure: page of 3 lines"};

    EXPECT_EQ(Joined(opening, rest), SweepPage(Failing::kFromThereOn));
}

using NameValues = std::map<std::string, std::string>;

class NameValueExhaustionTest : public MemoryExhaustionTest {
protected:
    NameValueExhaustionTest()
    {
        // Each is longer than all before, so that it needs more memory.
        for (std::size_t i = 0; i < 3; ++i) {
            entries_.emplace_back(std::to_string(i) + std::string(100U << (3 * i), 'n'),
                                  std::string(200U << (3 * i), 'v'));
        }
        file_ = dir_.Write("file", "# a comment longer than a string object itself\n\n" + entries_[0].first + "=" +
                                       entries_[0].second + "\n" + entries_[1].first + " = " + entries_[1].second +
                                       "\n  \n" + entries_[2].first + "=" + entries_[2].second + "\n");
    }

    // Describes the map by a letter for each entry: V for the right value, E for an empty one.
    std::string Letters(const NameValues& nameValues) const
    {
        EXPECT_EQ(1U, nameValues.count("old"));
        EXPECT_EQ("value", nameValues.at("old"));
        std::string letters;
        std::size_t known = 1;
        for (const auto& entry : entries_) {
            const auto found = nameValues.find(entry.first);
            if (found == nameValues.end()) {
                continue;
            }
            ++known;
            EXPECT_TRUE(found->second.empty() || found->second == entry.second) << found->second;
            letters += found->second.empty() ? "E" : "V";
        }
        EXPECT_EQ(known, nameValues.size());
        return letters;
    }

    Outcomes SweepReading(Failing failing)
    {
        const std::string commentPrefix = "#";
        NameValues nameValues;
        bool read = false;
        return Sweep(
            failing,
            [&] {
                nameValues = NameValues{{"old", "value"}};
            },
            [&] { read = orv_fileutils::ReadNameValueFromFile(file_, nameValues, '=', commentPrefix); },
            [&](bool threw) {
                const std::string letters = Letters(nameValues);
                if (threw) {
                    return "threw " + letters;
                }
                if (read) {
                    return "true " + letters;
                }
                const int line = std::vector<int>{3, 4, 6}.at(letters.size());
                const std::vector<DlogCall> calls = TakeDlogCalls();
                EXPECT_EQ(1U, calls.size());
                EXPECT_EQ(messages::kSeverity, calls[0].severity);
                EXPECT_EQ(messages::kSource, calls[0].sourceTag);
                const bool open = calls[0].format != messages::kNameValueOpen.format;
                const Report expected =
                    open ? messages::kNameValueLine(line, file_, "=") : messages::kNameValueOpen(file_);
                EXPECT_EQ(expected.format, calls[0].format);
                EXPECT_EQ(expected.text, calls[0].text);
                return (open ? "line " + std::to_string(line) + " " : "not opened ") + letters;
            });
    }

    // Removes the runs in which the value was not copied into the map, if copying needs no memory.
    static Outcomes WhereCopied(Outcomes outcomes)
    {
        const auto needsCopy = [](const std::string& words) {
            return IsBeginningOf(words, "threw ") && words.back() == 'E';
        };
        if (kOldStrings) {
            outcomes.erase(std::remove_if(outcomes.begin(), outcomes.end(), needsCopy), outcomes.end());
        }
        return outcomes;
    }

    std::vector<std::pair<std::string, std::string>> entries_;
    std::string file_;
};

TEST_F(NameValueExhaustionTest, ReadNameValueFromFileThrowsOrReportsTheLineOrEndsEarly)
{
    const auto expected = [](const Outcomes& opening) {
        const Outcomes rest = {"true ",      // the first entry's line was not read
                               "line 3 ",    // its name was not extracted
                               "threw ",     // no memory for its value, or no room in the map
                               "threw E",    // the value was not copied into the map
                               "true V",     // the same with the second entry
                               "line 4 V",   //
                               "threw V",    //
                               "threw VE",   //
                               "true VV",    // and with the third
                               "line 6 VV",  //
                               "threw VV",   //
                               "threw VVE",  //
                               "without failure: true VVV"};
        return WhereCopied(Joined(opening, rest));
    };

    EXPECT_EQ(
        expected(kStreamsUseStdio ? Outcomes{"threw ", "not opened ", "true VVV"} : Outcomes{"not opened ", "threw "}),
        SweepReading(Failing::kOnce));
    EXPECT_EQ(expected(kStreamsUseStdio ? Outcomes{"threw ", "not opened "} : Outcomes{"not opened ", "threw "}),
              SweepReading(Failing::kFromThereOn));
}

}  // namespace
