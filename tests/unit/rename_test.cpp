// Moves under real conditions: one file system, two file systems, a full one, closed directories, bind mounts.
#include "LxFileUtils.h"
#include "support/faults.h"
#include "support/messages.h"
#include "support/orv_test.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

using orv_fileutils::RenameFileAcrossFs;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// The parts of the status that stay if the file itself is moved.
void ExpectSameFile(const struct stat& expected, const std::string& path)
{
    const struct stat status = StatusOf(path);
    EXPECT_EQ(expected.st_dev, status.st_dev);
    EXPECT_EQ(expected.st_ino, status.st_ino);
    EXPECT_EQ(expected.st_mode, status.st_mode);
    EXPECT_EQ(expected.st_mtim.tv_sec, status.st_mtim.tv_sec);
}

// ---- On one file system

class RenameTest : public OrvTest {};

TEST_F(RenameTest, RenamesOnOneFileSystemWithTwoCallsAndNothingElse)
{
    const std::string source = dir_.Write("source", "abc");
    const std::string destination = dir_ / "destination";
    const struct stat before = StatusOf(source);
    const ScopedTrace trace;

    EXPECT_TRUE(RenameFileAcrossFs(source, destination));

    EXPECT_THAT(trace.Calls(), ElementsAre("stat(" + source + ")", "rename(" + source + ", " + destination + ")"));
    EXPECT_THAT(dir_.Names(), ElementsAre("destination"));
    ExpectSameFile(before, destination);
    EXPECT_EQ("abc", dir_.Read("destination"));
}

TEST_F(RenameTest, ReplacesAnExistingFile)
{
    const std::string source = dir_.Write("source", "new");
    const std::string destination = dir_.Write("destination", "old and longer");

    EXPECT_TRUE(RenameFileAcrossFs(source, destination));

    EXPECT_THAT(dir_.Names(), ElementsAre("destination"));
    EXPECT_EQ("new", dir_.Read("destination"));
}

TEST_F(RenameTest, KeepsTheWholeModeOnOneFileSystem)
{
    const std::string source = dir_.Write("source", "abc", 07755);

    EXPECT_TRUE(RenameFileAcrossFs(source, dir_ / "destination"));

    EXPECT_EQ(07755U, ModeOf(dir_ / "destination"));
}

TEST_F(RenameTest, MovesASymbolicLinkItselfOnOneFileSystem)
{
    dir_.Write("target", "abc");
    ASSERT_EQ(0, symlink("target", (dir_ / "link").c_str()));

    EXPECT_TRUE(RenameFileAcrossFs(dir_ / "link", dir_ / "destination"));

    EXPECT_THAT(dir_.Names(), ElementsAre("destination", "target"));
    EXPECT_TRUE(S_ISLNK(StatusOf(dir_ / "destination").st_mode));
}

// docs/caveats.md warns of this: the library calls rename(2) as for any other link.
TEST_F(RenameTest, ReplacesAFileByALinkToItselfAndLosesTheContent)
{
    const std::string file = dir_.Write("file", "abc");
    ASSERT_EQ(0, symlink("file", (dir_ / "link").c_str()));

    EXPECT_TRUE(RenameFileAcrossFs(dir_ / "link", file));

    ExpectReports({});
    EXPECT_THAT(dir_.Names(), ElementsAre("file"));
    EXPECT_FALSE(orv_fileutils::FileExists(file.c_str())) << "the link leads to itself";
}

TEST_F(RenameTest, ReplacesASymbolicLinkAtTheDestinationAndNotItsTarget)
{
    const std::string source = dir_.Write("source", "new");
    dir_.Write("target", "old");
    ASSERT_EQ(0, symlink("target", (dir_ / "link").c_str()));

    EXPECT_TRUE(RenameFileAcrossFs(source, dir_ / "link"));

    EXPECT_THAT(dir_.Names(), ElementsAre("link", "target"));
    EXPECT_TRUE(S_ISREG(StatusOf(dir_ / "link").st_mode));
    EXPECT_EQ("old", dir_.Read("target"));
}

TEST_F(RenameTest, LeavesTwoHardLinksOfOneFileAsTheyAre)
{
    const std::string source = dir_.Write("source", "abc");
    ASSERT_EQ(0, link(source.c_str(), (dir_ / "second").c_str()));

    EXPECT_TRUE(RenameFileAcrossFs(source, dir_ / "second"));

    EXPECT_THAT(dir_.Names(), ElementsAre("second", "source"));
}

TEST_F(RenameTest, IsTrueForAFileMovedOntoItself)
{
    const std::string source = dir_.Write("source", "abc");

    EXPECT_TRUE(RenameFileAcrossFs(source, source));

    EXPECT_EQ("abc", dir_.Read("source"));
}

