#include "LxFileUtils.h"
#include "support/cases.h"
#include "support/faults.h"
#include "support/messages.h"
#include "support/orv_test.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <list>
#include <string>
#include <vector>

using orv_fileutils::GetDirFileList;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace {

using Names = std::list<std::string>;

Report NoDirectory()
{
    return messages::kListNoDirectory();
}

Report NotOpened(const std::string& directory, int error)
{
    return messages::kListOpen(directory, error);
}

Report NotRead(const std::string& directory, int error)
{
    return messages::kListRead(directory, error);
}

// Returns the names of the regular files among the first `count` entries of `directory`, the last one first.
Names FrontOf(const std::string& directory, int count)
{
    Names names;
    DIR* const stream = opendir(directory.c_str());
    for (int i = 0; i < count; ++i) {
        const dirent* const entry = readdir(stream);
        if (entry->d_type == DT_REG) {
            names.emplace_front(entry->d_name);
        }
    }
    closedir(stream);
    return names;
}

class DirListTest : public OrvTest {
protected:
    // Lists the bare names in `directory` into a list that is cleared first.
    bool List(const std::string& directory, const char* includePattern = nullptr, const char* excludePattern = nullptr)
    {
        return GetDirFileList(directory.c_str(), includePattern, excludePattern, names_, /*withDirPath=*/false,
                              /*clearList=*/true, /*logOpenError=*/true);
    }

    // The same with the directory before each name.
    bool ListPaths(const std::string& directory)
    {
        return GetDirFileList(directory.c_str(), nullptr, nullptr, names_, /*withDirPath=*/true, /*clearList=*/true,
                              /*logOpenError=*/true);
    }

    // Adds the bare names to the list.
    bool Add(const std::string& directory, const char* includePattern = nullptr, bool logOpenError = true)
    {
        return GetDirFileList(directory.c_str(), includePattern, nullptr, names_, /*withDirPath=*/false,
                              /*clearList=*/false, logOpenError);
    }

    void WriteAll(const std::vector<std::string>& names)
    {
        for (const std::string& name : names) {
            dir_.Write(name, "");
        }
    }

    // Makes fifty files in an order that a directory does not have by chance.
    void WriteFifty()
    {
        for (int i = 0; i < 50; ++i) {
            dir_.Write("file" + std::to_string(10 + i * 37 % 50), "");
        }
    }

    // Makes the kernel return the entries of a directory again while it is being read.
    static void Rewind(const std::string& path)
    {
        for (const std::string& number : OpenDescriptors()) {
            std::error_code ignored;
            if (std::filesystem::read_symlink("/proc/self/fd/" + number, ignored) == path) {
                EXPECT_EQ(0, lseek(std::stoi(number), 0, SEEK_SET));
            }
        }
    }

    Names names_;
};

// ---- Listed entries

TEST_F(DirListTest, AnEmptyDirectoryAddsNothing)
{
    names_ = {"old"};

    EXPECT_TRUE(List(dir_.Path()));

    EXPECT_THAT(names_, IsEmpty());
}

TEST_F(DirListTest, AnEmptyDirectoryStillSortsTheOldElements)
{
    names_ = {"z", "a", "m"};

    EXPECT_TRUE(Add(dir_.Path()));

    EXPECT_THAT(names_, ElementsAre("a", "m", "z"));
}

TEST_F(DirListTest, RegularFilesAreListedAndSubdirectoriesAreNeitherListedNorEntered)
{
    WriteAll({"b.log", "a.txt"});
    ASSERT_EQ(0, mkdir((dir_ / "c").c_str(), 0755));
    WriteAll({"c/inside"});

    EXPECT_TRUE(List(dir_.Path()));

    EXPECT_THAT(names_, ElementsAre("a.txt", "b.log"));
}

TEST_F(DirListTest, ThePathPrecedesEachNameOnRequest)
{
    WriteAll({"b.log", "a.txt"});

    EXPECT_TRUE(ListPaths(dir_.Path()));

    EXPECT_THAT(names_, ElementsAre(dir_.Path() + "/a.txt", dir_.Path() + "/b.log"));
}

TEST_F(DirListTest, APathThatEndsInASlashGetsNoSecondOne)
{
    WriteAll({"b.log", "a.txt"});

    EXPECT_TRUE(ListPaths(dir_.Path() + "/"));

    EXPECT_THAT(names_, ElementsAre(dir_.Path() + "/a.txt", dir_.Path() + "/b.log"));
}

TEST_F(DirListTest, ThePathIsUsedUnchanged)
{
    WriteAll({"a"});
    const std::string spelling = dir_.Path() + "/.//../" + dir_.Path().substr(dir_.Path().rfind('/') + 1) + "//";

    EXPECT_TRUE(ListPaths(spelling));

    EXPECT_THAT(names_, ElementsAre(spelling + "a"));
}

TEST_F(DirListTest, ARelativePathStaysRelative)
{
    WriteAll({"a"});

    RunInChild([this] {
        ASSERT_EQ(0, chdir(dir_.Path().c_str()));

        EXPECT_TRUE(ListPaths("."));

        EXPECT_THAT(names_, ElementsAre("./a"));
    });
}

TEST_F(DirListTest, TheRootAsPathIsOneSlash)
{
    if (!CanMount()) {
        ORV_SKIP("a root directory of our own takes root or user namespaces");
    }
    WriteAll({"b", "a"});

    RunWithPrivateMounts([this] {
        ASSERT_EQ(0, chroot(dir_.Path().c_str())) << std::strerror(errno);

        EXPECT_TRUE(ListPaths("/"));

        EXPECT_THAT(names_, ElementsAre("/a", "/b"));
    });
}

TEST_F(DirListTest, ADirectoryIsFoundThroughALink)
{
    ASSERT_EQ(0, mkdir((dir_ / "real").c_str(), 0755));
    ASSERT_EQ(0, symlink("real", (dir_ / "link").c_str()));
    WriteAll({"real/a"});

    EXPECT_TRUE(ListPaths(dir_ / "link"));

    EXPECT_THAT(names_, ElementsAre(dir_ / "link/a"));
}

TEST_F(DirListTest, LinksAreNotListedNotEvenToRegularFiles)
{
    WriteAll({"file"});
    ASSERT_EQ(0, symlink("file", (dir_ / "toFile").c_str()));
    ASSERT_EQ(0, symlink(".", (dir_ / "toDirectory").c_str()));
    ASSERT_EQ(0, symlink("nowhere", (dir_ / "dangling").c_str()));
    ASSERT_EQ(0, symlink("loop", (dir_ / "loop").c_str()));

    EXPECT_TRUE(List(dir_.Path()));

    EXPECT_THAT(names_, ElementsAre("file"));
}

TEST_F(DirListTest, EachHardLinkIsListed)
{
    WriteAll({"b"});
    ASSERT_EQ(0, link((dir_ / "b").c_str(), (dir_ / "a").c_str()));

    EXPECT_TRUE(List(dir_.Path()));

    EXPECT_THAT(names_, ElementsAre("a", "b"));
}

TEST_F(DirListTest, FifosAndSocketsAreNotListed)
{
    ASSERT_EQ(0, mkfifo((dir_ / "fifo").c_str(), 0600));
    ASSERT_EQ(0, mknod((dir_ / "socket").c_str(), S_IFSOCK | 0600, 0)) << std::strerror(errno);
    WriteAll({"file"});

    EXPECT_TRUE(List(dir_.Path()));

    EXPECT_THAT(names_, ElementsAre("file"));
}

TEST_F(DirListTest, DevicesAreNotListed)
{
    ASSERT_TRUE(S_ISCHR(StatusOf("/dev/null").st_mode));

    EXPECT_TRUE(List("/dev", "null"));

    EXPECT_THAT(names_, IsEmpty());
}

TEST_F(DirListTest, NothingIsListedIfTheFileSystemDoesNotRecordTypes)
{
    WriteAll({"a", "b"});
    names_ = {"old"};
    const ScopedUnknownTypes unknown;
    const ScopedTrace trace;

    EXPECT_TRUE(List(dir_.Path()));

    EXPECT_THAT(names_, IsEmpty());
    EXPECT_THAT(trace.Calls(), ElementsAre("opendir(" + dir_.Path() + ")", "readdir_r()", "readdir_r()", "readdir_r()",
                                           "readdir_r()", "readdir_r()", "closedir()"));
}

TEST_F(DirListTest, TheDirectoryIsReadToItsEndAndClosedAndNoStatusIsQueried)
{
    WriteAll({"a", "b"});
    const ScopedTrace trace;

    EXPECT_TRUE(ListPaths(dir_.Path()));

    EXPECT_THAT(names_, ElementsAre(dir_ / "a", dir_ / "b"));
    EXPECT_THAT(trace.Calls(), ElementsAre("opendir(" + dir_.Path() + ")", "readdir_r()", "readdir_r()", "readdir_r()",
                                           "readdir_r()", "readdir_r()", "closedir()"));
}

TEST_F(DirListTest, FilesWhoseStatusTheCallerMayNotQueryAreListed)
{
    ASSERT_EQ(0, mkdir((dir_ / "readOnly").c_str(), 0700));
    WriteAll({"readOnly/b", "readOnly/a"});
    ASSERT_EQ(0, chmod((dir_ / "readOnly").c_str(), 0444));

    RunAsNobody([this] {
        struct stat status {};
        ASSERT_EQ(-1, stat((dir_ / "readOnly/a").c_str(), &status));
        ASSERT_EQ(EACCES, errno);

        EXPECT_TRUE(List(dir_ / "readOnly"));

        EXPECT_THAT(names_, ElementsAre("a", "b"));
    });

    ASSERT_EQ(0, chmod((dir_ / "readOnly").c_str(), 0700));
}

TEST_F(DirListTest, NamesMayContainAnyBytes)
{
    const std::string longest(255, 'x');
    WriteAll({"with blank", "line\nfeed", ".hidden", "%s%n", "*", "\xc3\xa9", "\xff", " ", longest});

    EXPECT_TRUE(List(dir_.Path()));

    EXPECT_THAT(names_,
                ElementsAre(" ", "%s%n", "*", ".hidden", "line\nfeed", "with blank", longest, "\xc3\xa9", "\xff"));
}

TEST_F(DirListTest, AHundredThousandFilesAreListedSorted)
{
    constexpr int kFiles = 100000;
    const TempDir many(MemoryDirectory());
    std::vector<std::string> expected;
    for (int i = 0; i < kFiles; ++i) {
        const std::string name = std::to_string(i);
        ASSERT_EQ(0, mknod((many / name).c_str(), S_IFREG | 0600, 0)) << std::strerror(errno);
        expected.push_back(name);
    }
    std::sort(expected.begin(), expected.end());

    EXPECT_TRUE(List(many.Path()));

    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), names_.begin(), names_.end()));
}

