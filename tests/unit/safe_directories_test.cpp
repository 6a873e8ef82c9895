#include "safe/safe.h"
#include "support/cases.h"
#include "support/faults.h"
#include "support/new_fault.h"
#include "support/orv_test.h"
#include "support/safe_lines.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <new>
#include <string>
#include <vector>

using orv_safe::ListedFile;
using orv_safe::ListFiles;
using orv_safe::ListOptions;
using orv_safe::MakeDirectory;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// ---- MakeDirectory

std::string NotOpened(const std::string& path, int error)
{
    return SafeLine("MakeDirectory", "open", path, error);
}

std::string NotMade(const std::string& path, int error)
{
    return SafeLine("MakeDirectory", "mkdir", path, error);
}

bool IsDirectory(const std::string& path)
{
    return Exists(path) && S_ISDIR(StatusOf(path).st_mode);
}

class MakeDirectoryTest : public OrvTest {};

TEST_F(MakeDirectoryTest, MakesEveryMissingDirectory)
{
    const ScopedMask mask(022);

    EXPECT_TRUE(MakeDirectory(dir_ / "a/b/c", 0755));

    EXPECT_TRUE(IsDirectory(dir_ / "a/b/c"));
    EXPECT_EQ(0755u, ModeOf(dir_ / "a"));
    EXPECT_EQ(0755u, ModeOf(dir_ / "a/b/c"));
}

TEST_F(MakeDirectoryTest, GivesTheLastOneTheModeLessTheMaskAndThoseAboveThePermissionToEnter)
{
    const ScopedMask mask(027);

    EXPECT_TRUE(MakeDirectory(dir_ / "a/b", 0446));

    EXPECT_EQ(0740u, ModeOf(dir_ / "a"));
    EXPECT_EQ(0440u, ModeOf(dir_ / "a/b"));

    EXPECT_TRUE(MakeDirectory(dir_ / "c", 0));
    EXPECT_EQ(0u, ModeOf(dir_ / "c"));
    EXPECT_EQ(0, rmdir((dir_ / "c").c_str()));  // an ordinary user could not look for files in it
}

TEST_F(MakeDirectoryTest, GoesOnBelowDirectoriesOfAModeThatForbidsIt)
{
    ASSERT_EQ(0, chmod(dir_.Path().c_str(), 0777));

    RunAsNobody([this] {
        EXPECT_TRUE(MakeDirectory(dir_ / "a/b/c", 0444));
        ExpectSafeLines({});
    });

    EXPECT_TRUE(IsDirectory(dir_ / "a/b/c"));
    EXPECT_EQ(0744u & ~022u, ModeOf(dir_ / "a/b") & ~022u);
}

TEST_F(MakeDirectoryTest, LeavesAnExistingDirectoryAlone)
{
    ASSERT_EQ(0, mkdir((dir_ / "a").c_str(), 0700));

    EXPECT_TRUE(MakeDirectory(dir_ / "a", 0755));
    EXPECT_TRUE(MakeDirectory(dir_ / "a/b", 0755));

    EXPECT_EQ(0700u, ModeOf(dir_ / "a"));
    EXPECT_TRUE(IsDirectory(dir_ / "a/b"));
}

TEST_F(MakeDirectoryTest, MakesADirectoryDirectlyBelowTheCurrentOne)
{
    RunInChild([this] {
        ASSERT_EQ(0, chdir(dir_.Path().c_str()));

        EXPECT_TRUE(MakeDirectory("a", 0755));
        EXPECT_TRUE(MakeDirectory("./b", 0755));
        EXPECT_TRUE(MakeDirectory("c/../d/", 0755));
        EXPECT_TRUE(MakeDirectory(".", 0755));
        ExpectSafeLines({});
    });

    EXPECT_EQ((std::vector<std::string>{"a", "b", "c", "d"}), dir_.Names());
}

TEST_F(MakeDirectoryTest, MakesARelativePath)
{
    const std::string path = std::filesystem::relative(dir_.Path()).string() + "/a/b";
    ASSERT_NE('/', path[0]);

    EXPECT_TRUE(MakeDirectory(path, 0755));

    EXPECT_TRUE(IsDirectory(dir_ / "a/b"));
}

