// Files beyond 2 GiB, before 1901 and beyond 2038, and directories with 64-bit offsets: on 32-bit systems all these
// need 64-bit file offsets and times. The build without them (ORV_LARGE_FILES=OFF) must fail every test of this file.
#include "LxFileUtils.h"
#include "support/messages.h"
#include "support/orv_test.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdint>
#include <list>
#include <string>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr std::int64_t kLargeBytes = std::int64_t{3} << 30;
constexpr std::int64_t kIn2040 = 2208988800;
constexpr std::int64_t kIn1900 = -2208988800;

static_assert(sizeof(off_t) == 8 && sizeof(time_t) == 8, "the tests themselves need both");

class LargeFileTest : public TwoFileSystemsTest {
protected:
    // A sparse file of 3 GiB with one byte at its end.
    static void MakeLarge(const std::string& path)
    {
        const int file = open(path.c_str(), O_CREAT | O_WRONLY, 0644);
        ASSERT_NE(-1, file);
        EXPECT_EQ(1, pwrite(file, "z", 1, kLargeBytes - 1));
        EXPECT_EQ(0, close(file));
    }

    static void ExpectLarge(const std::string& path)
    {
        const int file = open(path.c_str(), O_RDONLY);
        ASSERT_NE(-1, file);
        EXPECT_EQ(kLargeBytes, lseek(file, 0, SEEK_END));
        char last[2] = {};
        EXPECT_EQ(2, pread(file, last, 2, kLargeBytes - 2));
        EXPECT_EQ(std::string("\0z", 2), std::string(last, 2));
        EXPECT_EQ(0, close(file));
    }

    // Whether the second file system, which is in memory, has room for a large copy.
    bool HasRoom() const
    {
        struct statvfs status {};
        return statvfs(other_.Path().c_str(), &status) == 0 &&
               static_cast<std::int64_t>(status.f_bavail) * static_cast<std::int64_t>(status.f_frsize) >
                   kLargeBytes + (kLargeBytes >> 2);
    }
};

TEST_F(LargeFileTest, IsFound)
{
    MakeLarge(dir_ / "large");

    EXPECT_TRUE(orv_fileutils::FileExists((dir_ / "large").c_str()));
}

TEST_F(LargeFileTest, IsMovedOnOneFileSystem)
{
    MakeLarge(dir_ / "large");

    EXPECT_TRUE(orv_fileutils::RenameFileAcrossFs(dir_ / "large", dir_ / "moved"));

    EXPECT_THAT(dir_.Names(), ElementsAre("moved"));
    ExpectLarge(dir_ / "moved");
}

TEST_F(LargeFileTest, IsMovedAcrossFileSystems)
{
    if (!HasRoom()) {
        ORV_SKIP("the second file system has no room for 3 GiB");
    }
    MakeLarge(dir_ / "large");

    EXPECT_TRUE(orv_fileutils::RenameFileAcrossFs(dir_ / "large", other_ / "moved"));

    EXPECT_THAT(dir_.Names(), IsEmpty());
    EXPECT_THAT(other_.Names(), ElementsAre("moved"));
    ExpectLarge(other_ / "moved");
}

TEST_F(LargeFileTest, IsCopied)
{
    if (!HasRoom()) {
        ORV_SKIP("the second file system has no room for 3 GiB");
    }
    MakeLarge(dir_ / "large");

    EXPECT_EQ(0, orv_fileutils::CopyFile(dir_ / "large", other_ / "copy"));

    ExpectLarge(dir_ / "large");
    ExpectLarge(other_ / "copy");
}

// Disk file systems order the names of a directory by a hash, which is the 64-bit offset of an entry.
TEST_F(LargeFileTest, ListsAllNamesOfADirectoryWith64BitOffsets)
{
    std::list<std::string> expected;
    for (int i = 1000; i < 2000; ++i) {
        expected.push_back("name" + std::to_string(i));
        dir_.Write(expected.back(), "");
    }

    std::list<std::string> names;
    EXPECT_TRUE(orv_fileutils::GetDirFileList(dir_.Path().c_str(), nullptr, nullptr, names, false, true, true));

    EXPECT_EQ(expected, names);
}

class FarDateTest : public TwoFileSystemsTest, public ::testing::WithParamInterface<std::int64_t> {
protected:
    // Sets the oldest date that the file system allows: in some it is in 1901.
    static void SetDate(const std::string& path, std::int64_t seconds)
    {
        const timespec times[2] = {{static_cast<time_t>(seconds), 0}, {static_cast<time_t>(seconds), 0}};
        ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
        const time_t kept = StatusOf(path).st_mtim.tv_sec;
        ASSERT_TRUE(seconds < 0 ? kept <= INT32_MIN : kept == seconds) << kept;
    }
};

TEST_P(FarDateTest, DoesNotHideAFile)
{
    const std::string file = other_.Write("file", "abc");
    SetDate(file, GetParam());

    EXPECT_TRUE(orv_fileutils::FileExists(file.c_str()));
}

TEST_P(FarDateTest, IsKeptByAMoveOnOneFileSystem)
{
    const std::string file = other_.Write("file", "abc");
    SetDate(file, GetParam());
    const time_t kept = StatusOf(file).st_mtim.tv_sec;  // some file systems have no dates before 1901

    EXPECT_TRUE(orv_fileutils::RenameFileAcrossFs(file, other_ / "moved"));

    EXPECT_EQ(kept, StatusOf(other_ / "moved").st_mtim.tv_sec);
}

TEST_P(FarDateTest, DoesNotHinderAMoveAcrossFileSystems)
{
    const std::string file = other_.Write("file", "abc");
    SetDate(file, GetParam());
    const std::string old = dir_.Write("moved", "old");
    SetDate(old, GetParam());

    EXPECT_TRUE(orv_fileutils::RenameFileAcrossFs(file, old));

    EXPECT_EQ("abc", dir_.Read("moved"));
    EXPECT_THAT(other_.Names(), IsEmpty());
}

TEST_P(FarDateTest, DoesNotHinderACopy)
{
    const std::string file = other_.Write("file", "abc");
    SetDate(file, GetParam());

    EXPECT_EQ(0, orv_fileutils::CopyFile(file, dir_ / "copy"));

    EXPECT_EQ("abc", dir_.Read("copy"));
}

INSTANTIATE_TEST_SUITE_P(Dates, FarDateTest, ::testing::Values(kIn1900, kIn2040));

}  // namespace