TEST_F(RenameTest, MovesNamesWithBlanksLineFeedsAndHighBytes)
{
    const std::string source = dir_.Write("a b\nc\xff", "abc");

    EXPECT_TRUE(RenameFileAcrossFs(source, dir_ / "d e\nf\x80"));

    EXPECT_THAT(dir_.Names(), ElementsAre("d e\nf\x80"));
}

TEST_F(RenameTest, UsesPathsOnlyUpToTheirFirstNul)
{
    dir_.Write("source", "abc");
    const std::string source = (dir_ / "source") + std::string("\0tail", 5);
    const std::string destination = (dir_ / "destination") + std::string("\0tail", 5);

    EXPECT_TRUE(RenameFileAcrossFs(source, destination));

    EXPECT_THAT(dir_.Names(), ElementsAre("destination"));
}

TEST_F(RenameTest, ReportsAMissingSource)
{
    const std::string source = dir_ / "missing";

    EXPECT_FALSE(RenameFileAcrossFs(source, dir_ / "destination"));

    ExpectReports({messages::kRenameStat(source, 2)});
    EXPECT_THAT(dir_.Names(), IsEmpty());
}

TEST_F(RenameTest, ReportsADanglingLinkAsMissing)
{
    ASSERT_EQ(0, symlink("nowhere", (dir_ / "link").c_str()));

    EXPECT_FALSE(RenameFileAcrossFs(dir_ / "link", dir_ / "destination"));

    ExpectReports({messages::kRenameStat(dir_ / "link", 2)});
    EXPECT_THAT(dir_.Names(), ElementsAre("link"));
}

TEST_F(RenameTest, ReportsAnEmptySourcePath)
{
    EXPECT_FALSE(RenameFileAcrossFs("", dir_ / "destination"));

    ExpectReports({messages::kRenameStat("", 2)});
}

TEST_F(RenameTest, ReportsAnEmptyDestinationPath)
{
    const std::string source = dir_.Write("source", "abc");

    EXPECT_FALSE(RenameFileAcrossFs(source, ""));

    ExpectReports({messages::kRenameRename(source, "", 2)});
    EXPECT_EQ("abc", dir_.Read("source"));
}

TEST_F(RenameTest, RefusesADirectoryThatAPlainRenameWouldMove)
{
    const std::string source = dir_ / "directory";
    ASSERT_EQ(0, mkdir(source.c_str(), 0755));

    EXPECT_FALSE(RenameFileAcrossFs(source, dir_ / "destination"));

    ExpectReports({messages::kRenameNotRegular(source, "4000")});
    EXPECT_THAT(dir_.Names(), ElementsAre("directory"));
}

TEST_F(RenameTest, ReportsAFifoWithItsTypeBitsOnly)
{
    const std::string source = dir_ / "fifo";
    ASSERT_EQ(0, mkfifo(source.c_str(), 0644));

    EXPECT_FALSE(RenameFileAcrossFs(source, dir_ / "destination"));

    ExpectReports({messages::kRenameNotRegular(source, "1000")});
    EXPECT_THAT(dir_.Names(), ElementsAre("fifo"));
}

TEST_F(RenameTest, RefusesACharacterDevice)
{
    EXPECT_FALSE(RenameFileAcrossFs("/dev/null", dir_ / "destination"));

    ExpectReports({messages::kRenameNotRegular("/dev/null", "2000")});
    EXPECT_THAT(dir_.Names(), IsEmpty());
}

TEST_F(RenameTest, RefusesASocket)
{
    const std::string source = dir_ / "socket";
    ASSERT_EQ(0, mknod(source.c_str(), S_IFSOCK | 0600, 0)) << std::strerror(errno);

    EXPECT_FALSE(RenameFileAcrossFs(source, dir_ / "destination"));

    ExpectReports({messages::kRenameNotRegular(source, "c000")});
}

TEST_F(RenameTest, ReportsADirectoryAtTheDestination)
{
    const std::string source = dir_.Write("source", "abc");
    const std::string destination = dir_ / "directory";
    ASSERT_EQ(0, mkdir(destination.c_str(), 0755));

    EXPECT_FALSE(RenameFileAcrossFs(source, destination));

    ExpectReports({messages::kRenameRename(source, destination, EISDIR)});
    EXPECT_THAT(dir_.Names(), ElementsAre("directory", "source"));
    EXPECT_EQ("abc", dir_.Read("source"));
}