TEST_F(MakeDirectoryTest, MakesADirectoryDirectlyBelowTheRoot)
{
    if (geteuid() != 0) {
        ORV_SKIP("only root may change its root directory");
    }
    RunInChild([this] {
        ASSERT_EQ(0, chroot(dir_.Path().c_str()));

        EXPECT_TRUE(MakeDirectory("/a", 0755));
        EXPECT_TRUE(MakeDirectory("//b//c//", 0755));
        EXPECT_TRUE(MakeDirectory("/", 0755));
        ExpectSafeLines({});
    });

    EXPECT_EQ((std::vector<std::string>{"a", "b"}), dir_.Names());
    EXPECT_TRUE(IsDirectory(dir_ / "b/c"));
}

TEST_F(MakeDirectoryTest, UsesThePathUpToItsFirstNul)
{
    EXPECT_TRUE(MakeDirectory(dir_ / "a" + std::string("\0/b", 3), 0755));

    EXPECT_EQ(std::vector<std::string>{"a"}, dir_.Names());
    EXPECT_THAT(NamesIn(dir_ / "a"), IsEmpty());
}

TEST_F(MakeDirectoryTest, FollowsLinksToDirectories)
{
    ASSERT_EQ(0, mkdir((dir_ / "real").c_str(), 0755));
    ASSERT_EQ(0, symlink("real", (dir_ / "link").c_str()));

    EXPECT_TRUE(MakeDirectory(dir_ / "link", 0755));
    EXPECT_TRUE(MakeDirectory(dir_ / "link/a", 0755));

    EXPECT_TRUE(IsDirectory(dir_ / "real/a"));
}

TEST_F(MakeDirectoryTest, RefusesAFileAtThePathAndAboveIt)
{
    const std::string file = dir_.Write("file", "abc");

    EXPECT_FALSE(MakeDirectory(file, 0755));
    EXPECT_FALSE(MakeDirectory(file + "/a", 0755));
    EXPECT_FALSE(MakeDirectory(file + "/", 0755));

    ExpectSafeLines({NotOpened(file, ENOTDIR), NotOpened(file + "/a", ENOTDIR), NotOpened(file + "/", ENOTDIR)});
    EXPECT_EQ("abc", dir_.Read("file"));
}

TEST_F(MakeDirectoryTest, RefusesALinkThatLeadsNowhere)
{
    ASSERT_EQ(0, symlink("nowhere", (dir_ / "link").c_str()));

    EXPECT_FALSE(MakeDirectory(dir_ / "link", 0755));
    EXPECT_FALSE(MakeDirectory(dir_ / "link/a", 0755));

    ExpectSafeLines({NotOpened(dir_ / "link", ENOENT), NotOpened(dir_ / "link", ENOENT)});
    EXPECT_EQ(std::vector<std::string>{"link"}, dir_.Names());
}

TEST_F(MakeDirectoryTest, RefusesAnEmptyPath)
{
    EXPECT_FALSE(MakeDirectory("", 0755));
    EXPECT_FALSE(MakeDirectory(std::string("\0a", 2), 0755));

    ExpectSafeLines({NotOpened("", ENOENT), NotOpened("", ENOENT)});
}

TEST_F(MakeDirectoryTest, MakesTheLongestPathThatTheKernelAccepts)
{
    std::string path = dir_.Path();
    while (path.size() + 200 < PATH_MAX - 1) {
        path += "/" + std::string(199, 'x');
    }
    path += "/" + std::string(PATH_MAX - 2 - path.size(), 'y');
    ASSERT_EQ(PATH_MAX - 1u, path.size());

    EXPECT_FALSE(MakeDirectory(path + "y", 0755));
    ExpectSafeLines({NotOpened(path + "y", ENAMETOOLONG)});
    EXPECT_THAT(dir_.Names(), IsEmpty());

    EXPECT_TRUE(MakeDirectory(path, 0755));
    EXPECT_TRUE(IsDirectory(path));
}

