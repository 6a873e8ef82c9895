#include "LxFileUtils.h"
#include "support/cases.h"
#include "support/faults.h"
#include "support/messages.h"
#include "support/orv_test.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

using orv_fileutils::DoMakeDirPath;
using orv_fileutils::MakeDirPath;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

Report RefusedIn(const std::string& parent)
{
    return messages::kWorkerParent(parent);
}

Report NotMade(const std::string& path, const std::string& reason)
{
    return messages::kWorkerMkdir(path, reason);
}

Report Failed(const std::string& path)
{
    return messages::kMakeFailed(path);
}

Report NotChanged(const std::string& path, int error)
{
    return messages::kMakeChmod(path, error);
}

Report UnusualSize(std::size_t length)
{
    return messages::kMakeSize(length);
}

bool IsDirectory(const std::string& path)
{
    return Exists(path) && S_ISDIR(StatusOf(path).st_mode);
}

// Returns `base` extended to a path of `length` bytes, with components of at most 200 bytes.
std::string PathOfLength(const std::string& base, std::size_t length)
{
    constexpr std::size_t kComponentBytes = 200;
    std::string path = base;
    while (path.size() < length) {
        const std::size_t left = length - path.size() - 1;
        const std::size_t bytes = left == kComponentBytes + 1 ? kComponentBytes - 1 : std::min(left, kComponentBytes);
        path += "/" + std::string(bytes, 'x');
    }
    return path;
}

// Returns `base` with `levels` more components of one byte.
std::string DeepPath(const std::string& base, int levels)
{
    std::string path = base;
    for (int level = 0; level < levels; ++level) {
        path += "/d";
    }
    return path;
}

// Removes the directory `path` and those above it, up to `base`. Each must exist and contain nothing else. Returns
// their number. (A recursive removal from the top would need a descriptor for each level.)
int RemoveChain(std::string path, const std::string& base)
{
    int levels = 0;
    while (path.size() > base.size()) {
        if (rmdir(path.c_str()) != 0) {
            ADD_FAILURE() << path << ": " << std::strerror(errno);
            return levels;
        }
        ++levels;
        path.resize(path.rfind('/'));
    }
    return levels;
}

class DirPathTest : public OrvTest {
protected:
    // All tests use this mask: group and others may not write.
    ScopedMask mask_{022};
};

// ---- DoMakeDirPath

class DoMakeDirPathTest : public DirPathTest {};

TEST_F(DoMakeDirPathTest, MakesTheDirectoryAndEveryMissingParent)
{
    EXPECT_TRUE(DoMakeDirPath((dir_ / "a/b/c").c_str(), 0755));

    EXPECT_TRUE(IsDirectory(dir_ / "a/b/c"));
    EXPECT_THAT(dir_.Names(), ElementsAre("a"));
    EXPECT_THAT(NamesIn(dir_ / "a"), ElementsAre("b"));
    EXPECT_THAT(NamesIn(dir_ / "a/b"), ElementsAre("c"));
    EXPECT_THAT(NamesIn(dir_ / "a/b/c"), IsEmpty());
}

TEST_F(DoMakeDirPathTest, LooksForAParentUpwardsAndThenMakesDownwards)
{
    const ScopedTrace trace;

    EXPECT_TRUE(DoMakeDirPath((dir_ / "a/b/c").c_str(), 0755));

    EXPECT_THAT(trace.Calls(), ElementsAre("stat(" + (dir_ / "a/b") + ")", "stat(" + (dir_ / "a") + ")",
                                           "stat(" + dir_.Path() + ")", "mkdir(" + (dir_ / "a") + ")",
                                           "mkdir(" + (dir_ / "a/b") + ")", "mkdir(" + (dir_ / "a/b/c") + ")"));
}

TEST_F(DoMakeDirPathTest, StopsAtTheFirstParentThatExists)
{
    ASSERT_EQ(0, mkdir((dir_ / "a").c_str(), 0755));
    const ScopedTrace trace;

    EXPECT_TRUE(DoMakeDirPath((dir_ / "a/b").c_str(), 0755));

    EXPECT_THAT(trace.Calls(), ElementsAre("stat(" + (dir_ / "a") + ")", "mkdir(" + (dir_ / "a/b") + ")"));
}

TEST_F(DoMakeDirPathTest, MakesEveryDirectoryWithTheModeLessTheMask)
{
    const ScopedMask mask(027);

    EXPECT_TRUE(DoMakeDirPath((dir_ / "a/b").c_str(), 0777));

    EXPECT_EQ(0750U, ModeOf(dir_ / "a"));
    EXPECT_EQ(0750U, ModeOf(dir_ / "a/b"));
}

TEST_F(DoMakeDirPathTest, PassesTheStickyBitAndLeavesTheSetIdBitsToTheKernelWhichDropsThem)
{
    EXPECT_TRUE(DoMakeDirPath((dir_ / "a/b").c_str(), 07777));

    EXPECT_EQ(01755U, ModeOf(dir_ / "a"));
    EXPECT_EQ(01755U, ModeOf(dir_ / "a/b"));
}

