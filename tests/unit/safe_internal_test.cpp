// What the sources of safe/ share.
#include "safe/internal.h"

#include "support/faults.h"
#include "support/orv_test.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace {

using orv_safe::internal::Descriptor;
using orv_safe::internal::Uninterrupted;

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

TEST(SafeReportTest, SaysWhatFollows)
{
    orv_safe::internal::Report("CopyFile", "fchmod", "a", EPERM, "the mode is not kept");

    const std::vector<DlogCall> calls = TakeDlogCalls();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(3, calls[0].severity);
    EXPECT_EQ("orv_safe", calls[0].sourceTag);
    EXPECT_EQ("CopyFile: fchmod(a) failed (1, Operation not permitted): the mode is not kept.", calls[0].text);
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

TEST(SafeDescriptorTest, KeepsErrnoIfTheCloseFails)
{
    const int number = open("/", O_RDONLY | O_CLOEXEC);
    ASSERT_NE(-1, number);
    errno = ENOSPC;
    {
        const ScopedFault fault(Call::kClose, 1, EIO);
        const Descriptor descriptor(number);
    }
    EXPECT_EQ(ENOSPC, errno);
}

TEST(SafeDescriptorTest, ClosesAFileWithTheNumberZero)
{
    RunInChild([] {
        ASSERT_EQ(0, close(0));
        {
            const Descriptor descriptor(open("/", O_RDONLY | O_CLOEXEC));
            ASSERT_EQ(0, descriptor);
        }
        EXPECT_EQ(-1, fcntl(0, F_GETFD));
    });
}

TEST(SafeDescriptorTest, ClosesNothingIfThereIsNoFile)
{
    const ScopedTrace trace;
    {
        const Descriptor descriptor(-1);
    }
    EXPECT_THAT(trace.Calls(), ::testing::IsEmpty());
}

TEST(SafeDescriptorTest, SwapsItsFile)
{
    Descriptor one(open("/", O_RDONLY | O_CLOEXEC));
    Descriptor other(-1);
    const int number = one;

    one.Swap(other);

    EXPECT_EQ(-1, one);
    EXPECT_EQ(number, other);
}

TEST(SafeUninterruptedTest, RepeatsACallUntilNoSignalInterruptsIt)
{
    int calls = 0;

    const int result = Uninterrupted([&calls] {
        ++calls;
        errno = EINTR;
        return calls < 3 ? -1 : 7;
    });

    EXPECT_EQ(7, result);
    EXPECT_EQ(3, calls);
}

TEST(SafeUninterruptedTest, ReturnsAnyOtherFailureAtOnce)
{
    int calls = 0;

    const int result = Uninterrupted([&calls] {
        ++calls;
        errno = EIO;
        return -1;
    });

    EXPECT_EQ(-1, result);
    EXPECT_EQ(1, calls);
}

}  // namespace