TEST_F(RenameTest, ReportsAMissingDestinationDirectory)
{
    const std::string source = dir_.Write("source", "abc");
    const std::string destination = dir_ / "missing/destination";

    EXPECT_FALSE(RenameFileAcrossFs(source, destination));

    ExpectReports({messages::kRenameRename(source, destination, 2)});
    EXPECT_EQ("abc", dir_.Read("source"));
}

TEST_F(RenameTest, ReportsThatADirectoryIsClosedToTheCaller)
{
    ASSERT_EQ(0, mkdir((dir_ / "closed").c_str(), 0755));
    const std::string source = dir_.Write("closed/source", "abc");
    const std::string destination = dir_ / "destination";
    ASSERT_EQ(0, chmod((dir_ / "closed").c_str(), 0555));  // closed to its owner, too

    RunAsNobody([&] {
        EXPECT_FALSE(RenameFileAcrossFs(source, destination));

        ExpectReports({messages::kRenameRename(source, destination, 13)});
    });
    ASSERT_EQ(0, chmod((dir_ / "closed").c_str(), 0755));
    EXPECT_EQ("abc", ReadFile(source));
    EXPECT_THAT(dir_.Names(), ElementsAre("closed"));
}

TEST_F(RenameTest, ReportsASourceThatTheCallerMayNotSearchFor)
{
    ASSERT_EQ(0, mkdir((dir_ / "closed").c_str(), 0700));
    const std::string source = dir_.Write("closed/source", "abc");

    RunAsNobody([&] {
        if (geteuid() == StatusOf(dir_.Path()).st_uid) {
            EXPECT_EQ(0, chmod((dir_ / "closed").c_str(), 0));
        }
        EXPECT_FALSE(RenameFileAcrossFs(source, dir_ / "destination"));

        ExpectReports({messages::kRenameStat(source, 13)});
    });
    EXPECT_EQ(0, chmod((dir_ / "closed").c_str(), 0700));
}

TEST_F(RenameTest, ReportsPathsOfMegabytesAsTooLong)
{
    const std::string source = dir_.Write("source", "abc");
    const std::string tooLong = dir_ / std::string(9000000, 'x');

    EXPECT_FALSE(RenameFileAcrossFs(source, tooLong));

    ExpectReports({messages::kRenameRename(source, tooLong, 36)});
    EXPECT_EQ("abc", dir_.Read("source"));

    EXPECT_FALSE(RenameFileAcrossFs(tooLong, source));

    ExpectReports({messages::kRenameStat(tooLong, 36)});
    EXPECT_EQ("abc", dir_.Read("source"));
}

// ---- Across file systems

class RenameAcrossTest : public TwoFileSystemsTest {
protected:
    // Returns the system calls of a copy of `bytes` bytes, in order, with blocks of 4096 bytes.
    static std::vector<std::string> CallsOfACopy(const std::string& source, const std::string& destination,
                                                 std::size_t bytes)
    {
        std::vector<std::string> calls = {
            "stat(" + source + ")",
            "rename(" + source + ", " + destination + ")",
            "mkstemp(" + destination + "_XXXXXX)",
            "open(" + source + ", 0)",
        };
        for (std::size_t left = bytes; left > 0; left -= std::min<std::size_t>(left, 4096)) {
            const std::string count = std::to_string(std::min<std::size_t>(left, 4096));
            calls.push_back("read(" + source + ", 4096) = " + count);
            calls.push_back("write(<temporary>, " + count + ")");
        }
        calls.insert(calls.end(), {
                                      "read(" + source + ", 4096) = 0",
                                      "close(" + source + ")",
                                      "close(<temporary>)",
                                      "chmod(<temporary>)",
                                      "rename(<temporary>, " + destination + ")",
                                      "lstat(" + source + ")",
                                      "unlink(" + source + ")",
                                  });
        return calls;
    }
};

class RenameAcrossSizeTest : public RenameAcrossTest, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(RenameAcrossSizeTest, CopiesEveryByteInBlocksAndFlushesNothing)
{
    std::string bytes(GetParam(), '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>(i * 31 + i / 256);
    }
    const std::string source = dir_.Write("source", bytes, 0640);
    const std::string destination = other_ / "destination";
    const ScopedTrace trace;

    EXPECT_TRUE(RenameFileAcrossFs(source, destination));

    EXPECT_EQ(CallsOfACopy(source, destination, bytes.size()), trace.Calls());
    EXPECT_THAT(dir_.Names(), IsEmpty());
    EXPECT_THAT(other_.Names(), ElementsAre("destination"));
    EXPECT_TRUE(bytes == other_.Read("destination"));
    EXPECT_EQ(0640U, ModeOf(destination));
    EXPECT_EQ(1U, StatusOf(destination).st_nlink);
}

