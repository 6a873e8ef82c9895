// Tests the substitute that keeps the last reports in memory.

#include "orv/dlog_memory.h"
#include "LxFileUtils.h"
#include "orv/dlog.h"
#include "support/new_fault.h"

#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

void Report(std::size_t number)
{
    __dlog_printf(3, "tag", "%zu", number);
}

// Of this program, the last object that is destroyed: it is made before main, so before the log's own objects.
struct LastObject {
    bool reports = false;

    ~LastObject()
    {
        if (reports) {
            Report(7);
            const bool areKept = dlog_memory::Lines() == std::vector<std::string>{"[3] tag: 1", "[3] tag: 7"};
            std::_Exit(areKept ? 0 : 1);
        }
    }
} lastObject;

// The log as the program finds it.
struct AtStart {
    unsigned long total = dlog_memory::Total();
    std::size_t limit = 0;

    AtStart()
    {
        for (std::size_t number = 0; number < 1000; ++number) {
            Report(number);
        }
        limit = dlog_memory::Lines().size();
    }
};

const AtStart atStart;

class DlogMemoryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        dlog_memory::SetLimit(dlog_memory::kDefaultLimit);
        dlog_memory::Clear();
    }
};

TEST_F(DlogMemoryTest, KeepsALineForEachReportInOrder)
{
    __dlog_printf(3, "LxFileUtils.cpp", "%s: stat(%s) failed (%i).", "RenameFileAcrossFs", "a", 2);
    __dlog_printf(-1, "b", "second %zi %03o %c", static_cast<ssize_t>(-1), 07U, '=');

    EXPECT_THAT(dlog_memory::Lines(),
                ElementsAre("[3] LxFileUtils.cpp: RenameFileAcrossFs: stat(a) failed (2).", "[-1] b: second -1 007 ="));
    EXPECT_EQ(2U, dlog_memory::Total());
}

TEST_F(DlogMemoryTest, KeepsWhatTheLibraryReports)
{
    std::list<std::string> names;

    EXPECT_FALSE(orv_fileutils::GetDirFileList("", nullptr, nullptr, names, false, true, true));

    EXPECT_THAT(dlog_memory::Lines(), ElementsAre("[3] LxFileUtils.cpp: GetDirFileList: No directory specified."));
}

TEST_F(DlogMemoryTest, EscapesControlCharactersAndBackslashes)
{
    __dlog_printf(3, "t\ng", "%s", "a\n[3] forged\\\x1b\x7f");

    EXPECT_THAT(dlog_memory::Lines(), ElementsAre("[3] t\\ng: a\\n[3] forged\\\\\\x1b\\x7f"));
}

TEST_F(DlogMemoryTest, EscapesANulInTheMessage)
{
    __dlog_printf(3, "tag", "a%cb", '\0');

    EXPECT_THAT(dlog_memory::Lines(), ElementsAre("[3] tag: a\\x00b"));
}

TEST_F(DlogMemoryTest, DropsTheOldestLinesBeyondTheLimitButCountsThem)
{
    dlog_memory::SetLimit(2);

    for (std::size_t number = 1; number <= 3; ++number) {
        Report(number);
    }

    EXPECT_THAT(dlog_memory::Lines(), ElementsAre("[3] tag: 2", "[3] tag: 3"));
    EXPECT_EQ(3U, dlog_memory::Total());
}

TEST_F(DlogMemoryTest, KeepsAHundredLinesByDefault)
{
    EXPECT_EQ(100U, atStart.limit);
    for (std::size_t number = 0; number < 101; ++number) {
        Report(number);
    }

    const std::vector<std::string> lines = dlog_memory::Lines();
    ASSERT_EQ(100U, lines.size());
    EXPECT_EQ("[3] tag: 1", lines.front());
    EXPECT_EQ("[3] tag: 100", lines.back());
}

TEST_F(DlogMemoryTest, CountsFromZero)
{
    EXPECT_EQ(0U, atStart.total);
}

TEST_F(DlogMemoryTest, ALowerLimitDropsOldLinesAtOnceAndAHigherOneRestoresNone)
{
    for (std::size_t number = 1; number <= 3; ++number) {
        Report(number);
    }

    dlog_memory::SetLimit(1);
    dlog_memory::SetLimit(10);

    EXPECT_THAT(dlog_memory::Lines(), ElementsAre("[3] tag: 3"));
}

TEST_F(DlogMemoryTest, ALimitOf0KeepsNoLinesButCounts)
{
    dlog_memory::SetLimit(0);

    Report(1);

    EXPECT_THAT(dlog_memory::Lines(), IsEmpty());
    EXPECT_EQ(1U, dlog_memory::Total());
}

TEST_F(DlogMemoryTest, ClearResetsLinesAndCountButNotTheLimit)
{
    dlog_memory::SetLimit(1);
    Report(1);

    dlog_memory::Clear();

    EXPECT_THAT(dlog_memory::Lines(), IsEmpty());
    EXPECT_EQ(0U, dlog_memory::Total());
    Report(2);
    Report(3);
    EXPECT_THAT(dlog_memory::Lines(), ElementsAre("[3] tag: 3"));
}

