// Moves in which a system call fails that cannot be made to fail in reality. The plain rename fails with EXDEV, so that
// both names can be in one directory.
#include "LxFileUtils.h"
#include "support/faults.h"
#include "support/messages.h"
#include "support/orv_test.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

using orv_fileutils::RenameFileAcrossFs;
using ::testing::ElementsAre;

namespace {

class RenameFaultTest : public OrvTest {
protected:
    RenameFaultTest() : source_(dir_.Write("new", std::string(5000, 'n'))), destination_(dir_.Write("report", "old"))
    {
    }

    bool Move() const
    {
        return RenameFileAcrossFs(source_, destination_);
    }

    // The path of the temporary file, as it may appear in a line.
    std::string Temporary() const
    {
        return destination_ + messages::kAnySuffix;
    }

    void ExpectNothingChanged() const
    {
        EXPECT_THAT(dir_.Names(), ElementsAre("new", "report")) << "no report_XXXXXX may be left";
        EXPECT_EQ(std::string(5000, 'n'), dir_.Read("new"));
        EXPECT_EQ("old", dir_.Read("report"));
    }

    void ExpectMoved() const
    {
        EXPECT_THAT(dir_.Names(), ElementsAre("report"));
        EXPECT_EQ(std::string(5000, 'n'), dir_.Read("report"));
    }

    // Moves a source of this mode, where the copy cannot be given it.
    void ExpectFailedChmod(mode_t mode) const
    {
        ASSERT_EQ(0, chmod(source_.c_str(), mode));
        const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
        const ScopedFault fault(Call::kChmod, /*nth=*/1, EPERM);

        EXPECT_FALSE(Move());

        char shown[8];
        std::snprintf(shown, sizeof shown, "%03o", mode & 0777U);
        ExpectReports({messages::kRenameChmod(Temporary(), shown, 1)});
        ASSERT_EQ(0, chmod(source_.c_str(), 0644));
    }

    const std::string source_;
    const std::string destination_;
};

TEST_F(RenameFaultTest, CopiesWhenTheKernelSaysCrossDevice)
{
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);

    EXPECT_TRUE(Move());

    ExpectMoved();
}

TEST_F(RenameFaultTest, PrintsTheErrnoOfTheQuery)
{
    const ScopedFault fault(Call::kStat, /*nth=*/1, EIO);

    EXPECT_FALSE(Move());

    ExpectReports({messages::kRenameStat(source_, 5)});
    ExpectNothingChanged();
}

TEST_F(RenameFaultTest, DoesNotCopyAfterAnyOtherRefusalOfTheRename)
{
    for (const int error : {EPERM, EACCES, EBUSY, EIO, ENOSPC, EROFS, EINVAL, EINTR, ENOENT}) {
        const ScopedFault fault(Call::kRename, /*nth=*/1, error);
        const ScopedTrace trace;

        EXPECT_FALSE(Move());

        EXPECT_EQ(2U, trace.Calls().size()) << "stat and rename alone";
        ExpectReports({messages::kRenameRename(source_, destination_, error)});
    }
    ExpectNothingChanged();
}

TEST_F(RenameFaultTest, RemovesNothingWhenNoTemporaryFileCouldBeMade)
{
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
    const ScopedFault fault(Call::kMkstemp, /*nth=*/1, EEXIST);
    const ScopedTrace trace;

    EXPECT_FALSE(Move());

    EXPECT_EQ("mkstemp(" + destination_ + "_XXXXXX)", trace.Calls().back());
    ExpectReports({messages::kRenameMkstemp(destination_ + "_XXXXXX", 17)});
    ExpectNothingChanged();
}

TEST_F(RenameFaultTest, RemovesTheTemporaryFileWhenTheSourceCannotBeOpened)
{
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
    const ScopedFault fault(Call::kOpen, /*nth=*/1, EMFILE);
    const ScopedTrace trace;

    EXPECT_FALSE(Move());

    const std::vector<std::string>& calls = trace.Calls();
    ASSERT_LE(2U, calls.size());
    EXPECT_EQ("close(<temporary>)", calls[calls.size() - 2]);
    EXPECT_EQ("unlink(<temporary>)", calls[calls.size() - 1]);
    ExpectReports({messages::kRenameOpen(source_, 24)});
    ExpectNothingChanged();
}

TEST_F(RenameFaultTest, FailsAndLogsNothingWhenAReadFails)
{
    for (const int nth : {1, 2, 3}) {
        const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
        const ScopedFault fault(Call::kRead, nth, EIO);

        EXPECT_FALSE(Move());
    }
    ExpectReports({});
    ExpectNothingChanged();
}