TEST_F(MakeDirectoryTest, MakesNothingIfAnyNameIsTooLong)
{
    const std::string longest = dir_ / "a/b/" + std::string(NAME_MAX, 'x');

    EXPECT_FALSE(MakeDirectory(longest + "x/c", 0755));
    EXPECT_FALSE(MakeDirectory(longest + "x", 0755));

    ExpectSafeLines({NotMade(longest + "x", ENAMETOOLONG), NotMade(longest + "x", ENAMETOOLONG)});
    EXPECT_THAT(dir_.Names(), IsEmpty());

    EXPECT_TRUE(MakeDirectory(longest + "/c", 0755));
    EXPECT_TRUE(IsDirectory(longest + "/c"));
}

TEST_F(MakeDirectoryTest, MakesNothingDirectlyBelowTheRootOrTheCurrentDirectoryIfANameIsTooLong)
{
    const std::string tooLong(NAME_MAX + 1, 'x');

    EXPECT_FALSE(MakeDirectory("/orv_missing/" + tooLong + "/a", 0755));
    EXPECT_FALSE(MakeDirectory("orv_missing/" + tooLong, 0755));

    ExpectSafeLines(
        {NotMade("/orv_missing/" + tooLong, ENAMETOOLONG), NotMade("orv_missing/" + tooLong, ENAMETOOLONG)});
    EXPECT_FALSE(Exists("/orv_missing"));
    EXPECT_FALSE(Exists("orv_missing"));
}

TEST_F(MakeDirectoryTest, LooksUpNamesBelowTheRootThereAndNotInTheCurrentDirectory)
{
    if (geteuid() != 0) {
        ORV_SKIP("only root may change its root directory");
    }
    ASSERT_EQ(0, mkdir((dir_ / "gone").c_str(), 0755));
    RunInChild([this] {
        ASSERT_EQ(0, chroot(dir_.Path().c_str()));
        ASSERT_EQ(0, chdir("/gone"));
        ASSERT_EQ(0, rmdir("/gone"));  // no name is too long in a directory that was removed

        EXPECT_FALSE(MakeDirectory("/a/" + std::string(NAME_MAX + 1, 'x'), 0755));
        ExpectSafeLines({NotMade("/a/" + std::string(NAME_MAX + 1, 'x'), ENAMETOOLONG)});
    });

    EXPECT_THAT(dir_.Names(), IsEmpty());
}

TEST_F(MakeDirectoryTest, LooksUpNamesBelowTheCurrentDirectoryThereAndNotInTheRoot)
{
    RunInChild([this] {
        ASSERT_EQ(0, mkdir((dir_ / "gone").c_str(), 0755));
        ASSERT_EQ(0, chdir((dir_ / "gone").c_str()));
        ASSERT_EQ(0, rmdir((dir_ / "gone").c_str()));  // no name is too long in a directory that was removed

        EXPECT_FALSE(MakeDirectory("a/" + std::string(NAME_MAX + 1, 'x'), 0755));
        ExpectSafeLines({NotMade("a", ENOENT)});
    });
}

TEST_F(MakeDirectoryTest, MakesTheLongestNameBelowTheRoot)
{
    if (geteuid() != 0) {
        ORV_SKIP("only root may change its root directory");
    }
    const std::string longest(NAME_MAX, 'x');
    RunInChild([&] {
        ASSERT_EQ(0, chroot(dir_.Path().c_str()));

        EXPECT_TRUE(MakeDirectory("/a/" + longest, 0755));
        EXPECT_TRUE(MakeDirectory("/" + longest, 0755));
        ExpectSafeLines({});
    });

    EXPECT_TRUE(IsDirectory(dir_ / "a/" + longest));
}

TEST_F(MakeDirectoryTest, OpensNothingThatOtherProgramsInherit)
{
    const std::vector<std::string> before = InheritedDescriptors();
    const ScopedAction action(Call::kMkdirat, /*nth=*/2, [&before] { EXPECT_EQ(before, InheritedDescriptors()); });

    EXPECT_TRUE(MakeDirectory(dir_ / "a/b", 0755));
}

