// Tests the substitute that writes reports to standard error.

#include "orv/dlog.h"
#include "support/new_fault.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

using ::testing::ElementsAre;

namespace {

// Makes `descriptor` the standard error of this process while it exists.
class ScopedStderr {
public:
    explicit ScopedStderr(int descriptor) : saved_(dup(STDERR_FILENO))
    {
        EXPECT_EQ(STDERR_FILENO, dup2(descriptor, STDERR_FILENO)) << std::strerror(errno);
    }
    ~ScopedStderr()
    {
        EXPECT_EQ(STDERR_FILENO, dup2(saved_, STDERR_FILENO));
        close(saved_);
    }
    ScopedStderr(const ScopedStderr&) = delete;
    ScopedStderr& operator=(const ScopedStderr&) = delete;

private:
    int saved_;
};

// Returns what `body` writes to standard error, one string for each write, because a packet is read as it was written.
// Only for short lines, which the socket stores until they are read.
template <typename Body>
std::vector<std::string> WritesOf(Body body)
{
    int ends[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends)) << std::strerror(errno);
    {
        const ScopedStderr packets(ends[0]);
        body();
    }
    close(ends[0]);
    std::vector<std::string> writes;
    char packet[65536];
    for (ssize_t bytes; (bytes = read(ends[1], packet, sizeof packet)) > 0;) {
        writes.emplace_back(packet, static_cast<std::size_t>(bytes));
    }
    close(ends[1]);
    return writes;
}

// Returns what `body` writes to standard error if that is a file.
template <typename Body>
std::string FileOf(Body body)
{
    char path[] = "/var/tmp/orv_test.XXXXXX";
    const int descriptor = mkstemp(path);
    EXPECT_NE(-1, descriptor) << std::strerror(errno);
    {
        const ScopedStderr file(descriptor);
        body();
    }
    close(descriptor);
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    EXPECT_EQ(0, unlink(path));
    return bytes.str();
}

const char kLostLine[] = "dlog: out of memory, a report was lost\n";

TEST(DlogStderrTest, WritesSeverityTagAndMessageAsOneLineInOneWrite)
{
    const auto writes = WritesOf([] { __dlog_printf(3, "LxFileUtils.cpp", "%s: No directory specified.", "GetDir"); });

    EXPECT_THAT(writes, ElementsAre("[3] LxFileUtils.cpp: GetDir: No directory specified.\n"));
}

TEST(DlogStderrTest, WritesEachReportSeparately)
{
    const auto writes = WritesOf([] {
        __dlog_printf(0, "a", "first");
        __dlog_printf(-1, "b", "second");
    });

    EXPECT_THAT(writes, ElementsAre("[0] a: first\n", "[-1] b: second\n"));
}

TEST(DlogStderrTest, ExpandsEveryConversionThatTheLibraryUses)
{
    const auto writes = WritesOf([] {
        const ssize_t error = -1;
        __dlog_printf(3, "tag", "%s %d %i %u %x %03o %zi %c 100%%", "text", -17, -28, 4000000000U, 0xc000U, 07U, error,
                      '=');
    });

    EXPECT_THAT(writes, ElementsAre("[3] tag: text -17 -28 4000000000 c000 007 -1 = 100%\n"));
}

TEST(DlogStderrTest, WritesAnEmptyMessage)
{
    const auto writes = WritesOf([] { __dlog_printf(3, "tag", "%s", ""); });

    EXPECT_THAT(writes, ElementsAre("[3] tag: \n"));
}

TEST(DlogStderrTest, EscapesALineFeedSoThatAPathCannotForgeALine)
{
    const auto writes = WritesOf([] { __dlog_printf(3, "tag", "open(%s)\n", "a\n[3] LxFileUtils.cpp: forged"); });

    EXPECT_THAT(writes, ElementsAre("[3] tag: open(a\\n[3] LxFileUtils.cpp: forged)\\n\n"));
}