TEST_F(DlogMemoryTest, CutsALineThatIsLongerThanTheLimit)
{
    const std::string start = "[3] tag: ";
    const std::string fits(dlog_memory::kMaxLineBytes - start.size(), 'm');

    __dlog_printf(3, "tag", "%s", fits.c_str());
    __dlog_printf(3, "tag", "%sx", fits.c_str());

    EXPECT_THAT(dlog_memory::Lines(), ElementsAre(start + fits, start + fits.substr(0, fits.size() - 3) + "..."));
}

TEST_F(DlogMemoryTest, HasTheLimitsThatTheHeaderPromises)
{
    EXPECT_EQ(100U, dlog_memory::kDefaultLimit);
    EXPECT_EQ(16384U, dlog_memory::kMaxLineBytes);
}

TEST_F(DlogMemoryTest, NeedsNoMoreMemoryThanLinesOfTheGreatestSize)
{
    const std::size_t kPageBytes = 4096;  // to which some libraries round the size of a string
    const std::string longest(dlog_memory::kMaxLineBytes - std::string("[3] tag: ").size(), 'm');
    const std::string tooLong(1 << 20, 'm');
    const std::size_t before = BytesInUse();

    __dlog_printf(3, "tag", "%s", longest.c_str());
    __dlog_printf(3, "tag", "%s", tooLong.c_str());

    EXPECT_LE(BytesInUse() - before, 2 * (dlog_memory::kMaxLineBytes + kPageBytes));
}

TEST_F(DlogMemoryTest, PreservesErrno)
{
    errno = EXDEV;
    __dlog_printf(3, "tag", "%ls", L"\x7FFFFFFF");  // printf itself sets EILSEQ

    EXPECT_EQ(EXDEV, errno);
}

TEST_F(DlogMemoryTest, AcceptsReportsOfSeveralThreadsWhileOthersRead)
{
    const std::size_t kThreads = 4;
    const std::size_t kLines = 500;
    dlog_memory::SetLimit(kThreads * kLines);

    std::vector<std::thread> threads;
    for (std::size_t thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([thread] {
            for (std::size_t line = 0; line < kLines; ++line) {
                Report(thread * kLines + line);
                EXPECT_LE(1U, dlog_memory::Lines().size());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    const std::vector<std::string> lines = dlog_memory::Lines();
    std::set<std::string> expected;
    for (std::size_t number = 0; number < kThreads * kLines; ++number) {
        expected.insert("[3] tag: " + std::to_string(number));
    }
    EXPECT_EQ(expected, std::set<std::string>(lines.begin(), lines.end()));
    EXPECT_EQ(expected.size(), lines.size());
    EXPECT_EQ(expected.size(), dlog_memory::Total());
}

// A thread for each function: so no lock of another function orders what this one does, and ThreadSanitizer finds a
// function that takes none.
TEST_F(DlogMemoryTest, EachFunctionMayRunWhileOthersDo)
{
    const std::vector<std::function<void(std::size_t)>> functions = {
        Report,
        Report,
        [](std::size_t) { EXPECT_GE(200U, dlog_memory::Lines().size()); },
        [](std::size_t) { EXPECT_GE(1000U, dlog_memory::Total()); },
        [](std::size_t) { dlog_memory::Clear(); },
        [](std::size_t round) { dlog_memory::SetLimit(round % 200); },
    };

    std::vector<std::thread> threads;
    for (const auto& function : functions) {
        threads.emplace_back([&function] {
            for (std::size_t round = 0; round < 500; ++round) {
                function(round);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    dlog_memory::Clear();
    EXPECT_THAT(dlog_memory::Lines(), IsEmpty());
    EXPECT_EQ(0U, dlog_memory::Total());
}

TEST_F(DlogMemoryTest, CountsReportsThatAreLostForLackOfMemory)
{
    const std::string text(100, 't');
    bool fired = true;
    int failures = 0;
    for (int nth = 1; fired; ++nth) {
        dlog_memory::Clear();
        {
            const ScopedNewFault fault(nth);
            errno = EXDEV;
            __dlog_printf(3, "tag", "%s", text.c_str());
            fired = fault.Fired();
        }
        EXPECT_EQ(EXDEV, errno) << "allocation " << nth;
        EXPECT_EQ(fired ? 0U : 1U, dlog_memory::Lines().size()) << "allocation " << nth;
        EXPECT_EQ(1U, dlog_memory::Total()) << "allocation " << nth;
        failures += fired ? 1 : 0;
    }
    EXPECT_GE(failures, 2) << "the message and the line are allocated";
}

TEST_F(DlogMemoryTest, AcceptsReportsUntilTheProcessEnds)
{
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        mallopt(M_PERTURB, 0x5a);  // so that what is destroyed does not look as before
        Report(1);
        lastObject.reports = true;
        std::exit(2);
    }
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0)) << std::strerror(errno);

    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
}

}  // namespace