TEST_F(MakeDirectoryTest, LooksUpEachMissingNameOnce)
{
    const ScopedFault third(Call::kFstatat, /*nth=*/3, ENAMETOOLONG);

    EXPECT_FALSE(MakeDirectory(dir_ / "a/b/c/d", 0755));

    ExpectSafeLines({NotMade(dir_ / "a/b/c", ENAMETOOLONG)});
    EXPECT_THAT(dir_.Names(), IsEmpty());
}

TEST_F(MakeDirectoryTest, LooksUpNoNameAfterItHasBegunToMakeDirectories)
{
    int lookedUp = 0;
    const ScopedAction action(Call::kFstatat, /*nth=*/3, [&lookedUp] { ++lookedUp; });

    EXPECT_TRUE(MakeDirectory(dir_ / "a/b", 0755));
    EXPECT_EQ(0, lookedUp);  // one for each name

    EXPECT_TRUE(MakeDirectory(dir_ / "c", 0755));
    EXPECT_EQ(1, lookedUp);
}

TEST_F(MakeDirectoryTest, MakesDirectoriesWhoseNamesCannotBeLookedUp)
{
    const ScopedFault fault(Call::kFstatat, /*nth=*/1, EIO);

    EXPECT_TRUE(MakeDirectory(dir_ / "a", 0755));

    EXPECT_TRUE(IsDirectory(dir_ / "a"));
}

TEST_F(MakeDirectoryTest, SaysWhichDirectoryCouldNotBeMadeAndLeavesThoseAbove)
{
    const ScopedFault fault(Call::kMkdirat, /*nth=*/2, ENOSPC);

    EXPECT_FALSE(MakeDirectory(dir_ / "a/b/c", 0755));

    ExpectSafeLines({NotMade(dir_ / "a/b", ENOSPC)});
    EXPECT_TRUE(IsDirectory(dir_ / "a"));
    EXPECT_THAT(NamesIn(dir_ / "a"), IsEmpty());
}

TEST_F(MakeDirectoryTest, SaysWhichDirectoryCouldNotBeOpened)
{
    for (const int error : {EACCES, ENOENT, EMFILE}) {
        dir_.Clear();
        // The whole path, /var, /var/tmp, the test's directory, a; and a after it was made.
        const ScopedFault fault(Call::kOpenat, /*nth=*/6, error);

        EXPECT_FALSE(MakeDirectory(dir_ / "a/b", 0755));

        ExpectSafeLines({NotOpened(dir_ / "a", error)});
        EXPECT_EQ(std::vector<std::string>{"a"}, dir_.Names());
    }
}

TEST_F(MakeDirectoryTest, SaysWhichExistingDirectoryCouldNotBeOpened)
{
    const ScopedFault fault(Call::kOpenat, /*nth=*/3, EACCES);  // the whole path, /var, /var/tmp

    EXPECT_FALSE(MakeDirectory(dir_ / "a", 0755));

    ExpectSafeLines({NotOpened("/var/tmp", EACCES)});
    EXPECT_THAT(dir_.Names(), IsEmpty());
}

TEST_F(MakeDirectoryTest, ReportsAPathThatCannotBeOpenedAndMakesNothing)
{
    const ScopedFault fault(Call::kOpenat, /*nth=*/1, EACCES);

    EXPECT_FALSE(MakeDirectory(dir_ / "a", 0755));

    ExpectSafeLines({NotOpened(dir_ / "a", EACCES)});
    EXPECT_THAT(dir_.Names(), IsEmpty());
}

TEST_F(MakeDirectoryTest, ReportsThatTheFirstDirectoryCannotBeOpened)
{
    const ScopedFault fault(Call::kOpenat, /*nth=*/2, EMFILE);

    EXPECT_FALSE(MakeDirectory(dir_ / "a", 0755));

    ExpectSafeLines({NotOpened("/var", EMFILE)});
    EXPECT_THAT(dir_.Names(), IsEmpty());
}

TEST_F(MakeDirectoryTest, SucceedsIfAnotherProcessIsFaster)
{
    const ScopedAction other(Call::kMkdirat, /*nth=*/1, [this] { ASSERT_EQ(0, mkdir((dir_ / "a").c_str(), 0700)); });

    EXPECT_TRUE(MakeDirectory(dir_ / "a/b", 0755));

    EXPECT_EQ(0700u, ModeOf(dir_ / "a"));
    EXPECT_TRUE(IsDirectory(dir_ / "a/b"));
}