INSTANTIATE_TEST_SUITE_P(Sizes, RenameAcrossSizeTest, ::testing::Values(0, 1, 4095, 4096, 4097, 10000, 1 << 20));

TEST_F(RenameAcrossTest, AlsoMovesFromTheOtherFileSystemBack)
{
    const std::string source = other_.Write("source", "abc");

    EXPECT_TRUE(RenameFileAcrossFs(source, dir_ / "destination"));

    EXPECT_THAT(other_.Names(), IsEmpty());
    EXPECT_EQ("abc", dir_.Read("destination"));
}

TEST_F(RenameAcrossTest, ReplacesAnExistingFileByANewOne)
{
    const std::string source = dir_.Write("source", "new", 0600);
    const std::string destination = other_.Write("destination", "old and longer", 0666);
    const int reader = open(destination.c_str(), O_RDONLY);
    ASSERT_NE(-1, reader);

    EXPECT_TRUE(RenameFileAcrossFs(source, destination));

    EXPECT_EQ("new", other_.Read("destination"));
    EXPECT_EQ(0600U, ModeOf(destination));
    char old[32];
    EXPECT_EQ(14, read(reader, old, sizeof old)) << "a reader of the old file must keep all of it";
    close(reader);
}

TEST_F(RenameAcrossTest, DropsSetIdAndStickyBits)
{
    for (const mode_t special : {04000U, 02000U, 01000U, 07000U}) {
        const std::string source = dir_.Write("source", "abc", special | 0755);
        ASSERT_EQ(special | 0755, ModeOf(source));

        EXPECT_TRUE(RenameFileAcrossFs(source, other_ / "destination"));

        EXPECT_EQ(0755U, ModeOf(other_ / "destination"));
    }
}

TEST_F(RenameAcrossTest, GivesTheCopyItsModeDespiteTheUmask)
{
    const ScopedMask mask(0077);
    for (const mode_t mode : {0777U, 0666U, 0604U}) {
        EXPECT_TRUE(RenameFileAcrossFs(dir_.Write("source", "abc", mode), other_ / "destination"));
        EXPECT_EQ(mode, ModeOf(other_ / "destination"));
    }
}

TEST_F(RenameAcrossTest, GivesTheCopyNoPermissionWhereTheSourceHasNone)
{
    if (!CanReadWithoutPermission()) {
        ORV_SKIP("this user cannot read a file without read permission");
    }

    EXPECT_TRUE(RenameFileAcrossFs(dir_.Write("source", "abc", 0), other_ / "destination"));
    EXPECT_EQ(0U, ModeOf(other_ / "destination"));
}

TEST_F(RenameAcrossTest, DoesNotPreserveTimes)
{
    const std::string source = dir_.Write("source", "abc");
    const timespec old[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, source.c_str(), old, 0));

    EXPECT_TRUE(RenameFileAcrossFs(source, other_ / "destination"));

    EXPECT_LT(1000000000, StatusOf(other_ / "destination").st_mtim.tv_sec);
}

TEST_F(RenameAcrossTest, CopiesTheTargetOfASymbolicLinkAndRemovesTheLink)
{
    dir_.Write("target", "abc", 0640);
    ASSERT_EQ(0, symlink("target", (dir_ / "link").c_str()));

    EXPECT_TRUE(RenameFileAcrossFs(dir_ / "link", other_ / "destination"));

    EXPECT_THAT(dir_.Names(), ElementsAre("target"));
    EXPECT_EQ("abc", other_.Read("destination"));
    EXPECT_TRUE(S_ISREG(StatusOf(other_ / "destination").st_mode));
    EXPECT_EQ(0640U, ModeOf(other_ / "destination"));
}

TEST_F(RenameAcrossTest, MovesALinkOntoItsOwnTargetAndKeepsTheContent)
{
    const std::string target = other_.Write("target", "abc");
    ASSERT_EQ(0, symlink(target.c_str(), (dir_ / "link").c_str()));

    EXPECT_TRUE(RenameFileAcrossFs(dir_ / "link", target));

    EXPECT_THAT(dir_.Names(), IsEmpty());
    EXPECT_EQ("abc", other_.Read("target"));
}

TEST_F(RenameAcrossTest, ReplacesALinkAtTheDestinationAndNotItsTarget)
{
    const std::string source = dir_.Write("source", "new");
    other_.Write("target", "old");
    ASSERT_EQ(0, symlink("target", (other_ / "link").c_str()));

    EXPECT_TRUE(RenameFileAcrossFs(source, other_ / "link"));

    EXPECT_EQ("old", other_.Read("target"));
    EXPECT_EQ("new", other_.Read("link"));
    EXPECT_TRUE(S_ISREG(StatusOf(other_ / "link").st_mode));
}