TEST_F(DoMakeDirPathTest, ChangesNoMode)
{
    const ScopedTrace trace;

    EXPECT_TRUE(DoMakeDirPath((dir_ / "a").c_str(), 0777));

    EXPECT_THAT(trace.Calls(), ElementsAre("stat(" + dir_.Path() + ")", "mkdir(" + (dir_ / "a") + ")"));
    EXPECT_EQ(0755U, ModeOf(dir_ / "a"));
}

TEST_F(DoMakeDirPathTest, IsTrueForADirectoryThatExistsAndLeavesItAlone)
{
    ASSERT_EQ(0, mkdir((dir_ / "a").c_str(), 0700));
    dir_.Write("a/file", "abc");
    const ScopedTrace trace;

    EXPECT_TRUE(DoMakeDirPath((dir_ / "a").c_str(), 0755));

    EXPECT_THAT(trace.Calls(), ElementsAre("stat(" + dir_.Path() + ")", "mkdir(" + (dir_ / "a") + ")"));
    EXPECT_EQ(0700U, ModeOf(dir_ / "a"));
    EXPECT_EQ("abc", dir_.Read("a/file"));
}

TEST_F(DoMakeDirPathTest, IsTrueForARegularFile)
{
    const std::string file = dir_.Write("file", "abc", 0640);

    EXPECT_TRUE(DoMakeDirPath(file.c_str(), 0755));

    EXPECT_EQ("abc", dir_.Read("file"));
    EXPECT_EQ(0640U, ModeOf(file));
}

TEST_F(DoMakeDirPathTest, IsTrueForAFifo)
{
    ASSERT_EQ(0, mkfifo((dir_ / "fifo").c_str(), 0600));

    EXPECT_TRUE(DoMakeDirPath((dir_ / "fifo").c_str(), 0755));

    EXPECT_TRUE(S_ISFIFO(StatusOf(dir_ / "fifo").st_mode));
}

TEST_F(DoMakeDirPathTest, IsTrueForADanglingLinkAndDoesNotFollowIt)
{
    ASSERT_EQ(0, symlink("nowhere", (dir_ / "link").c_str()));

    EXPECT_TRUE(DoMakeDirPath((dir_ / "link").c_str(), 0755));

    EXPECT_THAT(dir_.Names(), ElementsAre("link"));
}

TEST_F(DoMakeDirPathTest, FollowsALinkToADirectoryAsParent)
{
    ASSERT_EQ(0, mkdir((dir_ / "a").c_str(), 0755));
    ASSERT_EQ(0, symlink("a", (dir_ / "link").c_str()));

    EXPECT_TRUE(DoMakeDirPath((dir_ / "link/b/c").c_str(), 0755));

    EXPECT_TRUE(IsDirectory(dir_ / "a/b/c"));
}

TEST_F(DoMakeDirPathTest, AcceptsATrailingSlash)
{
    const ScopedTrace trace;

    EXPECT_TRUE(DoMakeDirPath((dir_ / "a/").c_str(), 0755));

    EXPECT_THAT(trace.Calls(), ElementsAre("stat(" + dir_.Path() + ")", "mkdir(" + (dir_ / "a/") + ")"));
    EXPECT_TRUE(IsDirectory(dir_ / "a"));
}

TEST_F(DoMakeDirPathTest, AcceptsManySlashes)
{
    const ScopedTrace trace;

    EXPECT_TRUE(DoMakeDirPath((dir_ / "/a///b//").c_str(), 0755));

    EXPECT_THAT(trace.Calls(), ElementsAre("stat(" + (dir_ / "/a") + ")", "stat(" + dir_.Path() + ")",
                                           "mkdir(" + (dir_ / "/a") + ")", "mkdir(" + (dir_ / "/a///b//") + ")"));
    EXPECT_TRUE(IsDirectory(dir_ / "a/b"));
}

TEST_F(DoMakeDirPathTest, UsesDotsUnchanged)
{
    const ScopedTrace trace;

    EXPECT_TRUE(DoMakeDirPath((dir_ / "a/../b").c_str(), 0755));

    EXPECT_THAT(trace.Calls(), ElementsAre("stat(" + (dir_ / "a/..") + ")", "stat(" + (dir_ / "a") + ")",
                                           "stat(" + dir_.Path() + ")", "mkdir(" + (dir_ / "a") + ")",
                                           "mkdir(" + (dir_ / "a/..") + ")", "mkdir(" + (dir_ / "a/../b") + ")"));
    EXPECT_THAT(dir_.Names(), ElementsAre("a", "b"));
}

TEST_F(DoMakeDirPathTest, AcceptsAnyBytesInNames)
{
    const std::string odd = "with blank\nand\tfeed/%s%n/\x80\xff";

    EXPECT_TRUE(DoMakeDirPath((dir_ / odd).c_str(), 0755));

    EXPECT_TRUE(IsDirectory(dir_ / odd));
}

TEST_F(DoMakeDirPathTest, ReportsAPathOfAnyBytesUnchanged)
{
    const std::string odd = dir_ / "with blank\n%s%n\x80\xff";
    const ScopedFault fault(Call::kMkdir, /*nth=*/1, EROFS);

    EXPECT_FALSE(DoMakeDirPath(odd.c_str(), 0755));

    ExpectReports({NotMade(odd, "Read-only file system")});
}

// ---- Where a path may start

struct RefusedCase {
    const char* name;
    const char* path;
    const char* parent;
};

