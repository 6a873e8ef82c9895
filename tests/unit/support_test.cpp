// The support of the tests itself: what it promises to notice, it notices.
#include "support/oracle.h"
#include "support/orv_test.h"

#include "gtest/gtest-spi.h"

#include <sys/wait.h>
#include <unistd.h>

namespace {

TEST(TempDirTest, FailsATestThatLeavesATemporaryCopy)
{
    EXPECT_NONFATAL_FAILURE(
        {
            const TempDir dir("/var/tmp");
            dir.Write("report_a1B2c3", "");
        },
        "report_??????");
}

TEST(TempDirTest, AcceptsATemporaryCopyThatWasDeclared)
{
    TempDir dir("/var/tmp");
    dir.ExpectTemporary("report");

    dir.Write("report_a1B2c3", "");
    dir.Write("report", "");
    dir.Write("app_config.txt", "");
}

TEST(TempDirTest, FailsATestThatDeclaresATemporaryCopyButLeavesNone)
{
    EXPECT_NONFATAL_FAILURE(TempDir("/var/tmp").ExpectTemporary("report"), "report_??????");
}

TEST(TempDirTest, FailsATestThatLeavesASecondTemporaryCopy)
{
    EXPECT_NONFATAL_FAILURE(
        {
            TempDir dir("/var/tmp");
            dir.ExpectTemporary("report");
            dir.Write("report_a1B2c3", "");
            dir.Write("report_d4E5f6", "");
        },
        "report_??????");
}

TEST(TempDirTest, FailsATestThatLeavesThePageUnderConstructionAndRemovesIt)
{
    EXPECT_NONFATAL_FAILURE(
        {
            const TempDir dir("/var/tmp");
            WriteFile(oracle::OwnTemporaryPage(), "");
        },
        "TextToHtml_");
    EXPECT_FALSE(Exists(oracle::OwnTemporaryPage()));
}

TEST(TempDirTest, RemovesThePageThatAnEarlierProcessWithTheSameIdLeft)
{
    const pid_t child = fork();
    if (child == 0) {
        WriteFile(oracle::OwnTemporaryPage(), "");
        const bool isWritten = Exists(oracle::OwnTemporaryPage());
        {
            const TempDir dir("/var/tmp");
        }
        _exit(isWritten && !HasFailure() ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
}

TEST(ExpectReportsTest, FailsForALineThatWasNotExpectedAndForOneThatDidNotCome)
{
    EXPECT_NONFATAL_FAILURE(ExpectReports({messages::kListNoDirectory()}), "No directory specified.");
}

}  // namespace