TEST_F(RenameAcrossTest, ReplacesALinkToTheSourceItself)
{
    const std::string source = dir_.Write("source", "abc");
    ASSERT_EQ(0, symlink(source.c_str(), (other_ / "link").c_str()));

    EXPECT_TRUE(RenameFileAcrossFs(source, other_ / "link"));

    EXPECT_THAT(dir_.Names(), IsEmpty());
    EXPECT_EQ("abc", other_.Read("link"));
    EXPECT_TRUE(S_ISREG(StatusOf(other_ / "link").st_mode));
}

TEST_F(RenameAcrossTest, ReportsADirectoryAtTheDestination)
{
    const std::string source = dir_.Write("source", "abc");
    const std::string destination = other_ / "directory";
    ASSERT_EQ(0, mkdir(destination.c_str(), 0755));

    EXPECT_FALSE(RenameFileAcrossFs(source, destination));

    // The kernel checks for another file system first, so the rename of the copy fails, which has its own name.
    ExpectReports({messages::kRenameRename(destination + messages::kAnySuffix, destination, 21)});
    EXPECT_THAT(other_.Names(), ElementsAre("directory"));
    EXPECT_EQ("abc", dir_.Read("source"));
}

TEST_F(RenameAcrossTest, ReportsADestinationDirectoryThatIsClosedToTheCaller)
{
    ASSERT_EQ(0, mkdir((other_ / "closed").c_str(), 0555));
    const std::string source = dir_.Write("source", "abc");
    const std::string destination = other_ / "closed/destination";

    RunAsNobody([&] {
        EXPECT_FALSE(RenameFileAcrossFs(source, destination));

        ExpectReports({messages::kRenameMkstemp(destination + messages::kAnySuffix, 13)});
    });
    EXPECT_THAT(NamesIn(other_ / "closed"), IsEmpty());
    EXPECT_EQ("abc", dir_.Read("source"));
}

TEST_F(RenameAcrossTest, ReportsASourceThatTheCallerMayNotRead)
{
    const std::string source = dir_.Write("source", "abc", 0);
    const std::string destination = other_.Write("destination", "old");

    RunAsNobody([&] {
        EXPECT_FALSE(RenameFileAcrossFs(source, destination));

        ExpectReports({messages::kRenameOpen(source, 13)});
    });
    EXPECT_THAT(other_.Names(), ElementsAre("destination"));
    EXPECT_EQ("old", other_.Read("destination"));
    EXPECT_TRUE(Exists(source));
}

TEST_F(RenameAcrossTest, IsTrueAndLogsWhenTheSourceCannotBeRemoved)
{
    ASSERT_EQ(0, mkdir((dir_ / "closed").c_str(), 0755));
    const std::string source = dir_.Write("closed/source", "abc", 0444);
    ASSERT_EQ(0, chmod((dir_ / "closed").c_str(), 0555));

    RunAsNobody([&] {
        EXPECT_TRUE(RenameFileAcrossFs(source, other_ / "destination"));

        ExpectReports({messages::kRenameUnlink(source, 13)});
    });
    EXPECT_THAT(other_.Names(), ElementsAre("destination"));
    EXPECT_EQ("abc", other_.Read("destination"));
    EXPECT_EQ("abc", ReadFile(source));
    EXPECT_EQ(0, chmod((dir_ / "closed").c_str(), 0755));
}

TEST_F(RenameAcrossTest, NeedsRoomForSevenMoreBytesInTheName)
{
    const std::string fits(NAME_MAX - 7, 'x');
    EXPECT_TRUE(RenameFileAcrossFs(dir_.Write("source", "abc"), other_ / fits));
    EXPECT_THAT(other_.Names(), ElementsAre(fits));

    const std::string destination = other_ / (fits + 'x');
    EXPECT_FALSE(RenameFileAcrossFs(dir_.Write("source", "abc"), destination));

    ExpectReports({messages::kRenameMkstemp(destination + messages::kAnySuffix, 36)});
    EXPECT_EQ("abc", dir_.Read("source"));
    EXPECT_THAT(other_.Names(), ElementsAre(fits));
}

TEST_F(RenameAcrossTest, UsesTheDestinationUpToItsFirstNul)
{
    dir_.Write("source", "abc");
    const std::string destination = (other_ / "destination") + '\0' + std::string(9000000, 'x');

    EXPECT_TRUE(RenameFileAcrossFs(dir_ / "source", destination));

    EXPECT_THAT(other_.Names(), ElementsAre("destination"));
}