void PrintTo(const RefusedCase& refused, std::ostream* out)
{
    *out << refused.name;
}

class RefusedDirPathTest : public DirPathTest, public ::testing::WithParamInterface<RefusedCase> {
protected:
    // Runs in a process that may not write to the root directory, and whose current directory contains only "here".
    void RunWhereNothingIsLost(const std::function<void()>& body)
    {
        ASSERT_EQ(0, mkdir((dir_ / "here").c_str(), 0755));
        RunAsNobody([&] {
            ASSERT_EQ(0, chdir(dir_.Path().c_str()));
            body();
        });
        EXPECT_THAT(dir_.Names(), ElementsAre("here"));
        EXPECT_THAT(NamesIn(dir_ / "here"), IsEmpty());
    }
};

TEST_P(RefusedDirPathTest, DoMakeDirPathReportsTheRefusedParent)
{
    RunWhereNothingIsLost([] {
        const ScopedTrace trace;

        EXPECT_FALSE(DoMakeDirPath(GetParam().path, 0755));

        EXPECT_THAT(trace.Calls(), Each(::testing::StartsWith("stat(")));
        ExpectReports({RefusedIn(GetParam().parent)});
    });
}

TEST_P(RefusedDirPathTest, MakeDirPathIsTrueOnlyForWhatExists)
{
    RunWhereNothingIsLost([] {
        const std::string path = GetParam().path;
        struct stat status {};
        const bool exists = stat(path.c_str(), &status) == 0;
        const ScopedTrace trace;

        EXPECT_EQ(exists, MakeDirPath(path.c_str(), 0755, /*applyMode=*/!exists));

        EXPECT_THAT(trace.Calls(), Each(::testing::StartsWith("stat(")));
        if (exists) {
            EXPECT_THAT(trace.Calls(), ElementsAre("stat(" + path + ")"));
            ExpectReports({});
        } else {
            ExpectReports({RefusedIn(GetParam().parent), Failed(path)});
        }
    });
}

INSTANTIATE_TEST_SUITE_P(
    Paths, RefusedDirPathTest,
    ::testing::Values(RefusedCase{"Root", "/", "/"}, RefusedCase{"SlashesOnly", "///", "/"},
                      RefusedCase{"ExistingBelowRoot", "/etc", "/"},
                      RefusedCase{"MissingBelowRoot", "/orv_test_newtop", "/"},
                      RefusedCase{"MissingBelowRootWithSlash", "/orv_test_newtop/", "/"},
                      RefusedCase{"MissingBelowRootThreeSlashes", "///orv_test_newtop", "/"},
                      RefusedCase{"TwoMissingBelowRoot", "/orv_test_newtop/a/b", "/"}, RefusedCase{"Empty", "", "."},
                      RefusedCase{"Dot", ".", "."}, RefusedCase{"DotDot", "..", "."},
                      RefusedCase{"DotSlash", "./", "."}, RefusedCase{"Relative", "newdir", "."},
                      RefusedCase{"RelativeWithSlash", "newdir/", "."}, RefusedCase{"RelativeWithDot", "./newdir", "."},
                      RefusedCase{"RelativeExisting", "here", "."}, RefusedCase{"RelativeOfTwo", "a/b", "."},
                      RefusedCase{"RelativeOfThreeWithDot", "./a/b/c", "."}),
    CaseName<RefusedCase>);

TEST_F(DoMakeDirPathTest, AnEmptyPathIsRefusedWithoutAnyCall)
{
    const ScopedTrace trace;

    EXPECT_FALSE(DoMakeDirPath("", 0755));

    EXPECT_THAT(trace.Calls(), IsEmpty());
    ExpectReports({RefusedIn(".")});
}

TEST_F(DoMakeDirPathTest, ADirectoryDirectlyBelowTheRootIsRefusedWithoutAnyCall)
{
    const ScopedTrace trace;

    EXPECT_FALSE(DoMakeDirPath("/etc", 0755));

    EXPECT_THAT(trace.Calls(), IsEmpty());
    ExpectReports({RefusedIn("/")});
}

TEST_F(DoMakeDirPathTest, ARelativePathWhoseFirstComponentExistsIsMade)
{
    ASSERT_EQ(0, mkdir((dir_ / "here").c_str(), 0755));
    RunInChild([&] {
        ASSERT_EQ(0, chdir((dir_ / "here").c_str()));

        EXPECT_TRUE(DoMakeDirPath("../here/a/b", 0755));
        EXPECT_TRUE(DoMakeDirPath("a/c", 0755));
        EXPECT_TRUE(DoMakeDirPath("../beside", 0755));
    });

    EXPECT_THAT(dir_.Names(), ElementsAre("beside", "here"));
    EXPECT_THAT(NamesIn(dir_ / "here"), ElementsAre("a"));
    EXPECT_THAT(NamesIn(dir_ / "here/a"), ElementsAre("b", "c"));
}

TEST_F(DoMakeDirPathTest, DoesNotRecogniseTheCurrentDirectoryInAnotherSpelling)
{
    RunInChild([&] {
        ASSERT_EQ(0, chdir(dir_.Path().c_str()));

        EXPECT_TRUE(DoMakeDirPath("././a", 0755));
    });

    EXPECT_THAT(dir_.Names(), ElementsAre("a"));
}