TEST(DlogStderrTest, EscapesABackslashSoThatAnEscapeCannotBeForged)
{
    const auto writes = WritesOf([] { __dlog_printf(3, "tag", "%s", "a\\nb"); });

    EXPECT_THAT(writes, ElementsAre("[3] tag: a\\\\nb\n"));
}

TEST(DlogStderrTest, EscapesTheSourceTagToo)
{
    const auto writes = WritesOf([] { __dlog_printf(3, "t\na\\g", "message"); });

    EXPECT_THAT(writes, ElementsAre("[3] t\\na\\\\g: message\n"));
}

TEST(DlogStderrTest, EscapesControlCharactersInHexadecimalAndPassesEveryOtherByte)
{
    const char digits[] = "0123456789abcdef";
    for (int value = 1; value < 256; ++value) {
        const std::string byte(1, static_cast<char>(value));
        std::string expected = byte;
        if (value == '\n') {
            expected = "\\n";
        } else if (value == '\\') {
            expected = "\\\\";
        } else if (value < ' ' || (value >= 127 && value < 160)) {
            expected = std::string("\\x") + digits[value / 16] + digits[value % 16];
        }

        const auto writes = WritesOf([&byte] { __dlog_printf(3, "tag", "<%s>", byte.c_str()); });

        EXPECT_THAT(writes, ElementsAre("[3] tag: <" + expected + ">\n")) << "byte " << value;
    }
}

TEST(DlogStderrTest, EscapesControlCharactersInUtf8AndPassesEveryOtherCharacter)
{
    const struct {
        std::string text;
        std::string written;
    } cases[] = {
        {"\xC2\x80", "\\xc2\\x80"},  // U+0080, the first one
        {"\xC2\x9B"
         "31m",
         "\\xc2\\x9b31m"},           // CSI, as terminals obey it
        {"\xC2\x9F", "\\xc2\\x9f"},  // U+009F, the last one
        {"\xC2\xA0", "\xC2\xA0"},
        {"\xDF\x80", "\xDF\x80"},
        {"\xE0\xA0\x80", "\xE0\xA0\x80"},
        {"\xE2\x82\x9B", "\xE2\x82\x9B"},
        {"\xED\x9F\x80", "\xED\x9F\x80"},  // U+D7C0
        {"\xED\x9F\xBF", "\xED\x9F\xBF"},  // U+D7FF
        {"\xEE\x80\x80", "\xEE\x80\x80"},
        {"\xEF\x80\x80", "\xEF\x80\x80"},
        {"\xF0\x90\x80\x80", "\xF0\x90\x80\x80"},
        {"\xF4\x8F\x80\x80", "\xF4\x8F\x80\x80"},
        {"\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF"},  // U+10FFFF
    };
    for (const auto& one : cases) {
        const auto writes = WritesOf([&one] { __dlog_printf(3, "tag", "<%s>", one.text.c_str()); });

        EXPECT_THAT(writes, ElementsAre("[3] tag: <" + one.written + ">\n"));
    }
}

