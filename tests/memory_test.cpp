// What must not allocate, and what happens when memory runs out.
#include "LxFileUtils.h"
#include "LxStringUtils.h"
#include "support/faults.h"
#include "support/heap.h"
#include "support/messages.h"
#include "support/orv_test.h"

#include <cerrno>
#include <string>

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

}  // namespace