TEST_F(DoMakeDirPathTest, DoesNotRecogniseTheRootInAnotherSpelling)
{
    RunAsNobody([] {
        const ScopedFault nothingIsMade(Call::kMkdir, /*nth=*/1, EROFS);
        const ScopedTrace trace;

        EXPECT_FALSE(DoMakeDirPath("//orv_test_newtop", 0755));

        EXPECT_THAT(trace.Calls(), ElementsAre("stat(//)", "mkdir(//orv_test_newtop)"));
        ExpectReports({NotMade("//orv_test_newtop", "Read-only file system")});
    });
}

// dirname("//") is "//" again, so there is no parent to try.
TEST_F(DoMakeDirPathTest, LeavesTwoSlashesToMkdir)
{
    const ScopedTrace trace;

    EXPECT_TRUE(DoMakeDirPath("//", 0755));

    EXPECT_THAT(trace.Calls(), ElementsAre("stat(//)", "mkdir(//)"));
}

TEST_F(DoMakeDirPathTest, ReportsThatTwoSlashesCannotBeMade)
{
    const ScopedFault notMade(Call::kMkdir, /*nth=*/1, EROFS);

    EXPECT_FALSE(DoMakeDirPath("//", 0755));

    ExpectReports({NotMade("//", "Read-only file system")});
}

TEST_F(DoMakeDirPathTest, EndsItsClimbAtTwoSlashesThatCannotBeQueried)
{
    RunAsNobody([] {
        const ScopedFault notQueried(Call::kStat, /*nth=*/1, EACCES);
        const ScopedFault norQueriedAgain(Call::kStat, /*nth=*/2, EACCES);
        const ScopedFault nothingIsMade(Call::kMkdir, /*nth=*/2, EROFS);
        const ScopedTrace trace;

        EXPECT_FALSE(DoMakeDirPath("//orv_test_newtop", 0755));

        EXPECT_THAT(trace.Calls(), ElementsAre("stat(//)", "stat(//)", "mkdir(//)", "mkdir(//orv_test_newtop)"));
        ExpectReports({NotMade("//orv_test_newtop", "Read-only file system")});
    });
}

// ---- Failures of DoMakeDirPath

TEST_F(DoMakeDirPathTest, ReportsTheLevelThatFailedAndLeavesTheLevelsAbove)
{
    const ScopedFault diskFull(Call::kMkdir, /*nth=*/2, ENOSPC);
    const ScopedTrace trace;

    EXPECT_FALSE(DoMakeDirPath((dir_ / "a/b/c").c_str(), 0755));

    EXPECT_EQ(ENOSPC, errno);
    EXPECT_THAT(trace.Calls(),
                ElementsAre("stat(" + (dir_ / "a/b") + ")", "stat(" + (dir_ / "a") + ")", "stat(" + dir_.Path() + ")",
                            "mkdir(" + (dir_ / "a") + ")", "mkdir(" + (dir_ / "a/b") + ")"));
    ExpectReports({NotMade(dir_ / "a/b", "No space left on device")});
    EXPECT_THAT(dir_.Names(), ElementsAre("a"));
    EXPECT_THAT(NamesIn(dir_ / "a"), IsEmpty());
}

TEST_F(DoMakeDirPathTest, UsesAParentOfAnyType)
{
    dir_.Write("file", "abc");
    const std::string path = dir_ / "file/a";
    const ScopedTrace trace;

    EXPECT_FALSE(DoMakeDirPath(path.c_str(), 0755));

    EXPECT_THAT(trace.Calls(), ElementsAre("stat(" + (dir_ / "file") + ")", "mkdir(" + path + ")"));
    ExpectReports({NotMade(path, "Not a directory")});
    EXPECT_EQ("abc", dir_.Read("file"));
}

TEST_F(DoMakeDirPathTest, ClimbsPastAParentBelowAFile)
{
    dir_.Write("file", "abc");

    EXPECT_FALSE(DoMakeDirPath((dir_ / "file/a/b").c_str(), 0755));

    ExpectReports({NotMade(dir_ / "file/a", "Not a directory")});
}

TEST_F(DoMakeDirPathTest, ClimbsPastAParentThatCannotBeQueriedForAnyReason)
{
    ASSERT_TRUE(DoMakeDirPath((dir_ / "a/b").c_str(), 0755));
    const ScopedFault notSearched(Call::kStat, /*nth=*/1, EACCES);
    const ScopedTrace trace;

    EXPECT_TRUE(DoMakeDirPath((dir_ / "a/b/c").c_str(), 0755));

    EXPECT_THAT(trace.Calls(), ElementsAre("stat(" + (dir_ / "a/b") + ")", "stat(" + (dir_ / "a") + ")",
                                           "mkdir(" + (dir_ / "a/b") + ")", "mkdir(" + (dir_ / "a/b/c") + ")"));
    EXPECT_TRUE(IsDirectory(dir_ / "a/b/c"));
}

TEST_F(DoMakeDirPathTest, CountsALinkLoopAsMadeAndFailsBelowIt)
{
    ASSERT_EQ(0, symlink("loop", (dir_ / "loop").c_str()));
    const std::string path = dir_ / "loop/a";
    const ScopedTrace trace;

    EXPECT_FALSE(DoMakeDirPath(path.c_str(), 0755));

    EXPECT_THAT(trace.Calls(), ElementsAre("stat(" + (dir_ / "loop") + ")", "stat(" + dir_.Path() + ")",
                                           "mkdir(" + (dir_ / "loop") + ")", "mkdir(" + path + ")"));
    ExpectReports({NotMade(path, "Too many levels of symbolic links")});
}