TEST(DlogStderrTest, EscapesBytesThatAreNotUtf8IfTheyAreControlCharactersOfOtherEncodings)
{
    const struct {
        std::string text;
        std::string written;
    } cases[] = {
        {"\xC0\x80", "\xC0\\x80"},  // longer than necessary
        {"\xC1\xBF\x80", "\xC1\xBF\\x80"},
        {"\xE0\x80\xBF", "\xE0\\x80\xBF"},
        {"\xE0\x9F\xBF", "\xE0\\x9f\xBF"},
        {"\xF0\x80\xBF\xBF", "\xF0\\x80\xBF\xBF"},
        {"\xF0\x8F\xBF\xBF", "\xF0\\x8f\xBF\xBF"},
        {"\xED\xA0\x80", "\xED\xA0\\x80"},  // the first surrogate
        {"\xED\xBF\x9F", "\xED\xBF\\x9f"},
        {"\xED\xBF\xBF\x80", "\xED\xBF\xBF\\x80"},
        {"\xF4\x90\x80\x80", "\xF4\\x90\\x80\\x80"},  // U+110000
        {"\xF5\x80\xBF\xBF", "\xF5\\x80\xBF\xBF"},
        {"\xF8\x90\xBF\xBF", "\xF8\\x90\xBF\xBF"},
        {"\xF9\x80\xBF\xBF", "\xF9\\x80\xBF\xBF"},
        {"\xFF\x80\x80\x80", "\xFF\\x80\\x80\\x80"},
        {"\x80\x9F\xA0", "\\x80\\x9f\xA0"},  // no beginning
        {"\xC2", "\xC2"},                    // no end
        {"\xE2\x82", "\xE2\\x82"},
        {"\xF0\x90\x80", "\xF0\\x90\\x80"},
        {"\xE2\x82\xC2\x80", "\xE2\\x82\\xc2\\x80"},
        {"\xC2\n", "\xC2\\n"},
    };
    for (const auto& one : cases) {
        const auto writes = WritesOf([&one] { __dlog_printf(3, "tag", "%s", one.text.c_str()); });

        EXPECT_THAT(writes, ElementsAre("[3] tag: " + one.written + "\n"));
    }
}

TEST(DlogStderrTest, WritesAMessageOfAMegabyteCompletely)
{
    const std::string megabyte(1 << 20, 'm');

    const std::string written = FileOf([&megabyte] { __dlog_printf(3, "tag", "%s.", megabyte.c_str()); });

    EXPECT_EQ("[3] tag: " + megabyte + ".\n", written);
}

TEST(DlogStderrTest, WritesTheFormatIfTheMessageCannotBeExpanded)
{
    const wchar_t noCharacter[] = {0x7FFFFFFF, 0};

    const auto writes = WritesOf([&noCharacter] { __dlog_printf(3, "tag", "open(%ls)\n", noCharacter); });

    EXPECT_THAT(writes, ElementsAre("[3] tag: open(%ls)\\n\n"));
}

TEST(DlogStderrTest, PreservesErrno)
{
    int after = 0;

    const auto writes = WritesOf([&after] {
        errno = EXDEV;
        __dlog_printf(3, "tag", "%ls", L"\x7FFFFFFF");  // printf itself sets EILSEQ
        after = errno;
    });

    EXPECT_EQ(EXDEV, after);
    EXPECT_EQ(1U, writes.size());
}

TEST(DlogStderrTest, LosesTheLineButNotErrnoIfStandardErrorIsClosed)
{
    int after = 0;

    const auto writes = WritesOf([&after] {
        close(STDERR_FILENO);
        errno = EXDEV;
        __dlog_printf(3, "tag", "nobody hears this");
        after = errno;
    });

    EXPECT_EQ(EXDEV, after);
    EXPECT_THAT(writes, ElementsAre());
}

// Writes a report to a pipe that nobody reads, and returns errno after it.
int ReportIntoAClosedPipe()
{
    int ends[2];
    EXPECT_EQ(0, pipe(ends)) << std::strerror(errno);
    close(ends[0]);
    int after = 0;
    {
        const ScopedStderr closed(ends[1]);
        errno = EXDEV;
        __dlog_printf(3, "tag", "nobody reads this");
        after = errno;
    }
    close(ends[1]);
    return after;
}

bool IsPending(int signal)
{
    sigset_t pending;
    return sigpending(&pending) == 0 && sigismember(&pending, signal) == 1;
}

bool IsBlocked(int signal)
{
    sigset_t mask;
    return pthread_sigmask(SIG_BLOCK, nullptr, &mask) == 0 && sigismember(&mask, signal) == 1;
}