TEST_F(MakeDirectoryTest, FailsIfAnotherProcessPutsAFileThere)
{
    const ScopedAction other(Call::kMkdirat, /*nth=*/1, [this] { dir_.Write("a", "abc"); });

    EXPECT_FALSE(MakeDirectory(dir_ / "a", 0755));

    ExpectSafeLines({NotOpened(dir_ / "a", ENOTDIR)});
    EXPECT_EQ("abc", dir_.Read("a"));
}

TEST_F(MakeDirectoryTest, RepeatsCallsThatASignalInterrupts)
{
    const ScopedFault noOpen(Call::kOpenat, /*nth=*/1, EINTR);
    const ScopedFault noMake(Call::kMkdirat, /*nth=*/1, EINTR);

    EXPECT_TRUE(MakeDirectory(dir_ / "a", 0755));

    EXPECT_TRUE(IsDirectory(dir_ / "a"));
}

TEST_F(MakeDirectoryTest, WorksInDirectoriesThatMayBeSearchedButNotRead)
{
    ASSERT_EQ(0, mkdir((dir_ / "closed").c_str(), 0700));
    ASSERT_EQ(0, mkdir((dir_ / "closed/open").c_str(), 0700));
    ASSERT_EQ(0, chmod((dir_ / "closed/open").c_str(), 0777));
    ASSERT_EQ(0, chmod((dir_ / "closed").c_str(), 0111));

    RunAsNobody([this] {
        EXPECT_TRUE(MakeDirectory(dir_ / "closed/open/a", 0755));
        ExpectSafeLines({});
        EXPECT_FALSE(MakeDirectory(dir_ / "closed/a", 0755));
        ExpectSafeLines({NotMade(dir_ / "closed/a", EACCES)});
    });
    EXPECT_EQ(0, chmod((dir_ / "closed").c_str(), 0700));
}

TEST_F(MakeDirectoryTest, MakesOnePathInManyProcessesAtOnce)
{
    for (int round = 0; round < 20; ++round) {
        const std::string path = dir_ / std::to_string(round) + "/a/b/c/d";
        std::vector<pid_t> children;
        for (int i = 0; i < 8; ++i) {
            const pid_t child = fork();
            ASSERT_NE(-1, child);
            if (child == 0) {
                _exit(MakeDirectory(path, 0755) && TakeDlogCalls().empty() ? 0 : 1);
            }
            children.push_back(child);
        }
        for (const pid_t child : children) {
            int status = 0;
            ASSERT_EQ(child, waitpid(child, &status, 0));
            EXPECT_EQ(0, status);
        }
        EXPECT_TRUE(IsDirectory(path));
    }
}

// ---- ListFiles

std::string NotRead(const std::string& call, const std::string& path, int error)
{
    return SafeLine("ListFiles", call, path, error);
}

using Names = std::vector<std::string>;

class ListFilesTest : public OrvTest {
protected:
    ListFilesTest()
    {
        ListedFile old;
        old.name = "old";
        list_.push_back(old);
    }

    bool List(const std::string& include = "", const std::string& exclude = "")
    {
        return ListFiles(dir_.Path(), include, exclude, list_, options_);
    }

    Names Listed() const
    {
        Names names;
        for (const ListedFile& file : list_) {
            names.push_back(file.name);
        }
        return names;
    }

    // Expects that a listing fails with this line and that the list is as it was.
    void ExpectFailure(const std::string& line, const std::string& include = "")
    {
        EXPECT_FALSE(List(include));
        ExpectSafeLines({line});
        EXPECT_THAT(Listed(), ElementsAre("old"));
    }

    ListOptions options_;
    std::vector<ListedFile> list_;
};