// ---- Order

TEST_F(DirListTest, NamesAreSortedByUnsignedByteValue)
{
    WriteAll({"a.txt", "B.txt", "a", "\x80", "z", "\x7f", "\xff", "A", "10", "9", "\x01"});

    EXPECT_TRUE(List(dir_.Path()));

    EXPECT_THAT(names_, ElementsAre("\x01", "10", "9", "A", "B.txt", "a", "a.txt", "z", "\x7f", "\x80", "\xff"));
}

// Names that are equal in up to 249 bytes, and names that are the beginning of others.
TEST_F(DirListTest, NamesThatBeginAlikeAreSorted)
{
    std::vector<std::string> names;
    for (std::size_t bytes = 1; bytes < 250; ++bytes) {
        const std::string same(bytes, 'm');
        names.insert(names.end(), {same, same + "\x80", same + "\xff.x", same + "\x01", same + "az", same + "b"});
    }
    WriteAll(names);
    std::sort(names.begin(), names.end());

    EXPECT_TRUE(List(dir_.Path()));

    EXPECT_THAT(names_, ElementsAreArray(names));
}

// Names are compared eight bytes at a time, and the comparison continues only if the eighth byte is not a NUL. The
// endings are not sorted in either direction, because a directory can be read in any order.
TEST_F(DirListTest, NamesThatShareEightBytesAreSortedForEachEighthByte)
{
    std::vector<std::string> names;
    for (const char eighth : {'\x01', 'x', '\x7f', '\x80', '\xff'}) {
        for (const char ending : {'3', '1', '5', '2', '4'}) {
            names.push_back(std::string("seven b") + eighth + ending);
        }
    }
    WriteAll(names);
    std::sort(names.begin(), names.end());

    EXPECT_TRUE(List(dir_.Path()));

    EXPECT_THAT(names_, ElementsAreArray(names));
}