TEST(DlogStderrTest, SurvivesAPipeThatNobodyReads)
{
    ASSERT_EQ(SIG_DFL, std::signal(SIGPIPE, SIG_DFL));

    EXPECT_EQ(EXDEV, ReportIntoAClosedPipe());

    EXPECT_FALSE(IsPending(SIGPIPE));
    EXPECT_FALSE(IsBlocked(SIGPIPE));
    EXPECT_EQ(SIG_DFL, std::signal(SIGPIPE, SIG_DFL)) << "the program gets its other signals";
}

TEST(DlogStderrTest, KeepsASignalThatTheProgramHasBlockedAndNotYetSeen)
{
    sigset_t pipeSignal;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr));

    EXPECT_EQ(EXDEV, ReportIntoAClosedPipe());
    EXPECT_FALSE(IsPending(SIGPIPE)) << "the signal of the log is not the program's";
    EXPECT_TRUE(IsBlocked(SIGPIPE));

    std::raise(SIGPIPE);
    EXPECT_EQ(EXDEV, ReportIntoAClosedPipe());
    EXPECT_TRUE(IsPending(SIGPIPE));
    EXPECT_TRUE(IsBlocked(SIGPIPE));

    const struct timespec atOnce = {0, 0};
    EXPECT_EQ(SIGPIPE, sigtimedwait(&pipeSignal, nullptr, &atOnce));
    EXPECT_EQ(0, pthread_sigmask(SIG_UNBLOCK, &pipeSignal, nullptr));
}

TEST(DlogStderrTest, KeepsOtherSignalsThatTheProgramHasBlocked)
{
    sigset_t other;
    sigemptyset(&other);
    sigaddset(&other, SIGHUP);
    ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &other, nullptr));
    std::raise(SIGHUP);

    const auto writes = WritesOf([] { __dlog_printf(3, "tag", "message"); });

    EXPECT_THAT(writes, ElementsAre("[3] tag: message\n"));
    EXPECT_TRUE(IsPending(SIGHUP));
    const struct timespec atOnce = {0, 0};
    EXPECT_EQ(SIGHUP, sigtimedwait(&other, nullptr, &atOnce));
    EXPECT_EQ(0, pthread_sigmask(SIG_UNBLOCK, &other, nullptr));
}

TEST(DlogStderrTest, DoesNotMixTheLinesOfSeveralThreads)
{
    const int kThreads = 4;
    const int kLines = 500;
    const std::string filler(300, '.');

    const std::string written = FileOf([&] {
        std::vector<std::thread> threads;
        for (int thread = 0; thread < kThreads; ++thread) {
            threads.emplace_back([&filler, thread] {
                for (int line = 0; line < kLines; ++line) {
                    __dlog_printf(thread, "tag", "%s %d", filler.c_str(), line);
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    });

    std::istringstream lines(written);
    std::map<std::string, int> linesOf;  // the next line of each severity; each thread uses one severity
    for (std::string line; std::getline(lines, line);) {
        const std::string severity = line.substr(0, 3);
        ASSERT_EQ(severity + " tag: " + filler + " " + std::to_string(linesOf[severity]++), line);
    }
    EXPECT_EQ((std::map<std::string, int>{{"[0]", kLines}, {"[1]", kLines}, {"[2]", kLines}, {"[3]", kLines}}),
              linesOf);
}

TEST(DlogStderrTest, ReportsThatALineIsLostForLackOfMemory)
{
    const std::string text(100, 't');
    bool fired = true;
    int failures = 0;
    for (int nth = 1; fired; ++nth) {
        int after = 0;

        const auto writes = WritesOf([&] {
            const ScopedNewFault fault(nth);
            errno = EXDEV;
            __dlog_printf(3, "tag", "%s", text.c_str());
            after = errno;
            fired = fault.Fired();
        });

        EXPECT_EQ(EXDEV, after) << "allocation " << nth;
        EXPECT_THAT(writes, ElementsAre(fired ? kLostLine : "[3] tag: " + text + "\n")) << "allocation " << nth;
        failures += fired ? 1 : 0;
    }
    EXPECT_GE(failures, 2) << "the message and the line are allocated";
}

}  // namespace
