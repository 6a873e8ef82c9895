// Tests the claims of docs/security.md: what other users achieve by exchanging files between two system calls, by text
// and by signals. planted_page_test.cpp tests the claims about the name of the temporary page.
#include "LxFileUtils.h"
#include "support/faults.h"
#include "support/messages.h"
#include "support/oracle.h"
#include "support/orv_test.h"

#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

using ::testing::HasSubstr;

// Replaces `path` by a symbolic link to `target`, as anybody can who may write to its directory.
void ReplaceByLink(const std::string& path, const std::string& target)
{
    ASSERT_EQ(0, remove(path.c_str())) << path;
    ASSERT_EQ(0, symlink(target.c_str(), path.c_str())) << path;
}

class SharedDirectoryTest : public TwoFileSystemsTest {
protected:
    // Returns the only temporary copy of "destination" on the other file system.
    std::string TemporaryCopy() const
    {
        std::string copy;
        for (const std::string& name : other_.Names()) {
            if (name.compare(0, 12, "destination_") == 0) {
                copy = other_ / name;
            }
        }
        EXPECT_NE("", copy);
        return copy;
    }
};

TEST_F(SharedDirectoryTest, AMoveCopiesTheFileOfALinkThatReplacedTheSourceAfterTheTest)
{
    const std::string source = dir_.Write("source", "harmless", 0644);
    const std::string secret = dir_.Write("secret", "secret", 0600);

    const ScopedAction exchange(Call::kOpen, 1, [&] { ReplaceByLink(source, secret); });
    EXPECT_TRUE(orv_fileutils::RenameFileAcrossFs(source, other_ / "destination"));

    EXPECT_EQ("secret", other_.Read("destination"));
    EXPECT_EQ(0644U, ModeOf(other_ / "destination"));
    EXPECT_EQ("secret", dir_.Read("secret"));
    EXPECT_EQ(0600U, ModeOf(secret));
    EXPECT_EQ(std::vector<std::string>{"secret"}, dir_.Names());
    EXPECT_EQ(std::vector<std::string>{"destination"}, other_.Names());
}

TEST_F(SharedDirectoryTest, AMoveSetsTheModeOfTheFileOfALinkThatReplacedItsTemporaryCopy)
{
    const std::string source = dir_.Write("source", "abc", 0666);
    const std::string secret = dir_.Write("secret", "secret", 0600);

    const ScopedAction exchange(Call::kChmod, 1, [&] { ReplaceByLink(TemporaryCopy(), secret); });
    EXPECT_TRUE(orv_fileutils::RenameFileAcrossFs(source, other_ / "destination"));

    EXPECT_EQ(0666U, ModeOf(secret));
    EXPECT_EQ("secret", dir_.Read("secret"));
    EXPECT_TRUE(S_ISLNK(StatusOf(other_ / "destination").st_mode));
    EXPECT_EQ(std::vector<std::string>{"secret"}, dir_.Names());
    EXPECT_EQ(std::vector<std::string>{"destination"}, other_.Names());
}

TEST_F(SharedDirectoryTest, OnlyTheOwnerMayReadATemporaryCopyUntilItIsComplete)
{
    const std::string bytes(10000, 'x');
    const std::string source = dir_.Write("source", bytes, 0666);

    const ScopedAction look(Call::kChmod, 1, [&] {
        EXPECT_EQ(0600U, ModeOf(TemporaryCopy()));
        EXPECT_EQ(bytes, ReadFile(TemporaryCopy()));
    });
    EXPECT_TRUE(orv_fileutils::RenameFileAcrossFs(source, other_ / "destination"));

    EXPECT_EQ(0666U, ModeOf(other_ / "destination"));
    EXPECT_EQ(std::vector<std::string>{"destination"}, other_.Names());
}

TEST_F(SharedDirectoryTest, CopyFileReadsTheFileThatALinkAtTheSourceLeadsTo)
{
    const std::string secret = dir_.Write("secret", "secret", 0600);
    ASSERT_EQ(0, symlink(secret.c_str(), (dir_ / "source").c_str()));

    EXPECT_EQ(0, orv_fileutils::CopyFile(dir_ / "source", dir_ / "copy"));

    EXPECT_EQ("secret", dir_.Read("copy"));
    EXPECT_TRUE(S_ISLNK(StatusOf(dir_ / "source").st_mode));
}

TEST_F(SharedDirectoryTest, CopyFileOverwritesTheFileThatALinkAtTheDestinationLeadsTo)
{
    const std::string source = dir_.Write("source", "abc");
    const std::string victim = dir_.Write("victim", "precious");
    ASSERT_EQ(0, symlink(victim.c_str(), (dir_ / "copy").c_str()));

    EXPECT_EQ(0, orv_fileutils::CopyFile(source, dir_ / "copy"));

    EXPECT_EQ("abc", dir_.Read("victim"));
    EXPECT_TRUE(S_ISLNK(StatusOf(dir_ / "copy").st_mode));
}

TEST_F(SharedDirectoryTest, MakeDirPathSetsTheModeOfTheFileOfALinkThatReplacedTheNewDirectory)
{
    const std::string path = dir_ / "new";
    const std::string secret = dir_.Write("secret", "secret", 0600);

    const ScopedAction exchange(Call::kChmod, 1, [&] { ReplaceByLink(path, secret); });
    EXPECT_TRUE(orv_fileutils::MakeDirPath(path.c_str(), 0777, /*applyMode=*/true));

    EXPECT_EQ(0777U, ModeOf(secret));
}