// Half of the pairs are made in the wrong order. A directory can be read in the order of creation or in reverse.
TEST_F(DirListTest, PairsOfNamesThatShareEightBytesAreSorted)
{
    std::vector<std::string> names;
    for (int i = 100; i < 120; ++i) {
        const std::string eight = "pair " + std::to_string(i);
        names.push_back(eight + (i % 2 == 0 ? "a" : "b"));
        names.push_back(eight + (i % 2 == 0 ? "b" : "a"));
    }
    WriteAll(names);
    std::sort(names.begin(), names.end());

    EXPECT_TRUE(List(dir_.Path()));

    EXPECT_THAT(names_, ElementsAreArray(names));
}

// This can happen while another process changes the directory.
TEST_F(DirListTest, NamesThatAreReadTwiceAreListedTwice)
{
    WriteAll({"a", "a name of more than sixteen bytes", "b"});
    const ScopedAction atTheEnd(Call::kReaddir, /*nth=*/2 + 3 + 1, [&] { Rewind(dir_.Path()); });

    EXPECT_TRUE(List(dir_.Path()));

    EXPECT_THAT(names_, ElementsAre("a", "a", "a name of more than sixteen bytes", "a name of more than sixteen bytes",
                                    "b", "b"));
}

TEST_F(DirListTest, NamesThatAllBeginAlikeAreSorted)
{
    std::vector<std::string> names;
    for (int i = 100; i < 300; ++i) {
        names.push_back("the same eight bytes " + std::to_string(i));
    }
    WriteAll({names.rbegin(), names.rend()});

    EXPECT_TRUE(List(dir_.Path()));

    EXPECT_THAT(names_, ElementsAreArray(names));
}