TEST_F(ListFilesTest, ReplacesTheListByTheRegularFilesSortedByByteValue)
{
    for (const char* const name : {"b", "a", ".c", "\xFF", "B", "ab"}) {
        dir_.Write(name, "");
    }
    ASSERT_EQ(0, mkdir((dir_ / "directory").c_str(), 0755));
    ASSERT_EQ(0, mkfifo((dir_ / "fifo").c_str(), 0644));
    ASSERT_EQ(0, symlink("a", (dir_ / "link").c_str()));

    EXPECT_TRUE(List());

    EXPECT_THAT(Listed(), ElementsAre(".c", "B", "a", "ab", "b", "\xFF"));
}

TEST_F(ListFilesTest, EmptiesTheListForAnEmptyDirectory)
{
    EXPECT_TRUE(List());

    EXPECT_THAT(Listed(), IsEmpty());
}

TEST_F(ListFilesTest, ListsOnlyNamesThatMatchTheFirstPatternAndNotTheSecond)
{
    for (const char* const name : {"a.log", "b.log", "a.txt", "b.txt"}) {
        dir_.Write(name, "");
    }

    EXPECT_TRUE(List("*.log", ""));
    EXPECT_THAT(Listed(), ElementsAre("a.log", "b.log"));
    EXPECT_TRUE(List("", "*.log"));
    EXPECT_THAT(Listed(), ElementsAre("a.txt", "b.txt"));
    EXPECT_TRUE(List("a*", "*.log"));
    EXPECT_THAT(Listed(), ElementsAre("a.txt"));
    EXPECT_TRUE(List("?", ""));
    EXPECT_THAT(Listed(), IsEmpty());
}

TEST_F(ListFilesTest, PutsTheDirectoryBeforeTheNamesOnRequest)
{
    dir_.Write("a", "");
    options_.withDirectory = true;

    EXPECT_TRUE(List("a"));
    EXPECT_THAT(Listed(), ElementsAre(dir_ / "a"));

    EXPECT_TRUE(ListFiles(dir_.Path() + "/", "", "", list_, options_));
    EXPECT_THAT(Listed(), ElementsAre(dir_ / "a"));

    EXPECT_TRUE(ListFiles(dir_.Path() + std::string("\0x", 2), "", "", list_, options_));
    EXPECT_THAT(Listed(), ElementsAre(dir_ / "a"));
}

TEST_F(ListFilesTest, ListsNamesWithoutOptions)
{
    dir_.Write("a", "abc");
    ASSERT_EQ(0, symlink("a", (dir_ / "link").c_str()));

    EXPECT_TRUE(ListFiles(dir_.Path(), "", "", list_));

    ASSERT_THAT(Listed(), ElementsAre("a"));
    EXPECT_EQ(0, list_[0].bytes);
    EXPECT_EQ(0, list_[0].modifiedSeconds);
    EXPECT_EQ(0, list_[0].modifiedNanoseconds);
}

TEST_F(ListFilesTest, QueriesNoStatusForNamesAlone)
{
    dir_.Write("a", "");
    int queries = 0;
    const ScopedAction action(Call::kFstatat, /*nth=*/1, [&queries] { ++queries; });

    EXPECT_TRUE(List());
    EXPECT_EQ(0, queries);

    options_.status = true;
    EXPECT_TRUE(List());
    EXPECT_EQ(1, queries);
}

TEST_F(ListFilesTest, ReadsSizesAndTimesOnRequest)
{
    dir_.Write("a", "abc");
    dir_.Write("b", "");
    const timespec times[2] = {{1, 2}, {5000000000, 123456789}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, (dir_ / "a").c_str(), times, 0));
    options_.status = true;

    EXPECT_TRUE(List());

    ASSERT_THAT(Listed(), ElementsAre("a", "b"));
    EXPECT_EQ(3, list_[0].bytes);
    EXPECT_EQ(StatusOf(dir_ / "a").st_mtim.tv_sec, list_[0].modifiedSeconds);
    EXPECT_EQ(StatusOf(dir_ / "a").st_mtim.tv_nsec, list_[0].modifiedNanoseconds);  // zero on file systems without
    EXPECT_EQ(0, list_[1].bytes);
    EXPECT_EQ(StatusOf(dir_ / "b").st_mtim.tv_sec, list_[1].modifiedSeconds);
}