TEST_F(RenameAcrossTest, WorksWithTheLongestPathThatTheKernelAccepts)
{
    const std::string source = dir_.Write("source", "abc");
    std::string directory = other_.Path();
    while (directory.size() + 200 < PATH_MAX - 50) {
        directory += "/" + std::string(199, 'd');
        ASSERT_EQ(0, mkdir(directory.c_str(), 0755));
    }
    const std::string destination = directory + "/" + std::string(PATH_MAX - 1 - directory.size() - 1, 'x');
    ASSERT_EQ(static_cast<std::size_t>(PATH_MAX - 1), destination.size());

    EXPECT_FALSE(RenameFileAcrossFs(source, destination)) << "the name of the temporary file is 7 bytes longer";

    ExpectReports({messages::kRenameMkstemp(destination + messages::kAnySuffix, 36)});
    EXPECT_EQ("abc", dir_.Read("source"));

    const std::string shorter = destination.substr(0, destination.size() - 7);
    EXPECT_TRUE(RenameFileAcrossFs(source, shorter));
    EXPECT_EQ("abc", ReadFile(shorter));
}

TEST_F(RenameAcrossTest, WorksOnAThreadWithASmallStack)
{
    const std::string source = dir_.Write("source", std::string(10000, 'x'));
    const std::string destination = other_ / "destination";
    const std::string tooLong(9000000, 'x');

    RunOnSmallStack([&] {
        EXPECT_FALSE(RenameFileAcrossFs(source, tooLong));
        EXPECT_TRUE(RenameFileAcrossFs(source, destination));
    });

    EXPECT_EQ(1U, TakeDlogCalls().size()) << "of the too long destination";
    EXPECT_EQ(std::string(10000, 'x'), other_.Read("destination"));
}

// Through a link in the path, the source's name can lead to another file system in the end.
TEST_F(RenameAcrossTest, KeepsAFileThatTheSourcesPathLeadsToMeanwhileOnAnotherFileSystem)
{
    dir_.Write("source", "abc");
    other_.Write("source", "other");
    const std::string way = dir_ / "way";
    ASSERT_EQ(0, symlink(dir_.Path().c_str(), way.c_str()));
    const ScopedAction exchange(Call::kLstat, /*nth=*/1, [&] {
        ASSERT_EQ(0, unlink(way.c_str()));
        ASSERT_EQ(0, symlink(other_.Path().c_str(), way.c_str()));
    });

    EXPECT_TRUE(RenameFileAcrossFs(way + "/source", other_ / "destination"));

    ExpectReports({messages::kRenameUnlink(way + "/source", 116)});
    EXPECT_EQ("abc", dir_.Read("source"));
    EXPECT_EQ("other", other_.Read("source"));
    EXPECT_EQ("abc", other_.Read("destination"));
}

TEST_F(RenameAcrossTest, LosesNothingWhenTheProcessDiesOfTheFileSizeLimit)
{
    const std::string bytes(10000, 'x');
    const std::string source = dir_.Write("source", bytes, 0640);
    const std::string destination = other_.Write("destination", "old", 0600);
    other_.ExpectTemporary("destination");

    RunIntoFileSizeLimit(8192, [&] { (void)RenameFileAcrossFs(source, destination); });

    EXPECT_EQ(bytes, ReadFile(source));
    EXPECT_EQ(0640U, ModeOf(source));
    EXPECT_EQ("old", ReadFile(destination));
    EXPECT_EQ(0600U, ModeOf(destination));
    const std::vector<std::string> names = other_.Names();
    ASSERT_EQ(2U, names.size());
    EXPECT_EQ(bytes.substr(0, 8192), other_.Read(names[1]));

    EXPECT_TRUE(RenameFileAcrossFs(source, destination));

    EXPECT_EQ(bytes, ReadFile(destination));
    EXPECT_THAT(dir_.Names(), IsEmpty());
    EXPECT_THAT(other_.Names(), ElementsAre("destination", names[1]));
}

// ---- With private mounts

class RenameMountTest : public OrvTest {
protected:
    void SetUp() override
    {
        if (!CanMount()) {
            ORV_SKIP("no private mounts here: needs root or user namespaces");
        }
    }
};

// Two names on two mounts that are one file. The kernel refuses the plain rename. The copy that replaces the
// destination also replaces the source, so removing the source would lose the file.
class RenameAliasTest : public RenameMountTest {
protected:
    RenameAliasTest() : real_(dir_ / "real"), bound_(dir_ / "bound")
    {
        EXPECT_EQ(0, mkdir(real_.c_str(), 0755));
        EXPECT_EQ(0, mkdir(bound_.c_str(), 0755));
    }