TEST_F(DoMakeDirPathTest, CountsADanglingLinkAsMadeAndFailsBelowIt)
{
    ASSERT_EQ(0, symlink("nowhere", (dir_ / "link").c_str()));
    const std::string path = dir_ / "link/a";

    EXPECT_FALSE(DoMakeDirPath(path.c_str(), 0755));

    ExpectReports({NotMade(path, "No such file or directory")});
    EXPECT_THAT(dir_.Names(), ElementsAre("link"));
}

TEST_F(DoMakeDirPathTest, FailsWhereTheCallerMayNotWrite)
{
    ASSERT_EQ(0, mkdir((dir_ / "shut").c_str(), 0555));

    RunAsNobody([&] {
        EXPECT_FALSE(DoMakeDirPath((dir_ / "shut/a/b").c_str(), 0755));

        EXPECT_EQ(EACCES, errno);
        ExpectReports({NotMade(dir_ / "shut/a", "Permission denied")});
    });

    EXPECT_THAT(NamesIn(dir_ / "shut"), IsEmpty());
}

TEST_F(DoMakeDirPathTest, FailsWhereTheCallerMayNotSearchEvenAtWhatExists)
{
    ASSERT_EQ(0, mkdir((dir_ / "shut").c_str(), 0700));
    ASSERT_EQ(0, mkdir((dir_ / "shut/in").c_str(), 0755));
    ASSERT_EQ(0, chmod((dir_ / "shut").c_str(), 0600));

    RunAsNobody([&] {
        EXPECT_FALSE(DoMakeDirPath((dir_ / "shut/in/a").c_str(), 0755));

        ExpectReports({NotMade(dir_ / "shut/in", "Permission denied")});
    });

    ASSERT_EQ(0, chmod((dir_ / "shut").c_str(), 0700));
    EXPECT_THAT(NamesIn(dir_ / "shut/in"), IsEmpty());
}

TEST_F(DoMakeDirPathTest, AModeThatLocksTheCallerOutFailsAtTheSecondLevel)
{
    RunAsNobody([&] {
        EXPECT_FALSE(DoMakeDirPath((dir_ / "a/b").c_str(), 0600));

        ExpectReports({NotMade(dir_ / "a/b", "Permission denied")});
    });

    EXPECT_EQ(0600U, ModeOf(dir_ / "a"));
    EXPECT_THAT(NamesIn(dir_ / "a"), IsEmpty());
}

// ---- Races

TEST_F(DoMakeDirPathTest, ADirectoryThatAnotherProcessMakesMeanwhileCountsAsMade)
{
    const ScopedAction other(Call::kMkdir, /*nth=*/1, [this] { ASSERT_EQ(0, mkdir((dir_ / "a").c_str(), 0700)); });

    EXPECT_TRUE(DoMakeDirPath((dir_ / "a/b").c_str(), 0755));

    EXPECT_EQ(0700U, ModeOf(dir_ / "a"));
    EXPECT_EQ(0755U, ModeOf(dir_ / "a/b"));
}

TEST_F(DoMakeDirPathTest, AFileThatAnotherProcessMakesMeanwhileCountsAsMadeToo)
{
    const ScopedAction other(Call::kMkdir, /*nth=*/2, [this] { dir_.Write("a/b", "abc"); });

    EXPECT_TRUE(DoMakeDirPath((dir_ / "a/b").c_str(), 0755));

    EXPECT_EQ("abc", dir_.Read("a/b"));
}

TEST_F(DoMakeDirPathTest, CountsAPathAsMadeIfMkdirReportsThatItExists)
{
    const ScopedFault raced(Call::kMkdir, /*nth=*/2, EEXIST);

    EXPECT_TRUE(DoMakeDirPath((dir_ / "a/b").c_str(), 0755));

    EXPECT_THAT(NamesIn(dir_ / "a"), IsEmpty());
}

TEST_F(DoMakeDirPathTest, AParentThatAnotherProcessRemovesMeanwhileIsAFailure)
{
    const ScopedAction other(Call::kMkdir, /*nth=*/2, [this] { ASSERT_EQ(0, rmdir((dir_ / "a").c_str())); });

    EXPECT_FALSE(DoMakeDirPath((dir_ / "a/b").c_str(), 0755));

    ExpectReports({NotMade(dir_ / "a/b", "No such file or directory")});
    EXPECT_THAT(dir_.Names(), IsEmpty());
}

// ---- Long and deep paths

TEST_F(DoMakeDirPathTest, ReportsAnAncestorWhoseNameIsTooLong)
{
    const std::string tooLong = dir_ / ("a/" + std::string(256, 'x'));
    const ScopedTrace trace;

    EXPECT_FALSE(DoMakeDirPath((tooLong + "/b").c_str(), 0755));

    EXPECT_THAT(trace.Calls(),
                ElementsAre("stat(" + tooLong + ")", "stat(" + (dir_ / "a") + ")", "stat(" + dir_.Path() + ")",
                            "mkdir(" + (dir_ / "a") + ")", "mkdir(" + tooLong + ")"));
    ExpectReports({NotMade(tooLong, "File name too long")});
    EXPECT_THAT(dir_.Names(), ElementsAre("a"));
    EXPECT_THAT(NamesIn(dir_ / "a"), IsEmpty());
}