TEST_F(DirListTest, ManyNamesOfTwoBeginningsAreSorted)
{
    std::vector<std::string> names;
    for (int i = 100; i < 200; ++i) {
        names.push_back("beginning " + std::to_string(i));
        names.push_back("the other " + std::to_string(i));
    }
    WriteAll(names);
    std::sort(names.begin(), names.end());

    EXPECT_TRUE(List(dir_.Path()));

    EXPECT_THAT(names_, ElementsAreArray(names));
}

TEST_F(DirListTest, OldElementsWithANulOrAMegabyteAreSortedIn)
{
    using std::string_literals::operator""s;
    WriteAll({"b", "bb"});
    const std::string megabyte(1024UL * 1024, 'b');
    names_ = {megabyte, "b\0\0"s, megabyte, "c", "b\0"s, ""};

    EXPECT_TRUE(Add(dir_.Path()));

    EXPECT_THAT(names_, ElementsAre("", "b", "b\0"s, "b\0\0"s, "bb", megabyte, megabyte, "c"));
}

TEST_F(DirListTest, OldElementsAreSortedInWithTheNewAndEqualOnesKept)
{
    WriteAll({"a.txt"});
    names_ = {"z", "a.txt"};

    EXPECT_TRUE(Add(dir_.Path()));

    EXPECT_THAT(names_, ElementsAre("a.txt", "a.txt", "z"));
}

TEST_F(DirListTest, ANewElementComesBeforeAnEqualOldOneWhichStaysTheSameObject)
{
    WriteAll({"a"});
    names_ = {"z", "a"};
    const std::string* const oldA = &names_.back();
    const std::string* const oldZ = &names_.front();

    EXPECT_TRUE(Add(dir_.Path()));

    std::vector<const std::string*> elements;
    for (const std::string& name : names_) {
        elements.push_back(&name);
    }
    ASSERT_EQ(3U, elements.size());
    EXPECT_EQ(oldA, elements[1]);
    EXPECT_EQ(oldZ, elements[2]);
}