TEST_F(RenameFaultTest, DoesNotRetryAnInterruptedRead)
{
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
    const ScopedFault fault(Call::kRead, /*nth=*/1, EINTR);

    EXPECT_FALSE(Move());

    ExpectReports({});
    ExpectNothingChanged();
}

TEST_F(RenameFaultTest, MovesWhatIsLeftOfASourceThatIsTruncatedDuringTheCopy)
{
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
    const ScopedAction truncation(Call::kRead, /*nth=*/2, [this] { ASSERT_EQ(0, truncate(source_.c_str(), 100)); });

    EXPECT_TRUE(Move());

    ExpectReports({});
    EXPECT_THAT(dir_.Names(), ElementsAre("report"));
    EXPECT_EQ(std::string(4096, 'n'), dir_.Read("report")) << "the block that was read before";
}

TEST_F(RenameFaultTest, ClosesSourceThenTemporaryAndRemovesItAfterAFailedRead)
{
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
    const ScopedFault fault(Call::kRead, /*nth=*/1, EIO);
    const ScopedTrace trace;

    EXPECT_FALSE(Move());

    EXPECT_THAT(std::vector<std::string>(trace.Calls().end() - 4, trace.Calls().end()),
                ElementsAre("read(" + source_ + ", 4096) = -1", "close(" + source_ + ")", "close(<temporary>)",
                            "unlink(<temporary>)"));
}

TEST_F(RenameFaultTest, ReportsAFailedWrite)
{
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
    const ScopedFault diskFull(Call::kWrite, /*nth=*/2, ENOSPC);

    EXPECT_FALSE(Move());

    ExpectReports({messages::kRenameWrite(904, -1, 28)});
    ExpectNothingChanged();
}

TEST_F(RenameFaultTest, DoesNotRetryAnInterruptedWrite)
{
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
    const ScopedFault fault(Call::kWrite, /*nth=*/1, EINTR);

    EXPECT_FALSE(Move());

    ExpectReports({messages::kRenameWrite(4096, -1, 4)});
    ExpectNothingChanged();
}

TEST_F(RenameFaultTest, TreatsAShortWriteAsAFailureAndPrintsTheStaleErrno)
{
    for (const std::size_t taken : {std::size_t{0}, std::size_t{1}, std::size_t{4095}}) {
        const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
        const ScopedShortWrite shortWrite(/*nth=*/1, taken);

        EXPECT_FALSE(Move());

        ExpectReports({messages::kRenameWrite(4096, taken, EXDEV)});  // the stale errno of the plain rename
    }
    ExpectNothingChanged();
}

TEST_F(RenameFaultTest, IgnoresTheResultsOfTheTwoCloses)
{
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
    const ScopedFault first(Call::kClose, /*nth=*/1, EIO);
    const ScopedFault second(Call::kClose, /*nth=*/2, EDQUOT);

    EXPECT_TRUE(Move());

    ExpectMoved();
}

TEST_F(RenameFaultTest, ReportsAFailedChmodWithTheNinePermissionBits)
{
    for (const mode_t mode : {0640U, 04755U}) {
        ExpectFailedChmod(mode);
    }
    ExpectNothingChanged();
}

TEST_F(RenameFaultTest, ReportsAFailedChmodWithThreeOctalDigits)
{
    if (!CanReadWithoutPermission()) {
        ORV_SKIP("this user cannot read a file without read permission");
    }
    for (const mode_t mode : {0044U, 0007U, 0000U}) {
        ExpectFailedChmod(mode);
    }
    ExpectNothingChanged();
}

TEST_F(RenameFaultTest, RemovesTheTemporaryFileWhenItCannotBeRenamed)
{
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
    const ScopedFault fault(Call::kRename, /*nth=*/2, EIO);
    const ScopedTrace trace;

    EXPECT_FALSE(Move());

    EXPECT_EQ("unlink(<temporary>)", trace.Calls().back());
    ExpectReports({messages::kRenameRename(Temporary(), destination_, 5)});
    ExpectNothingChanged();
}

TEST_F(RenameFaultTest, DoesNotCopyAgainWhenTheFinalRenameSaysCrossDevice)
{
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
    const ScopedFault fault(Call::kRename, /*nth=*/2, EXDEV);

    EXPECT_FALSE(Move());

    ExpectReports({messages::kRenameRename(Temporary(), destination_, 18)});
    ExpectNothingChanged();
}