TEST_F(ListFilesTest, ReadsTheSizeOfAFileOfGigabytes)
{
    const int64_t bytes = int64_t{5} << 30;
    dir_.Write("large", "");
    ASSERT_EQ(0, truncate((dir_ / "large").c_str(), bytes));
    options_.status = true;

    EXPECT_TRUE(List());

    ASSERT_THAT(Listed(), ElementsAre("large"));
    EXPECT_EQ(bytes, list_[0].bytes);
}

class ListLinksTest : public ListFilesTest {
protected:
    ListLinksTest()
    {
        dir_.Write("file", "abc");
        EXPECT_EQ(0, mkdir((dir_ / "directory").c_str(), 0755));
        EXPECT_EQ(0, symlink("file", (dir_ / "link").c_str()));
        EXPECT_EQ(0, symlink("directory", (dir_ / "to a directory").c_str()));
        EXPECT_EQ(0, symlink("nowhere", (dir_ / "dangling").c_str()));
        EXPECT_EQ(0, symlink("loop", (dir_ / "loop").c_str()));
        EXPECT_EQ(0, symlink("file/x", (dir_ / "through a file").c_str()));
        EXPECT_EQ(0, symlink(std::string(NAME_MAX + 1, 'x').c_str(), (dir_ / "too long").c_str()));
    }
};

TEST_F(ListLinksTest, LeavesLinksOutUnlessAskedForThem)
{
    EXPECT_TRUE(List());
    EXPECT_THAT(Listed(), ElementsAre("file"));
}

TEST_F(ListLinksTest, ListsLinksToRegularFilesOnRequest)
{
    options_.followLinks = true;

    EXPECT_TRUE(List());

    EXPECT_THAT(Listed(), ElementsAre("file", "link"));
    EXPECT_EQ(0, list_[1].bytes);
}

TEST_F(ListLinksTest, GivesALinkTheStatusOfItsFile)
{
    options_.followLinks = true;
    options_.status = true;

    EXPECT_TRUE(List());

    ASSERT_THAT(Listed(), ElementsAre("file", "link"));
    EXPECT_EQ(3, list_[1].bytes);
}

TEST_F(ListLinksTest, LooksUpEntriesOfUnknownType)
{
    const ScopedUnknownTypes unknown;

    EXPECT_TRUE(List());
    EXPECT_THAT(Listed(), ElementsAre("file"));
    EXPECT_EQ(0, list_[0].bytes);

    options_.followLinks = true;
    EXPECT_TRUE(List());
    EXPECT_THAT(Listed(), ElementsAre("file", "link"));
}

TEST_F(ListFilesTest, LeavesOutAFileThatIsRemovedBeforeItsStatusIsRead)
{
    dir_.Write("a", "");
    dir_.Write("b", "");
    options_.status = true;
    for (const bool followLinks : {false, true}) {
        dir_.Write("b", "");
        options_.followLinks = followLinks;
        const ScopedFault gone(Call::kFstatat, /*nth=*/1, ENOENT);

        EXPECT_TRUE(List("b"));

        EXPECT_THAT(Listed(), IsEmpty());
    }
}

TEST_F(ListFilesTest, FailsIfAStatusCannotBeRead)
{
    dir_.Write("a", "");
    for (const int error : {EIO, ENOTDIR, ELOOP, ENAMETOOLONG}) {
        options_.status = true;
        const ScopedFault fault(Call::kFstatat, /*nth=*/1, error);

        ExpectFailure(NotRead("stat", dir_ / "a", error));
    }
    options_.status = false;
    const ScopedUnknownTypes unknown;
    const ScopedFault fault(Call::kFstatat, /*nth=*/1, EACCES);
    ExpectFailure(NotRead("stat", dir_ / "a", EACCES), "a");
}

TEST_F(ListFilesTest, FailsIfTheTargetOfALinkCannotBeLookedUp)
{
    ASSERT_EQ(0, symlink("file", (dir_ / "link").c_str()));
    options_.followLinks = true;
    const ScopedFault fault(Call::kFstatat, /*nth=*/1, EACCES);

    ExpectFailure(NotRead("stat", dir_ / "link", EACCES));
}

