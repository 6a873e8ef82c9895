#include "LxFileUtils.h"
#include "support/faults.h"
#include "support/orv_test.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

using orv_fileutils::FileExists;

namespace {

class FileExistsTest : public OrvTest {};

TEST_F(FileExistsTest, IsTrueForARegularFile)
{
    const std::string file = dir_.Write("file", "abc");

    EXPECT_TRUE(FileExists(file.c_str()));
}

TEST_F(FileExistsTest, IsTrueForAnEmptyFileThatNobodyMayRead)
{
    const std::string file = dir_.Write("file", "", 0);

    EXPECT_TRUE(FileExists(file.c_str()));
}

TEST_F(FileExistsTest, FollowsASymbolicLink)
{
    dir_.Write("file", "abc");
    ASSERT_EQ(0, symlink("file", (dir_ / "link").c_str()));

    EXPECT_TRUE(FileExists((dir_ / "link").c_str()));
}

TEST_F(FileExistsTest, IsFalseForADanglingLink)
{
    ASSERT_EQ(0, symlink("nowhere", (dir_ / "link").c_str()));

    EXPECT_FALSE(FileExists((dir_ / "link").c_str()));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(FileExistsTest, IsFalseForADirectory)
{
    EXPECT_FALSE(FileExists(dir_.Path().c_str()));
}

TEST_F(FileExistsTest, IsFalseForAFileWithATrailingSlash)
{
    const std::string file = dir_.Write("file", "abc");

    EXPECT_FALSE(FileExists((file + "/").c_str()));
    EXPECT_EQ(ENOTDIR, errno);
}

TEST_F(FileExistsTest, IsFalseForAFifo)
{
    ASSERT_EQ(0, mkfifo((dir_ / "fifo").c_str(), 0600));

    EXPECT_FALSE(FileExists((dir_ / "fifo").c_str()));
}

TEST_F(FileExistsTest, IsFalseForACharacterDevice)
{
    EXPECT_FALSE(FileExists("/dev/null"));
}

TEST_F(FileExistsTest, IsFalseForASocket)
{
    const std::string path = dir_ / "socket";
    ASSERT_EQ(0, mknod(path.c_str(), S_IFSOCK | 0600, 0)) << std::strerror(errno);

    EXPECT_FALSE(FileExists(path.c_str()));
}

TEST_F(FileExistsTest, IsFalseForAnEmptyPath)
{
    EXPECT_FALSE(FileExists(""));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(FileExistsTest, IsFalseForAPathOfAMegabyte)
{
    EXPECT_FALSE(FileExists(std::string(1 << 20, 'x').c_str()));
    EXPECT_EQ(ENAMETOOLONG, errno);
}

TEST_F(FileExistsTest, IsFalseWhereTheCallerMayNotSearch)
{
    ASSERT_EQ(0, mkdir((dir_ / "closed").c_str(), 0700));
    const std::string file = dir_.Write("closed/file", "abc");
    ASSERT_EQ(0, chmod((dir_ / "closed").c_str(), 0));

    RunAsNobody([&] {
        EXPECT_FALSE(FileExists(file.c_str()));
        EXPECT_EQ(EACCES, errno);
    });
    EXPECT_EQ(0, chmod((dir_ / "closed").c_str(), 0700)) << "so that its owner can remove it";
}

TEST_F(FileExistsTest, LeavesErrnoAsTheFailedQuerySetIt)
{
    const std::string file = dir_.Write("file", "abc");
    const ScopedFault fault(Call::kStat, /*nth=*/1, EIO);

    EXPECT_FALSE(FileExists(file.c_str()));
    EXPECT_EQ(EIO, errno);
}

TEST_F(FileExistsTest, MakesOneStatusCall)
{
    const std::string file = dir_.Write("file", "abc");
    const ScopedTrace trace;

    EXPECT_TRUE(FileExists(file.c_str()));
    EXPECT_EQ(std::vector<std::string>{"stat(" + file + ")"}, trace.Calls());
}

}  // namespace