TEST_F(DirListTest, ThePathIsPartOfWhatIsSorted)
{
    WriteAll({"b"});
    names_ = {"b", "/", "~"};

    EXPECT_TRUE(GetDirFileList(dir_.Path().c_str(), nullptr, nullptr, names_, /*withDirPath=*/true, /*clearList=*/false,
                               /*logOpenError=*/true));

    EXPECT_THAT(names_, ElementsAre("/", dir_ / "b", "b", "~"));
}

TEST_F(DirListTest, TheListIsSortedBeforeTheDirectoryIsClosed)
{
    WriteFifty();
    bool sorted = false;
    const ScopedAction look(Call::kClosedir, /*nth=*/1,
                            [&] { sorted = names_.size() == 50 && std::is_sorted(names_.begin(), names_.end()); });

    EXPECT_TRUE(List(dir_.Path()));

    EXPECT_TRUE(sorted);
}

// ---- Patterns

TEST_F(DirListTest, OnlyNamesThatMatchTheIncludePatternAreKept)
{
    WriteAll({"a.log", "b.log", "log", "c.log.gz", "d.LOG"});

    EXPECT_TRUE(List(dir_.Path(), "*.log"));

    EXPECT_THAT(names_, ElementsAre("a.log", "b.log"));
}

TEST_F(DirListTest, NamesThatMatchTheExcludePatternAreDropped)
{
    WriteAll({"a.log", "b.log", "c.txt"});

    EXPECT_TRUE(List(dir_.Path(), nullptr, "?.log"));

    EXPECT_THAT(names_, ElementsAre("c.txt"));
}

TEST_F(DirListTest, ANameThatMatchesBothPatternsIsDropped)
{
    WriteAll({"a.log", "debug.log", "debug.txt"});

    EXPECT_TRUE(List(dir_.Path(), "*.log", "debug*"));

    EXPECT_THAT(names_, ElementsAre("a.log"));
}

TEST_F(DirListTest, AnEmptyPatternFiltersNothing)
{
    WriteAll({"a", "b"});

    EXPECT_TRUE(List(dir_.Path(), "", ""));

    EXPECT_THAT(names_, ElementsAre("a", "b"));
}

TEST_F(DirListTest, AnIncludePatternThatNothingMatchesLeavesTheListSorted)
{
    WriteAll({"a", "b"});
    names_ = {"z", "y"};

    EXPECT_TRUE(Add(dir_.Path(), "*.none"));

    EXPECT_THAT(names_, ElementsAre("y", "z"));
}

TEST_F(DirListTest, PatternsAreMatchedWithTheNameWithoutThePath)
{
    WriteAll({"a", "b"});

    EXPECT_TRUE(GetDirFileList(dir_.Path().c_str(), "?", "/*", names_, /*withDirPath=*/true, /*clearList=*/true,
                               /*logOpenError=*/true));

    EXPECT_THAT(names_, ElementsAre(dir_ / "a", dir_ / "b"));
}

TEST_F(DirListTest, PatternsDoNotFilterOldElements)
{
    WriteAll({"new.log", "new.txt"});
    names_ = {"old.txt", "old.log"};

    EXPECT_TRUE(Add(dir_.Path(), "*.log"));

    EXPECT_THAT(names_, ElementsAre("new.log", "old.log", "old.txt"));
}

TEST_F(DirListTest, APatternMayContainBytesAbove0x7F)
{
    WriteAll({"\xc3\xa9.log", "\xc3\xa8.log", "e.log"});

    EXPECT_TRUE(List(dir_.Path(), "?\xa9*"));

    EXPECT_THAT(names_, ElementsAre("\xc3\xa9.log"));
}

// ---- No directory argument

struct NoDirectoryCase {
    const char* name;
    const char* directory;
    bool logOpenError;
};

void PrintTo(const NoDirectoryCase& noDirectory, std::ostream* out)
{
    *out << noDirectory.name;
}