    void Bind() const
    {
        ASSERT_EQ(0, mount(real_.c_str(), bound_.c_str(), nullptr, MS_BIND, nullptr));
    }

    // Moves `source` onto `destination`. Both are names of one file with the content "abc", before and after.
    static void ExpectKept(const std::string& source, const std::string& destination)
    {
        ASSERT_EQ(-1, rename(source.c_str(), destination.c_str()));
        ASSERT_EQ(EXDEV, errno);

        EXPECT_TRUE(RenameFileAcrossFs(source, destination));

        EXPECT_EQ("abc", ReadFile(destination));
        EXPECT_EQ("abc", ReadFile(source));
        ExpectReports({messages::kRenameUnlink(source, 116)});
    }

    const std::string real_;
    const std::string bound_;
};

TEST_F(RenameAliasTest, KeepsAFileWhoseTwoNamesLieOnTwoMountsOfOneFileSystem)
{
    dir_.Write("real/file", "abc", 0640);

    RunWithPrivateMounts([&] {
        Bind();

        ExpectKept(real_ + "/file", bound_ + "/file");

        EXPECT_THAT(NamesIn(real_), ElementsAre("file"));
        EXPECT_EQ(0640U, ModeOf(real_ + "/file"));
    });
}

TEST_F(RenameAliasTest, KeepsTheContentOfALinkMovedOntoItselfThroughAnotherMount)
{
    dir_.Write("target", "abc");
    ASSERT_EQ(0, symlink("../target", (real_ + "/link").c_str()));

    RunWithPrivateMounts([&] {
        Bind();

        ExpectKept(real_ + "/link", bound_ + "/link");

        EXPECT_THAT(NamesIn(real_), ElementsAre("link"));
        EXPECT_TRUE(S_ISREG(StatusOf(real_ + "/link").st_mode)) << "the copy, as across any two file systems";
        EXPECT_EQ("abc", dir_.Read("target"));
    });
}

// The two names have different device numbers, so comparing the files before the copy does not help.
class RenameOverlayTest : public RenameAliasTest {
protected:
    void SetUp() override
    {
        RenameAliasTest::SetUp();
        if (!IsSkipped() && !CanMount([this] { return MountOverlay(); })) {
            ORV_SKIP("no overlay file system can be mounted here");
        }
    }

    // Mounts an overlay at `bound_`. Its layers are in memory: a disk that is itself an overlay cannot hold them.
    bool MountOverlay() const
    {
        const std::string layers = dir_ / "layers";
        (void)mkdir(layers.c_str(), 0755);
        MountTmpfs(layers, 1 << 20);
        for (const char* const name : {"/lower", "/upper", "/work"}) {
            (void)mkdir((layers + name).c_str(), 0755);
        }
        const std::string options =
            "lowerdir=" + layers + "/lower,upperdir=" + layers + "/upper,workdir=" + layers + "/work";
        return mount("overlay", bound_.c_str(), "overlay", 0, options.c_str()) == 0;
    }

    const std::string upper_ = dir_ / "layers/upper/file";
    const std::string merged_ = dir_ / "bound/file";
};

TEST_F(RenameOverlayTest, KeepsAFileMovedFromTheUpperDirectoryOntoItselfInTheMergedOne)
{
    RunWithPrivateMounts([&] {
        ASSERT_TRUE(MountOverlay()) << std::strerror(errno);
        WriteFile(merged_, "abc");
        ASSERT_NE(StatusOf(upper_).st_dev, StatusOf(merged_).st_dev);

        ExpectKept(upper_, merged_);
    });
}

TEST_F(RenameOverlayTest, KeepsAFileMovedFromTheMergedDirectoryOntoItselfInTheUpperOne)
{
    RunWithPrivateMounts([&] {
        ASSERT_TRUE(MountOverlay()) << std::strerror(errno);
        WriteFile(merged_, "abc");

        EXPECT_TRUE(RenameFileAcrossFs(merged_, upper_));

        EXPECT_EQ("abc", ReadFile(upper_));
        ExpectReports({messages::kRenameUnlink(merged_, 116)});
    });
}

TEST_F(RenameMountTest, MovesBetweenTwoMountsOfOneFileSystem)
{
    ASSERT_EQ(0, mkdir((dir_ / "real").c_str(), 0755));
    ASSERT_EQ(0, mkdir((dir_ / "bound").c_str(), 0755));
    const std::string source = dir_.Write("real/file", "abc");

    RunWithPrivateMounts([&] {
        ASSERT_EQ(0, mount((dir_ / "real").c_str(), (dir_ / "bound").c_str(), nullptr, MS_BIND, nullptr));

        EXPECT_TRUE(RenameFileAcrossFs(source, dir_ / "bound/other name"));

        EXPECT_THAT(NamesIn(dir_ / "real"), ElementsAre("other name"));
        EXPECT_EQ("abc", dir_.Read("real/other name"));
    });
}