TEST_F(DoMakeDirPathTest, AcceptsANameOf255Bytes)
{
    EXPECT_TRUE(DoMakeDirPath((dir_ / (std::string(255, 'x') + "/a")).c_str(), 0755));

    EXPECT_TRUE(IsDirectory(dir_ / (std::string(255, 'x') + "/a")));
}

TEST_F(DoMakeDirPathTest, MakesTheLongestPathThatTheKernelAccepts)
{
    const std::string path = PathOfLength(dir_.Path(), 4095);
    ASSERT_EQ(4095U, path.size());

    EXPECT_TRUE(DoMakeDirPath(path.c_str(), 0755));

    EXPECT_TRUE(IsDirectory(path));
    EXPECT_LT(20, RemoveChain(path, dir_.Path()));
}

TEST_F(DoMakeDirPathTest, APathOneByteTooLongFailsAtItsLastLevel)
{
    const std::string parent = PathOfLength(dir_.Path(), 4094);
    const std::string path = parent + "/x";
    ASSERT_EQ(4096U, path.size());

    EXPECT_FALSE(DoMakeDirPath(path.c_str(), 0755));

    ExpectReports({NotMade(path, "File name too long")});
    EXPECT_LT(20, RemoveChain(parent, dir_.Path()));
}

TEST_F(DoMakeDirPathTest, APathWhoseParentIsTooLongTooMakesNothing)
{
    const std::string parent = PathOfLength(dir_.Path(), 4096);
    const std::string path = parent + "/x";
    const ScopedTrace trace;

    EXPECT_FALSE(DoMakeDirPath(path.c_str(), 0755));

    EXPECT_THAT(trace.Calls(), ElementsAre("stat(" + parent + ")", "mkdir(" + path + ")"));
    ExpectReports({NotMade(path, "File name too long")});
    EXPECT_THAT(dir_.Names(), IsEmpty());
}

// A climb from parent to parent would need half a million steps over a megabyte each.
TEST_F(DoMakeDirPathTest, APathOfAMegabyteFailsAtOnceOnASmallStack)
{
    const std::string path = DeepPath(dir_.Path(), 1 << 19);
    bool made = true;
    std::size_t calls = 0;

    RunOnSmallStack([&] {
        const ScopedTrace trace;
        made = DoMakeDirPath(path.c_str(), 0755);
        calls = trace.Calls().size();
    });

    EXPECT_FALSE(made);
    EXPECT_EQ(2U, calls);
    ExpectReports({NotMade(path, "File name too long")});
    EXPECT_THAT(dir_.Names(), IsEmpty());
}

TEST_F(DoMakeDirPathTest, MakesTwoThousandLevelsOnASmallStack)
{
    constexpr int kLevels = 2000;
    const std::string path = DeepPath(dir_.Path(), kLevels);
    bool made = false;

    RunOnSmallStack([&] { made = DoMakeDirPath(path.c_str(), 0755); });

    EXPECT_TRUE(made);
    EXPECT_EQ(kLevels, RemoveChain(path, dir_.Path()));
}

// ---- MakeDirPath

class MakeDirPathTest : public DirPathTest {};

TEST_F(MakeDirPathTest, MakesTheDirectoryAndEveryMissingParent)
{
    EXPECT_TRUE(MakeDirPath((dir_ / "a/b").c_str(), 0755, /*applyMode=*/false));

    EXPECT_TRUE(IsDirectory(dir_ / "a/b"));
    EXPECT_EQ(0755U, ModeOf(dir_ / "a"));
    EXPECT_EQ(0755U, ModeOf(dir_ / "a/b"));
}

TEST_F(MakeDirPathTest, QueriesThePathThenLeavesTheWorkToTheWorkerAndSetsTheModeLast)
{
    const std::string path = dir_ / "a/b";
    const ScopedTrace trace;

    EXPECT_TRUE(MakeDirPath(path.c_str(), 0755, /*applyMode=*/true));

    EXPECT_THAT(trace.Calls(),
                ElementsAre("stat(" + path + ")", "stat(" + (dir_ / "a") + ")", "stat(" + dir_.Path() + ")",
                            "mkdir(" + (dir_ / "a") + ")", "mkdir(" + path + ")", "chmod(" + path + ")"));
}

TEST_F(MakeDirPathTest, LeavesTheModeToTheMaskUnlessAsked)
{
    const ScopedMask mask(077);
    const ScopedTrace trace;

    EXPECT_TRUE(MakeDirPath((dir_ / "a").c_str(), 0777, /*applyMode=*/false));

    EXPECT_THAT(trace.Calls(),
                ElementsAre("stat(" + (dir_ / "a") + ")", "stat(" + dir_.Path() + ")", "mkdir(" + (dir_ / "a") + ")"));
    EXPECT_EQ(0700U, ModeOf(dir_ / "a"));
}