TEST_F(SharedDirectoryTest, MakeDirPathMakesTheLowerLevelsWhereALinkInPlaceOfAMissingOneLeads)
{
    const std::string elsewhere = dir_ / "elsewhere";
    ASSERT_EQ(0, mkdir(elsewhere.c_str(), 0755));

    const ScopedAction plant(Call::kMkdir, 1, [&] { ASSERT_EQ(0, symlink(elsewhere.c_str(), (dir_ / "a").c_str())); });
    EXPECT_TRUE(orv_fileutils::MakeDirPath((dir_ / "a/b/c").c_str(), 0755, /*applyMode=*/false));

    EXPECT_EQ((std::vector<std::string>{"a", "elsewhere"}), dir_.Names());
    EXPECT_EQ(std::vector<std::string>{"b"}, NamesIn(elsewhere));
    EXPECT_EQ(std::vector<std::string>{"c"}, NamesIn(elsewhere + "/b"));
}

class ForeignTextTest : public OrvTest {};

TEST_F(ForeignTextTest, AScriptInACellIsAScriptInThePage)
{
    std::vector<std::string> cells = {"name", "<script>alert(1)</script>"};
    const std::string table = dir_.Write("table", orv_fileutils::AddTextFileFormattedRow(cells) + "\n");

    orv_fileutils::GenHtmlPagefromTextFile(table.c_str(), (dir_ / "page").c_str());

    EXPECT_THAT(dir_.Read("page"), HasSubstr("<td><script>alert(1)</script></td>"));
}

TEST_F(ForeignTextTest, APathIsLoggedUnchangedAndIsNeverAFormat)
{
    const std::string path = dir_ / "a\n[3] LxFileUtils.cpp: forged \x1b[2J %s%n";

    EXPECT_FALSE(orv_fileutils::RenameFileAcrossFs(path, dir_ / "destination"));

    ExpectReports({messages::kRenameStat(path, 2)});
}

std::atomic<int> signals{0};

// While it exists, this thread gets a signal every few milliseconds. The handler does nothing. It stays installed,
// because a late signal would end the program.
class SignalStorm {
public:
    explicit SignalStorm(int flags)
    {
        signals = 0;
        struct sigaction action {};
        action.sa_handler = [](int) { ++signals; };
        action.sa_flags = flags;
        EXPECT_EQ(0, sigaction(SIGALRM, &action, nullptr));
        const struct timeval interval {
            0, 5000
        };
        const struct itimerval timer {
            interval, interval
        };
        EXPECT_EQ(0, setitimer(ITIMER_REAL, &timer, nullptr));
    }

    ~SignalStorm()
    {
        const struct itimerval off {
        };
        EXPECT_EQ(0, setitimer(ITIMER_REAL, &off, nullptr));
    }

    SignalStorm(const SignalStorm&) = delete;
    SignalStorm& operator=(const SignalStorm&) = delete;
};

// There is a FIFO at the name of the temporary page.
class PlantedFifoTest : public OrvTest {
protected:
    PlantedFifoTest()
        : temporary_(oracle::OwnTemporaryPage()),
          table_(dir_.Write("table", "Port 1:up;\n")),
          page_(dir_.Write("page", "old"))
    {
    }

    // A file system without FIFOs ends the test here: without the FIFO it would wait for ever.
    void SetUp() override
    {
        ASSERT_EQ(0, mkfifo(temporary_.c_str(), 0600));
    }

    void ExpectRefusal() const
    {
        ExpectReports({messages::kRenameNotRegular(temporary_, "1000"), messages::kPageMove(temporary_, page_)});
        EXPECT_EQ("old", ReadFile(page_));
        EXPECT_EQ(0, unlink(temporary_.c_str()));
    }

    const std::string temporary_;
    const std::string table_;
    const std::string page_;
};

TEST_F(PlantedFifoTest, ASignalWithoutRestartEndsTheWaitForAReader)
{
    {
        const SignalStorm storm(/*flags=*/0);
        orv_fileutils::GenHtmlPagefromTextFile(table_.c_str(), page_.c_str());
    }

    EXPECT_LE(1, signals);
    ExpectRefusal();
}

TEST_F(PlantedFifoTest, ASignalWithRestartDoesNotEndTheWaitForAReader)
{
    std::string leaked;
    sigset_t alarm;
    ASSERT_EQ(0, sigemptyset(&alarm));
    ASSERT_EQ(0, sigaddset(&alarm, SIGALRM));
    ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &alarm, nullptr));
    std::thread reader([&] {
        while (signals < 10) {
            std::this_thread::yield();
        }
        leaked = ReadFile(temporary_);
    });
    ASSERT_EQ(0, pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr));

    {
        const SignalStorm storm(SA_RESTART);
        orv_fileutils::GenHtmlPagefromTextFile(table_.c_str(), page_.c_str());
    }
    reader.join();

    EXPECT_THAT(leaked, HasSubstr("<td>Port 1</td><td>up</td>"));
    ExpectRefusal();
}

}  // namespace