TEST_F(RenameMountTest, MovesOntoAFileThatHasTheSourcesInodeNumberOnAnotherFileSystem)
{
    ASSERT_EQ(0, mkdir((dir_ / "one").c_str(), 0755));
    ASSERT_EQ(0, mkdir((dir_ / "other").c_str(), 0755));

    RunWithPrivateMounts([&] {
        // New file systems of one type assign the same inode numbers.
        MountTmpfs(dir_ / "one", 64 << 10);
        MountTmpfs(dir_ / "other", 64 << 10);
        const std::string source = dir_.Write("one/file", "new");
        const std::string destination = dir_.Write("other/file", "old");
        ASSERT_EQ(StatusOf(source).st_ino, StatusOf(destination).st_ino);

        EXPECT_TRUE(RenameFileAcrossFs(source, destination));

        EXPECT_EQ("new", ReadFile(destination));
        EXPECT_THAT(NamesIn(dir_ / "one"), ElementsAre());
        EXPECT_THAT(NamesIn(dir_ / "other"), ElementsAre("file"));
        ExpectReports({});
    });
}

TEST_F(RenameMountTest, RemovesALinkThatLeadsToTheDestinationOnAnotherMount)
{
    ASSERT_EQ(0, mkdir((dir_ / "real").c_str(), 0755));
    ASSERT_EQ(0, mkdir((dir_ / "bound").c_str(), 0755));
    dir_.Write("real/file", "abc");
    const std::string source = dir_ / "real/link";
    ASSERT_EQ(0, symlink("file", source.c_str()));

    RunWithPrivateMounts([&] {
        ASSERT_EQ(0, mount((dir_ / "real").c_str(), (dir_ / "bound").c_str(), nullptr, MS_BIND, nullptr));

        EXPECT_TRUE(RenameFileAcrossFs(source, dir_ / "bound/file"));

        EXPECT_THAT(NamesIn(dir_ / "real"), ElementsAre("file"));
        EXPECT_EQ("abc", dir_.Read("real/file"));
    });
}

TEST_F(RenameMountTest, LeavesEverythingAloneWhenTheDestinationIsFull)
{
    const std::string full = dir_ / "full";
    ASSERT_EQ(0, mkdir(full.c_str(), 0755));
    const std::string source = dir_.Write("source", std::string(100000, 'x'));

    RunWithPrivateMounts([&] {
        MountTmpfs(full, 64 << 10);
        WriteFile(full + "/report", "old");

        EXPECT_FALSE(RenameFileAcrossFs(source, full + "/report"));

        ExpectReports({messages::kRenameWrite(4096, -1, 28)});
        EXPECT_THAT(NamesIn(full), ElementsAre("report"));
        EXPECT_EQ("old", ReadFile(full + "/report"));
        EXPECT_EQ(std::string(100000, 'x'), ReadFile(source));
    });
}

TEST_F(RenameMountTest, ReportsAReadOnlyDestination)
{
    const std::string readOnly = dir_ / "readonly";
    ASSERT_EQ(0, mkdir(readOnly.c_str(), 0755));
    const std::string source = dir_.Write("source", "abc");

    RunWithPrivateMounts([&] {
        MountTmpfs(readOnly, 64 << 10);
        ASSERT_EQ(0, mount("none", readOnly.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
        const std::string destination = readOnly + "/destination";

        EXPECT_FALSE(RenameFileAcrossFs(source, destination));

        ExpectReports({messages::kRenameMkstemp(destination + messages::kAnySuffix, 30)});
        EXPECT_EQ("abc", ReadFile(source));
    });
}

TEST_F(RenameMountTest, IsTrueAndLogsWhenTheSourceIsOnAReadOnlyFileSystem)
{
    const std::string readOnly = dir_ / "readonly";
    ASSERT_EQ(0, mkdir(readOnly.c_str(), 0755));

    RunWithPrivateMounts([&] {
        MountTmpfs(readOnly, 64 << 10);
        const std::string source = readOnly + "/source";
        WriteFile(source, "abc");
        ASSERT_EQ(0, mount("none", readOnly.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr));

        EXPECT_TRUE(RenameFileAcrossFs(source, dir_ / "destination"));

        ExpectReports({messages::kRenameUnlink(source, 30)});
        EXPECT_EQ("abc", dir_.Read("destination"));
        EXPECT_EQ("abc", ReadFile(source));
    });
}

}  // namespace