TEST_F(ListFilesTest, FailsIfTheDirectoryCannotBeOpened)
{
    EXPECT_FALSE(ListFiles("", "", "", list_));
    EXPECT_FALSE(ListFiles(dir_ / "missing", "", "", list_));
    EXPECT_FALSE(ListFiles(dir_.Write("file", ""), "", "", list_));

    ExpectSafeLines({NotRead("opendir", "", ENOENT), NotRead("opendir", dir_ / "missing", ENOENT),
                     NotRead("opendir", dir_ / "file", ENOTDIR)});
    EXPECT_THAT(Listed(), ElementsAre("old"));
}

TEST_F(ListFilesTest, FailsIfTheDirectoryCannotBeReadToItsEnd)
{
    dir_.Write("a", "");
    for (int nth = 1; nth <= 4; ++nth) {  // ".", "..", "a", and the end
        const ScopedFault fault(Call::kReaddir, nth, EIO);

        ExpectFailure(NotRead("readdir", dir_.Path(), EIO));
    }
}

TEST_F(ListFilesTest, RepeatsCallsThatASignalInterrupts)
{
    dir_.Write("a", "");
    dir_.Write("b", "");
    options_.status = true;
    const ScopedFault noOpen(Call::kOpendir, /*nth=*/1, EINTR);
    const ScopedFault noRead(Call::kReaddir, /*nth=*/2, EINTR);
    const ScopedFault noStatus(Call::kFstatat, /*nth=*/1, EINTR);

    EXPECT_TRUE(List());

    EXPECT_THAT(Listed(), ElementsAre("a", "b"));
}

TEST_F(ListFilesTest, IgnoresAFailedClose)
{
    dir_.Write("a", "");
    const ScopedFault fault(Call::kClosedir, /*nth=*/1, EIO);

    EXPECT_TRUE(List());

    EXPECT_THAT(Listed(), ElementsAre("a"));
}

TEST_F(ListFilesTest, ListsManyFiles)
{
    const TempDir memory(MemoryDirectory());
    Names expected;
    for (int i = 0; i < 20000; ++i) {
        expected.push_back("file" + std::to_string(i));
        memory.Write(expected.back(), "");
    }
    std::sort(expected.begin(), expected.end());

    EXPECT_TRUE(ListFiles(memory.Path(), "", "", list_));

    EXPECT_TRUE(expected == Listed());
}

TEST_F(ListFilesTest, TakesItsPatternFromTheListItself)
{
    dir_.Write("old", "");
    dir_.Write("other", "");

    EXPECT_TRUE(ListFiles(dir_.Path(), list_[0].name, "", list_));

    EXPECT_THAT(Listed(), ElementsAre("old"));
}

// ---- Memory runs out at every allocation in turn

TEST_F(MakeDirectoryTest, ThrowsBeforeItMakesTheDirectoryAndLeavesNothingOpen)
{
    const std::string path = dir_ / "a/b";
    int failures = 0;
    for (bool fired = true; fired; ++failures) {
        bool made = false;
        {
            const ScopedNewFault fault(failures + 1);
            try {
                made = MakeDirectory(path, 0755);
            } catch (const std::bad_alloc&) {
            }
            fired = fault.Fired();
        }
        EXPECT_NE(fired, made);
        EXPECT_EQ(made, Exists(path));
    }
    EXPECT_LT(2, failures);
}

TEST_F(ListFilesTest, ThrowsAndLeavesTheListAsItWasAndNothingOpen)
{
    const std::string name(100, 'x');
    dir_.Write(name + "1", "");
    dir_.Write(name + "2", "");
    options_.withDirectory = true;
    const std::vector<std::string> descriptors = OpenDescriptors();
    int failures = 0;
    for (bool fired = true; fired; ++failures) {
        bool listed = false;
        {
            const ScopedNewFault fault(failures + 1);
            try {
                listed = List(name + "*", "y" + name);
            } catch (const std::bad_alloc&) {
            }
            fired = fault.Fired();
        }
        EXPECT_NE(fired, listed);
        EXPECT_EQ(fired ? 1U : 2U, list_.size());
        EXPECT_EQ(descriptors, OpenDescriptors());
    }
    EXPECT_LT(5, failures);
}

}  // namespace