TEST_F(MakeDirPathTest, SetsTheModeOfOnlyTheLastDirectoryPastTheMask)
{
    const ScopedMask mask(027);

    EXPECT_TRUE(MakeDirPath((dir_ / "a/b/c").c_str(), 0777, /*applyMode=*/true));

    EXPECT_EQ(0750U, ModeOf(dir_ / "a"));
    EXPECT_EQ(0750U, ModeOf(dir_ / "a/b"));
    EXPECT_EQ(0777U, ModeOf(dir_ / "a/b/c"));
}

TEST_F(MakeDirPathTest, SetsAllTwelveModeBits)
{
    EXPECT_TRUE(MakeDirPath((dir_ / "a/b").c_str(), 07775, /*applyMode=*/true));

    EXPECT_EQ(01755U, ModeOf(dir_ / "a"));
    EXPECT_EQ(07775U, ModeOf(dir_ / "a/b"));
}

TEST_F(MakeDirPathTest, OnlyQueriesADirectoryThatExists)
{
    ASSERT_EQ(0, mkdir((dir_ / "a").c_str(), 0700));
    const ScopedTrace trace;

    EXPECT_TRUE(MakeDirPath((dir_ / "a").c_str(), 0755, /*applyMode=*/false));

    EXPECT_THAT(trace.Calls(), ElementsAre("stat(" + (dir_ / "a") + ")"));
    EXPECT_EQ(0700U, ModeOf(dir_ / "a"));
}

TEST_F(MakeDirPathTest, SetsTheModeOfADirectoryThatExists)
{
    ASSERT_EQ(0, mkdir((dir_ / "a").c_str(), 0700));
    const ScopedTrace trace;

    EXPECT_TRUE(MakeDirPath((dir_ / "a").c_str(), 02771, /*applyMode=*/true));

    EXPECT_THAT(trace.Calls(), ElementsAre("stat(" + (dir_ / "a") + ")", "chmod(" + (dir_ / "a") + ")"));
    EXPECT_EQ(02771U, ModeOf(dir_ / "a"));
}

TEST_F(MakeDirPathTest, IsTrueForARegularFileAndLeavesItAlone)
{
    const std::string file = dir_.Write("file", "abc", 0640);
    const ScopedTrace trace;

    EXPECT_TRUE(MakeDirPath(file.c_str(), 0755, /*applyMode=*/false));

    EXPECT_THAT(trace.Calls(), ElementsAre("stat(" + file + ")"));
    EXPECT_EQ(0640U, ModeOf(file));
    EXPECT_EQ("abc", dir_.Read("file"));
}

TEST_F(MakeDirPathTest, SetsTheModeOfARegularFile)
{
    const std::string file = dir_.Write("file", "abc", 0640);

    EXPECT_TRUE(MakeDirPath(file.c_str(), 0755, /*applyMode=*/true));

    EXPECT_TRUE(S_ISREG(StatusOf(file).st_mode));
    EXPECT_EQ(0755U, ModeOf(file));
    EXPECT_EQ("abc", dir_.Read("file"));
}

TEST_F(MakeDirPathTest, SetsTheModeOfTheTargetOfALink)
{
    const std::string file = dir_.Write("file", "abc", 0640);
    ASSERT_EQ(0, symlink("file", (dir_ / "link").c_str()));

    EXPECT_TRUE(MakeDirPath((dir_ / "link").c_str(), 0755, /*applyMode=*/true));

    EXPECT_EQ(0755U, ModeOf(file));
}

TEST_F(MakeDirPathTest, CountsADanglingLinkAsMadeButCannotSetItsMode)
{
    const std::string link = dir_ / "link";
    ASSERT_EQ(0, symlink("nowhere", link.c_str()));

    EXPECT_TRUE(MakeDirPath(link.c_str(), 0755, /*applyMode=*/true));

    ExpectReports({NotChanged(link, ENOENT)});
    EXPECT_THAT(dir_.Names(), ElementsAre("link"));
}

TEST_F(MakeDirPathTest, AcceptsATrailingSlash)
{
    EXPECT_TRUE(MakeDirPath((dir_ / "a/").c_str(), 0755, /*applyMode=*/true));

    EXPECT_TRUE(IsDirectory(dir_ / "a"));
}

TEST_F(MakeDirPathTest, MakesBelowARelativeDirectoryThatExists)
{
    ASSERT_EQ(0, mkdir((dir_ / "here").c_str(), 0755));
    RunInChild([&] {
        ASSERT_EQ(0, chdir(dir_.Path().c_str()));

        EXPECT_TRUE(MakeDirPath("here/a/b", 0700, /*applyMode=*/true));
    });

    EXPECT_TRUE(IsDirectory(dir_ / "here/a/b"));
}

TEST_F(MakeDirPathTest, TriesToMakeWhatItCannotQuery)
{
    ASSERT_EQ(0, mkdir((dir_ / "a").c_str(), 0755));
    const ScopedFault fault(Call::kStat, /*nth=*/1, EIO);
    const ScopedTrace trace;

    EXPECT_TRUE(MakeDirPath((dir_ / "a").c_str(), 0755, /*applyMode=*/false));

    EXPECT_THAT(trace.Calls(),
                ElementsAre("stat(" + (dir_ / "a") + ")", "stat(" + dir_.Path() + ")", "mkdir(" + (dir_ / "a") + ")"));
}