TEST_F(RenameFaultTest, IsTrueWhenOnlyTheSourceCouldNotBeRemoved)
{
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
    const ScopedFault fault(Call::kUnlink, /*nth=*/1, EBUSY);
    const ScopedTrace trace;

    EXPECT_TRUE(Move());

    EXPECT_EQ("unlink(" + source_ + ")", trace.Calls().back()) << "there is no temporary file left to remove";
    ExpectReports({messages::kRenameUnlink(source_, 16)});
    EXPECT_THAT(dir_.Names(), ElementsAre("new", "report"));
    EXPECT_EQ(std::string(5000, 'n'), dir_.Read("report"));
}

TEST_F(RenameFaultTest, ReportsThatTheTemporaryFileCouldNotBeRemoved)
{
    dir_.ExpectTemporary("report");
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
    const ScopedFault diskFull(Call::kWrite, /*nth=*/1, ENOSPC);
    const ScopedFault fault(Call::kUnlink, /*nth=*/1, EPERM);

    EXPECT_FALSE(Move());

    ExpectReports({messages::kRenameWrite(4096, -1, 28), messages::kRenameUnlink(Temporary(), 1)});
    EXPECT_EQ(3U, dir_.Names().size()) << "the temporary file is left, as the line says";
    EXPECT_EQ("old", dir_.Read("report"));
    EXPECT_EQ(std::string(5000, 'n'), dir_.Read("new"));
}

TEST_F(RenameFaultTest, ReportsBothTheFailedFinalRenameAndTheFailedCleanUp)
{
    dir_.ExpectTemporary("report");
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
    const ScopedFault rename(Call::kRename, /*nth=*/2, EIO);
    const ScopedFault cleanUp(Call::kUnlink, /*nth=*/1, EROFS);

    EXPECT_FALSE(Move());

    ExpectReports({messages::kRenameRename(Temporary(), destination_, 5), messages::kRenameUnlink(Temporary(), 30)});
}

TEST_F(RenameFaultTest, KeepsASourceThatCannotBeQueriedBeforeItsRemoval)
{
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
    const ScopedFault fault(Call::kLstat, /*nth=*/1, EIO);
    const ScopedTrace trace;

    EXPECT_TRUE(Move());

    EXPECT_EQ("lstat(" + source_ + ")", trace.Calls().back());
    ExpectReports({messages::kRenameUnlink(source_, 5)});
    EXPECT_THAT(dir_.Names(), ElementsAre("new", "report"));
    EXPECT_EQ(std::string(5000, 'n'), dir_.Read("report"));
}

TEST_F(RenameFaultTest, KeepsASourceThatHasBecomeTheMovedFile)
{
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
    const ScopedTrace trace;

    EXPECT_TRUE(RenameFileAcrossFs(source_, source_));

    EXPECT_EQ("lstat(" + source_ + ")", trace.Calls().back());
    ExpectReports({messages::kRenameUnlink(source_, 116)});
    ExpectNothingChanged();
}

TEST_F(RenameFaultTest, KeepsAFileThatWasPutInPlaceOfTheSourceMeanwhile)
{
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
    const ScopedAction exchange(Call::kLstat, /*nth=*/1, [this] {
        dir_.Write("newer", "newer");
        ASSERT_EQ(0, rename((dir_ / "newer").c_str(), source_.c_str()));
    });

    EXPECT_TRUE(Move());

    ExpectReports({messages::kRenameUnlink(source_, 116)});
    EXPECT_EQ("newer", dir_.Read("new"));
    EXPECT_EQ(std::string(5000, 'n'), dir_.Read("report"));
}

TEST_F(RenameFaultTest, ReportsASourceThatSomebodyElseHasRemoved)
{
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
    const ScopedAction race(Call::kLstat, /*nth=*/1, [this] { EXPECT_EQ(0, unlink(source_.c_str())); });

    EXPECT_TRUE(Move());

    ExpectReports({messages::kRenameUnlink(source_, 2)});
    ExpectMoved();
}

TEST_F(RenameFaultTest, RemovesOneOfTwoHardLinksAfterTheOtherWasReplaced)
{
    ASSERT_EQ(0, unlink(destination_.c_str()));
    ASSERT_EQ(0, link(source_.c_str(), destination_.c_str()));
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);

    EXPECT_TRUE(Move());

    ExpectReports({});
    ExpectMoved();
}

TEST_F(RenameFaultTest, FitsATemporaryNameOfAnyLength)
{
    const std::string longName = dir_ / std::string(5000, 'x');
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);

    EXPECT_FALSE(RenameFileAcrossFs(source_, longName));

    ExpectReports({messages::kRenameMkstemp(longName + messages::kAnySuffix, 36)});
    ExpectNothingChanged();
}

}  // namespace
