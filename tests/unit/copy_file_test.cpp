#include "LxFileUtils.h"
#include "support/faults.h"
#include "support/orv_test.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

using orv_fileutils::CopyFile;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

std::string Bytes(std::size_t size)
{
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>(i * 7 + i / 251);
    }
    return bytes;
}

class CopyFileTest : public TwoFileSystemsTest {};

class CopyFileSizeTest : public CopyFileTest, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(CopyFileSizeTest, CopiesEveryByteAndKeepsTheSource)
{
    const std::string bytes = Bytes(GetParam());
    const std::string source = dir_.Write("source", bytes, 0640);

    EXPECT_EQ(0, CopyFile(source, dir_ / "copy"));
    EXPECT_EQ(0, CopyFile(source, other_ / "copy"));

    EXPECT_THAT(dir_.Names(), ElementsAre("copy", "source"));
    EXPECT_TRUE(bytes == dir_.Read("copy"));
    EXPECT_TRUE(bytes == other_.Read("copy"));
    EXPECT_TRUE(bytes == dir_.Read("source"));
    EXPECT_EQ(0640U, ModeOf(source));
}

INSTANTIATE_TEST_SUITE_P(Sizes, CopyFileSizeTest,
                         ::testing::Values(0, 1, 4095, 4096, 4097, 8191, 8192, 65535, 65536, 65537, 100000, 1 << 20));

TEST_F(CopyFileTest, CopiesNulBytesAndCarriageReturnsWithoutTranslation)
{
    const std::string bytes("\0\r\n\x1a\xff\n\r\0", 8);
    const std::string source = dir_.Write("source", bytes);

    EXPECT_EQ(0, CopyFile(source, dir_ / "copy"));

    EXPECT_EQ(bytes, dir_.Read("copy"));
}

TEST_F(CopyFileTest, MakesANewFileWithOrdinaryPermissionsNotThoseOfTheSource)
{
    const ScopedMask mask(0027);
    const std::string source = dir_.Write("source", "abc", 0755);

    EXPECT_EQ(0, CopyFile(source, dir_ / "copy"));

    EXPECT_EQ(0640U, ModeOf(dir_ / "copy"));
}

TEST_F(CopyFileTest, TruncatesALongerDestinationAndKeepsItsInodeAndMode)
{
    const std::string source = dir_.Write("source", "new");
    const std::string destination = dir_.Write("copy", "old and much longer", 0600);
    const struct stat before = StatusOf(destination);

    EXPECT_EQ(0, CopyFile(source, destination));

    EXPECT_EQ("new", dir_.Read("copy"));
    EXPECT_EQ(before.st_ino, StatusOf(destination).st_ino);
    EXPECT_EQ(0600U, ModeOf(destination));
}

TEST_F(CopyFileTest, EmptiesALongerDestinationForAnEmptySource)
{
    const std::string source = dir_.Write("source", "");
    dir_.Write("copy", "old");

    EXPECT_EQ(0, CopyFile(source, dir_ / "copy"));

    EXPECT_EQ("", dir_.Read("copy"));
}

TEST_F(CopyFileTest, EmptiesAFileCopiedOntoItself)
{
    const std::string source = dir_.Write("source", "abc");

    EXPECT_EQ(0, CopyFile(source, source));

    EXPECT_EQ("", dir_.Read("source"));
}

TEST_F(CopyFileTest, FollowsSymbolicLinksOnBothSides)
{
    dir_.Write("target", "abc");
    ASSERT_EQ(0, symlink("target", (dir_ / "link").c_str()));
    dir_.Write("other target", "old");
    ASSERT_EQ(0, symlink("other target", (dir_ / "other link").c_str()));

    EXPECT_EQ(0, CopyFile(dir_ / "link", dir_ / "other link"));

    EXPECT_EQ("abc", dir_.Read("other target"));
    EXPECT_TRUE(S_ISLNK(StatusOf(dir_ / "other link").st_mode));
}

TEST_F(CopyFileTest, CreatesTheTargetOfADanglingLink)
{
    dir_.Write("source", "abc");
    ASSERT_EQ(0, symlink("target", (dir_ / "link").c_str()));

    EXPECT_EQ(0, CopyFile(dir_ / "source", dir_ / "link"));

    EXPECT_EQ("abc", dir_.Read("target"));
}

TEST_F(CopyFileTest, WritesToADeviceAndLogsNothing)
{
    dir_.Write("source", "abc");

    EXPECT_EQ(0, CopyFile(dir_ / "source", "/dev/full")) << "0 does not say that the data arrived";
}

TEST_F(CopyFileTest, RefusesAMissingSourceAndCreatesNothing)
{
    EXPECT_EQ(-1, CopyFile(dir_ / "missing", dir_ / "copy"));
    EXPECT_EQ(-1, CopyFile("", dir_ / "copy"));

    EXPECT_THAT(dir_.Names(), IsEmpty());
}

TEST_F(CopyFileTest, RefusesADirectoryAFifoAndADevice)
{
    dir_.Write("copy", "old");
    ASSERT_EQ(0, mkdir((dir_ / "directory").c_str(), 0755));
    ASSERT_EQ(0, mkfifo((dir_ / "fifo").c_str(), 0644));

    EXPECT_EQ(-1, CopyFile(dir_ / "directory", dir_ / "copy"));
    EXPECT_EQ(-1, CopyFile(dir_ / "fifo", dir_ / "copy"));
    EXPECT_EQ(-1, CopyFile("/dev/zero", dir_ / "copy"));

    EXPECT_EQ("old", dir_.Read("copy"));
}

