// What the sources of safe/ share.
#include "safe/internal.h"

#include "support/orv_test.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace {

using orv_safe::internal::Descriptor;

TEST(SafeReportTest, NamesFunctionCallPathNumberAndText)
{
    orv_safe::internal::Report("CopyFile", "open", "/etc/no%s", ENOENT);

    const std::vector<DlogCall> calls = TakeDlogCalls();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(3, calls[0].severity);
    EXPECT_EQ("orv_safe", calls[0].sourceTag);
    EXPECT_EQ("CopyFile: open(/etc/no%s) failed (2, No such file or directory).", calls[0].text);
}

TEST(SafeReportTest, GivesTheNumberOfAnErrorWithoutAText)
{
    orv_safe::internal::Report("MoveFile", "rename", "a", 4711);

    const std::vector<DlogCall> calls = TakeDlogCalls();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ("MoveFile: rename(a) failed (4711, Unknown error 4711).", calls[0].text);
}

TEST(SafeDescriptorTest, ClosesItsFileAndKeepsErrno)
{
    const int number = open("/", O_RDONLY | O_CLOEXEC);
    ASSERT_NE(-1, number);
    errno = ENOSPC;
    {
        const Descriptor descriptor(number);
        EXPECT_EQ(number, descriptor);
    }
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ(-1, fcntl(number, F_GETFD));
    EXPECT_EQ(EBADF, errno);
}

TEST(SafeDescriptorTest, ClosesNothingIfThereIsNoFile)
{
    errno = ENOSPC;
    {
        const Descriptor descriptor(-1);
    }
    EXPECT_EQ(ENOSPC, errno);
}

}  // namespace