TEST_F(MakeDirPathTest, AddsItsLineToThatOfTheLevelThatFailedAndSetsNoMode)
{
    const std::string path = dir_ / "a/b/c";
    const ScopedFault diskFull(Call::kMkdir, /*nth=*/2, ENOSPC);
    const ScopedTrace trace;

    EXPECT_FALSE(MakeDirPath(path.c_str(), 0755, /*applyMode=*/true));

    EXPECT_EQ("mkdir(" + (dir_ / "a/b") + ")", trace.Calls().back());
    ExpectReports({NotMade(dir_ / "a/b", "No space left on device"), Failed(path)});
    EXPECT_THAT(NamesIn(dir_ / "a"), IsEmpty());
}

TEST_F(MakeDirPathTest, FailsWhereTheCallerMayNotSearchEvenAtWhatExists)
{
    const std::string path = dir_ / "shut/in";
    ASSERT_EQ(0, mkdir((dir_ / "shut").c_str(), 0700));
    ASSERT_EQ(0, mkdir(path.c_str(), 0700));
    ASSERT_EQ(0, chmod((dir_ / "shut").c_str(), 0600));

    RunAsNobody([&] {
        EXPECT_FALSE(MakeDirPath(path.c_str(), 0755, /*applyMode=*/true));

        ExpectReports({NotMade(path, "Permission denied"), Failed(path)});
    });

    ASSERT_EQ(0, chmod((dir_ / "shut").c_str(), 0700));
    EXPECT_EQ(0700U, ModeOf(path));
}

TEST_F(MakeDirPathTest, IsTrueThoughTheModeOfANewDirectoryCannotBeSet)
{
    const std::string path = dir_ / "a";
    const ScopedFault fault(Call::kChmod, /*nth=*/1, EPERM);

    EXPECT_TRUE(MakeDirPath(path.c_str(), 0777, /*applyMode=*/true));

    ExpectReports({messages::kMakeChmod(path, 1)});
    EXPECT_EQ(0755U, ModeOf(path));
}

TEST_F(MakeDirPathTest, IsTrueThoughTheModeOfAnExistingDirectoryCannotBeSet)
{
    const std::string path = dir_ / "a";
    ASSERT_EQ(0, mkdir(path.c_str(), 0700));
    const ScopedFault fault(Call::kChmod, /*nth=*/1, EROFS);

    EXPECT_TRUE(MakeDirPath(path.c_str(), 0755, /*applyMode=*/true));

    ExpectReports({NotChanged(path, EROFS)});
    EXPECT_EQ(0700U, ModeOf(path));
}

TEST_F(MakeDirPathTest, IsTrueForTheDirectoryOfAnotherUserWhoseModeItMayNotSet)
{
    if (geteuid() != 0 && geteuid() == StatusOf("/etc").st_uid) {
        ORV_SKIP("this user owns /etc");
    }

    RunAsNobody([] {
        EXPECT_TRUE(MakeDirPath("/etc", ModeOf("/etc"), /*applyMode=*/true));

        ExpectReports({messages::kMakeChmod("/etc", 1)});
    });
}

TEST_F(MakeDirPathTest, MakesAPathOf1024Bytes)
{
    const std::string path = PathOfLength(dir_.Path(), 1024);
    ASSERT_EQ(1024U, path.size());

    EXPECT_TRUE(MakeDirPath(path.c_str(), 0755, /*applyMode=*/true));

    EXPECT_TRUE(IsDirectory(path));
}

TEST_F(MakeDirPathTest, RefusesAPathOf1025BytesWithoutAnyCall)
{
    const std::string path = PathOfLength(dir_.Path(), 1025);
    const ScopedTrace trace;

    EXPECT_FALSE(MakeDirPath(path.c_str(), 0755, /*applyMode=*/true));

    EXPECT_THAT(trace.Calls(), IsEmpty());
    ExpectReports({messages::kMakeSize(1025)});
    EXPECT_THAT(dir_.Names(), IsEmpty());
}

TEST_F(MakeDirPathTest, RefusesALongSpellingOfADirectoryThatExists)
{
    const std::string accepted = dir_.Path() + std::string(1024 - dir_.Path().size(), '/');
    ASSERT_TRUE(MakeDirPath(accepted.c_str(), 0755, /*applyMode=*/false));

    EXPECT_FALSE(MakeDirPath((accepted + "/").c_str(), 0700, /*applyMode=*/true));

    ExpectReports({UnusualSize(1025)});
    EXPECT_EQ(0777U, ModeOf(dir_.Path()));
}

TEST_F(MakeDirPathTest, RefusesAPathOfAMegabyte)
{
    EXPECT_FALSE(MakeDirPath(std::string(1 << 20, 'x').c_str(), 0755, /*applyMode=*/true));

    ExpectReports({UnusualSize(1 << 20)});
}

TEST_F(MakeDirPathTest, MakesFiveHundredLevelsOnASmallStack)
{
    constexpr int kLevels = 500;
    const std::string path = DeepPath(dir_.Path(), kLevels);
    ASSERT_GE(1024U, path.size());
    bool made = false;

    RunOnSmallStack([&] { made = MakeDirPath(path.c_str(), 0755, /*applyMode=*/true); });

    EXPECT_TRUE(made);
    EXPECT_EQ(kLevels, RemoveChain(path, dir_.Path()));
}

}  // namespace