TEST_F(CopyFileTest, LeavesTheDestinationAloneWhenTheSourceMayNotBeRead)
{
    const std::string source = dir_.Write("source", "abc", 0);
    const std::string destination = dir_.Write("copy", "old", 0666);

    RunAsNobody([&] {
        EXPECT_EQ(-2, CopyFile(source, destination));
        EXPECT_EQ(-2, CopyFile(source, dir_ / "new"));
    });

    EXPECT_THAT(dir_.Names(), ElementsAre("copy", "source"));
    EXPECT_EQ("old", dir_.Read("copy"));
}

TEST_F(CopyFileTest, NoticesThatTheSourceVanishedBeforeTheOpen)
{
    const std::string source = dir_.Write("source", "abc");
    const std::string destination = dir_.Write("copy", "old");
    const ScopedVanishAfterStat vanish(source);

    EXPECT_EQ(-2, CopyFile(source, destination));

    EXPECT_EQ("old", dir_.Read("copy"));
}

TEST_F(CopyFileTest, ReturnsACodeForADestinationThatCannotBeOpened)
{
    const std::string source = dir_.Write("source", "abc");
    ASSERT_EQ(0, mkdir((dir_ / "directory").c_str(), 0755));

    EXPECT_EQ(-3, CopyFile(source, dir_ / "missing/copy"));
    EXPECT_EQ(-3, CopyFile(source, dir_ / "directory"));
    EXPECT_EQ(-3, CopyFile(source, ""));
    EXPECT_EQ(-3, CopyFile(source, std::string(1 << 20, 'x')));

    EXPECT_THAT(dir_.Names(), ElementsAre("directory", "source"));
    EXPECT_EQ("abc", dir_.Read("source"));
}

TEST_F(CopyFileTest, ReturnsACodeForADestinationThatTheCallerMayNotWrite)
{
    const std::string source = dir_.Write("source", "abc");
    const std::string destination = dir_.Write("copy", "old", 0444);

    RunAsNobody([&] { EXPECT_EQ(-3, CopyFile(source, destination)); });

    EXPECT_EQ("old", dir_.Read("copy"));
}

TEST_F(CopyFileTest, ReturnsZeroOnAFullDisk)
{
    if (!CanMount()) {
        ORV_SKIP("no private mounts here: needs root or user namespaces");
    }
    const std::string full = dir_ / "full";
    ASSERT_EQ(0, mkdir(full.c_str(), 0755));
    const std::string bytes = Bytes(200000);
    const std::string source = dir_.Write("source", bytes);

    RunWithPrivateMounts([&] {
        MountTmpfs(full, 64 << 10);

        EXPECT_EQ(0, CopyFile(source, full + "/copy"));

        const std::string copy = ReadFile(full + "/copy");
        EXPECT_GT(bytes.size(), copy.size());
        EXPECT_TRUE(bytes.compare(0, copy.size(), copy) == 0) << "what arrived is the beginning of the source";
        ExpectReports({});
    });
}

TEST_F(CopyFileTest, LeavesPartOfTheFileWhenTheProcessDiesOfTheFileSizeLimit)
{
    const std::string bytes = Bytes(100000);
    const std::string source = dir_.Write("source", bytes);
    const std::string destination = dir_.Write("copy", "old", 0600);

    RunIntoFileSizeLimit(20000, [&] { (void)CopyFile(source, destination); });

    EXPECT_TRUE(bytes.substr(0, 20000) == ReadFile(destination));
    EXPECT_EQ(0600U, ModeOf(destination));
    EXPECT_TRUE(bytes == ReadFile(source));
    EXPECT_THAT(dir_.Names(), ElementsAre("copy", "source"));

    EXPECT_EQ(0, CopyFile(source, destination));

    EXPECT_TRUE(bytes == ReadFile(destination));
}

TEST_F(CopyFileTest, ReturnsZeroAfterAReadError)
{
    const std::string bytes = Bytes(100000);
    const std::string source = dir_.Write("source", bytes);
    const ScopedFault fault(Call::kRead, /*nth=*/2, EIO);

    EXPECT_EQ(0, CopyFile(source, dir_ / "copy"));

    const std::string copy = dir_.Read("copy");
    EXPECT_GT(bytes.size(), copy.size());
    EXPECT_TRUE(bytes.compare(0, copy.size(), copy) == 0);
}

TEST_F(CopyFileTest, ReturnsZeroAfterAFailedClose)
{
    const std::string source = dir_.Write("source", "abc");

    EXPECT_EQ(0, CopyFile(source, "/dev/full")) << "three bytes fail only when the close flushes them";
}

TEST_F(CopyFileTest, QueriesTheSourceOnceAndFirst)
{
    const std::string source = dir_.Write("source", "abc");
    const ScopedTrace trace;

    EXPECT_EQ(0, CopyFile(source, dir_ / "copy"));

    ASSERT_FALSE(trace.Calls().empty());
    EXPECT_EQ("stat(" + source + ")", trace.Calls()[0]);
}

}  // namespace