class NoDirListTest : public OrvTest, public ::testing::WithParamInterface<NoDirectoryCase> {
protected:
    bool List(bool clearList)
    {
        return GetDirFileList(GetParam().directory, "*", nullptr, names_, /*withDirPath=*/true, clearList,
                              GetParam().logOpenError);
    }

    Names names_{"z", "a"};
};

TEST_P(NoDirListTest, IsReportedWithoutAnyCallAndLeavesTheListUnsorted)
{
    const ScopedTrace trace;

    EXPECT_FALSE(List(/*clearList=*/false));

    EXPECT_THAT(trace.Calls(), IsEmpty());
    ExpectReports({NoDirectory()});
    EXPECT_THAT(names_, ElementsAre("z", "a"));
}

TEST_P(NoDirListTest, StillClearsTheListFirst)
{
    EXPECT_FALSE(List(/*clearList=*/true));

    ExpectReports({NoDirectory()});
    EXPECT_THAT(names_, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Arguments, NoDirListTest,
                         ::testing::Values(NoDirectoryCase{"Null", nullptr, true},
                                           NoDirectoryCase{"NullWithoutLogging", nullptr, false},
                                           NoDirectoryCase{"Empty", "", true},
                                           NoDirectoryCase{"EmptyWithoutLogging", "", false}),
                         CaseName<NoDirectoryCase>);

// ---- A directory that cannot be opened

TEST_F(DirListTest, AMissingDirectoryIsReportedAndLeavesTheListUnsorted)
{
    names_ = {"z", "a"};
    const ScopedTrace trace;

    EXPECT_FALSE(Add(dir_ / "missing"));

    EXPECT_THAT(trace.Calls(), ElementsAre("opendir(" + (dir_ / "missing") + ")"));
    ExpectReports({messages::kListOpen(dir_ / "missing", 2)});
    EXPECT_THAT(names_, ElementsAre("z", "a"));
}

TEST_F(DirListTest, AMissingDirectoryIsNotLoggedOnRequest)
{
    names_ = {"z", "a"};

    EXPECT_FALSE(Add(dir_ / "missing", nullptr, /*logOpenError=*/false));

    EXPECT_EQ(ENOENT, errno);
    ExpectReports({});
    EXPECT_THAT(names_, ElementsAre("z", "a"));
}

TEST_F(DirListTest, TheListIsClearedBeforeTheDirectoryIsOpened)
{
    names_ = {"z", "a"};
    std::size_t left = 2;
    const ScopedAction look(Call::kOpendir, /*nth=*/1, [&] { left = names_.size(); });

    EXPECT_FALSE(List(dir_ / "missing"));

    EXPECT_EQ(0U, left);
    EXPECT_THAT(names_, IsEmpty());
    ExpectReports({NotOpened(dir_ / "missing", ENOENT)});
}

TEST_F(DirListTest, ARegularFileIsNotADirectory)
{
    const std::string file = dir_.Write("file", "abc");

    EXPECT_FALSE(List(file));

    ExpectReports({NotOpened(file, ENOTDIR)});
}

TEST_F(DirListTest, ALinkLoopIsNotADirectory)
{
    ASSERT_EQ(0, symlink("loop", (dir_ / "loop").c_str()));

    EXPECT_FALSE(List(dir_ / "loop"));

    ExpectReports({NotOpened(dir_ / "loop", ELOOP)});
}

TEST_F(DirListTest, ADirectoryThatTheCallerMayNotReadIsReported)
{
    ASSERT_EQ(0, mkdir((dir_ / "shut").c_str(), 0311));

    RunAsNobody([this] {
        EXPECT_FALSE(List(dir_ / "shut"));

        ExpectReports({messages::kListOpen(dir_ / "shut", 13)});
    });

    ASSERT_EQ(0, chmod((dir_ / "shut").c_str(), 0700));
}

TEST_F(DirListTest, ALackOfDescriptorsIsReported)
{
    WriteAll({"a"});
    const ScopedFault fault(Call::kOpendir, /*nth=*/1, EMFILE);

    EXPECT_FALSE(List(dir_.Path()));

    ExpectReports({NotOpened(dir_.Path(), EMFILE)});
    EXPECT_THAT(names_, IsEmpty());
}

TEST_F(DirListTest, APathOfNineMegabytesIsReported)
{
    const std::string path(9000000, 'x');

    EXPECT_FALSE(ListPaths(path));

    ExpectReports({messages::kListOpen(path, 36)});
}

TEST_F(DirListTest, APathOfAnyBytesIsReportedUnchanged)
{
    const std::string path = dir_ / "with blank\n%s%n\x80\xff";

    EXPECT_FALSE(List(path));

    ExpectReports({NotOpened(path, ENOENT)});
}

// ---- A directory that cannot be read to its end

TEST_F(DirListTest, AFailedFirstReadAddsNothingAndIsReportedWithTheReturnedError)
{
    WriteAll({"a"});
    names_ = {"z", "b"};
    const ScopedFault fault(Call::kReaddir, /*nth=*/1, EIO);
    const ScopedTrace trace;

    EXPECT_FALSE(Add(dir_.Path()));

    EXPECT_THAT(trace.Calls(), ElementsAre("opendir(" + dir_.Path() + ")", "readdir_r()", "closedir()"));
    ExpectReports({messages::kListRead(dir_.Path(), 5)});
    EXPECT_THAT(names_, ElementsAre("z", "b"));
}

TEST_F(DirListTest, AFailedReadLeavesTheNamesUnsortedInFrontOfTheOldElements)
{
    WriteFifty();
    constexpr int kRead = 40;
    Names expected = FrontOf(dir_.Path(), kRead);
    ASSERT_LE(std::size_t{kRead - 2}, expected.size());
    ASSERT_FALSE(std::is_sorted(expected.begin(), expected.end()));
    expected.insert(expected.end(), {"z", "a"});
    names_ = {"z", "a"};
    const ScopedFault fault(Call::kReaddir, kRead + 1, EIO);

    EXPECT_FALSE(Add(dir_.Path()));

    EXPECT_EQ(expected, names_);
    ExpectReports({NotRead(dir_.Path(), EIO)});
}

TEST_F(DirListTest, AFailedReadOfAClearedListLeavesOnlyTheNamesFoundSoFar)
{
    WriteFifty();
    constexpr int kRead = 40;
    Names expected = FrontOf(dir_.Path(), kRead);
    for (std::string& name : expected) {
        name = dir_ / name;
    }
    names_ = {"z", "a"};
    const ScopedFault fault(Call::kReaddir, kRead + 1, EBADF);

    EXPECT_FALSE(ListPaths(dir_.Path()));

    EXPECT_EQ(expected, names_);
    ExpectReports({NotRead(dir_.Path(), EBADF)});
}

TEST_F(DirListTest, AReadThatFailsAfterTheLastEntryKeepsAllNamesUnsorted)
{
    WriteFifty();
    constexpr int kEntries = 52;  // with "." and ".."
    const Names expected = FrontOf(dir_.Path(), kEntries);
    const ScopedFault fault(Call::kReaddir, kEntries + 1, EIO);

    EXPECT_FALSE(List(dir_.Path()));

    EXPECT_EQ(50U, names_.size());
    EXPECT_EQ(expected, names_);
    ExpectReports({NotRead(dir_.Path(), EIO)});
}

TEST_F(DirListTest, AFailedReadIsReportedEvenWhenOpenErrorsAreNot)
{
    const ScopedFault fault(Call::kReaddir, /*nth=*/1, EIO);

    EXPECT_FALSE(Add(dir_.Path(), nullptr, /*logOpenError=*/false));

    ExpectReports({NotRead(dir_.Path(), EIO)});
}

TEST_F(DirListTest, AFailedCloseIsNotAFailure)
{
    WriteAll({"a"});
    const ScopedFault fault(Call::kClosedir, /*nth=*/1, EIO);

    EXPECT_TRUE(List(dir_.Path()));

    EXPECT_THAT(names_, ElementsAre("a"));
}

}  // namespace
