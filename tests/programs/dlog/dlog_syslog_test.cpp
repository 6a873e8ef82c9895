// Tests the substitute that passes reports to syslog(3): reads the bytes at a socket that is bound to /dev/log, in a
// child with private mounts.

#include "orv/dlog.h"
#include "support/new_fault.h"
#include "support/orv_test.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

using ::testing::ElementsAre;

namespace {

constexpr int kNoMounts = 77;

void WriteTo(const char* path, const std::string& text)
{
    std::ofstream(path) << text;
}

// Mounts an empty /dev for this process and its children only.
bool HideDev()
{
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (unshare(user == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) != 0) {
        return false;
    }
    if (user != 0) {
        WriteTo("/proc/self/setgroups", "deny");
        WriteTo("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
        WriteTo("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
    }
    return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "/dev", "tmpfs", 0, "size=64k") == 0;
}

int BindDevLog()
{
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    EXPECT_EQ(0, bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address)) << std::strerror(errno);
    const struct timeval patience = {60, 0};
    EXPECT_EQ(0, setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience)) << std::strerror(errno);
    return descriptor;
}

// Writes "TIME" for the time in "<PRIORITY>Nov 21 07:18:39 rest". Returns a text without a time unchanged.
std::string WithoutTime(const std::string& packet)
{
    const std::size_t start = packet.find('>') + 1;
    struct tm time = {};
    const char* const rest = strptime(packet.c_str() + start, "%b %d %H:%M:%S", &time);
    return rest == nullptr ? packet : packet.substr(0, start) + "TIME" + rest;
}

// Takes a packet; empty when none comes in.
std::string NextPacket(int descriptor, int flags = 0)
{
    char packet[4096];
    const ssize_t bytes = recv(descriptor, packet, sizeof packet, flags);
    return bytes < 0 ? "" : WithoutTime(std::string(packet, static_cast<std::size_t>(bytes)));
}

// Returns the packets that have arrived.
std::vector<std::string> Packets(int descriptor)
{
    std::vector<std::string> packets;
    for (std::string packet; !(packet = NextPacket(descriptor, MSG_DONTWAIT)).empty();) {
        packets.push_back(packet);
    }
    return packets;
}

// Runs `body` in a child in which /dev/log is a socket, and passes it the descriptor.
int RunWithDevLog(const std::function<void(int)>& body)
{
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        if (!HideDev()) {
            _exit(kNoMounts);
        }
        body(BindDevLog());
        std::fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0)) << std::strerror(errno);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

#define EXPECT_WITH_DEV_LOG(...)                       \
    do {                                               \
        const int result = RunWithDevLog(__VA_ARGS__); \
        if (result == kNoMounts) {                     \
            ORV_SKIP("cannot make private mounts");    \
        }                                              \
        EXPECT_EQ(0, result);                          \
    } while (false)

std::string Name()
{
    return program_invocation_short_name;
}

TEST(DlogSyslogTest, SendsSeverityThreeAsAnErrorWithSourceAndMessage)
{
    EXPECT_WITH_DEV_LOG([](int log) {
        __dlog_printf(3, "LxFileUtils.cpp", "%s: stat(%s) failed (%i).", "RenameFileAcrossFs", "a", 2);

        EXPECT_EQ(11, LOG_USER | LOG_ERR);
        EXPECT_THAT(Packets(log),
                    ElementsAre("<11>TIME " + Name() + ": LxFileUtils.cpp: RenameFileAcrossFs: stat(a) failed (2)."));
    });
}

TEST(DlogSyslogTest, KeepsIdentityAndFacilityThatTheProgramChose)
{
    EXPECT_WITH_DEV_LOG([](int log) {
        openlog("boardd", 0, LOG_DAEMON);

        __dlog_printf(3, "tag", "message");

        EXPECT_THAT(Packets(log), ElementsAre("<27>TIME boardd: tag: message"));
    });
}

TEST(DlogSyslogTest, MapsEverySeverityToItselfAndOtherNumbersToError)
{
    EXPECT_WITH_DEV_LOG([](int log) {
        openlog("t", 0, LOG_USER);
        for (const int severity : {-1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 24, 1 << 20}) {
            const int expected = severity < 0 || severity > 7 ? 3 : severity;

            __dlog_printf(severity, "tag", "message");

            EXPECT_THAT(Packets(log), ElementsAre("<" + std::to_string(8 + expected) + ">TIME t: tag: message"));
        }
    });
}

TEST(DlogSyslogTest, EscapesControlCharactersAndPassesPercentSigns)
{
    EXPECT_WITH_DEV_LOG([](int log) {
        openlog("t", 0, LOG_USER);

        __dlog_printf(3, "t%n\ng", "%s", "a\n<11>forged\\\x1b %s %n");

        EXPECT_THAT(Packets(log), ElementsAre("<11>TIME t: t%n\\ng: a\\n<11>forged\\\\\\x1b %s %n"));
    });
}

TEST(DlogSyslogTest, PreservesErrnoEvenIfNobodyListens)
{
    EXPECT_WITH_DEV_LOG([](int log) {
        errno = EXDEV;
        __dlog_printf(3, "tag", "heard");
        EXPECT_EQ(EXDEV, errno);
        EXPECT_EQ(1U, Packets(log).size());

        close(log);
        errno = EXDEV;
        __dlog_printf(3, "tag", "not heard");
        EXPECT_EQ(EXDEV, errno);
    });
}

TEST(DlogSyslogTest, SurvivesStandardErrorThatNobodyReads)
{
    EXPECT_WITH_DEV_LOG([](int log) {
        int ends[2];
        ASSERT_EQ(0, pipe(ends)) << std::strerror(errno);
        close(ends[0]);
        ASSERT_EQ(STDERR_FILENO, dup2(ends[1], STDERR_FILENO));
        ASSERT_NE(SIG_ERR, std::signal(SIGPIPE, SIG_DFL));
        openlog("t", LOG_PERROR, LOG_USER);  // syslog writes to both

        errno = EXDEV;
        __dlog_printf(3, "tag", "message");

        EXPECT_EQ(EXDEV, errno);
        EXPECT_THAT(Packets(log), ElementsAre("<11>TIME t: tag: message"));
    });
}

TEST(DlogSyslogTest, SendsTheReportsOfSeveralThreadsCompletely)
{
    EXPECT_WITH_DEV_LOG([](int log) {
        const int kThreads = 4;
        const int kReports = 100;
        const std::string filler(300, '.');
        openlog("t", 0, LOG_USER);

        std::vector<std::thread> threads;
        for (int thread = 0; thread < kThreads; ++thread) {
            threads.emplace_back([&filler, thread] {
                for (int report = 0; report < kReports; ++report) {
                    __dlog_printf(thread, "tag", "%s %d", filler.c_str(), report);
                }
            });
        }
        std::multiset<std::string> packets;
        std::multiset<std::string> expected;
        for (int thread = 0; thread < kThreads; ++thread) {
            for (int report = 0; report < kReports; ++report) {
                packets.insert(NextPacket(log));
                expected.insert("<" + std::to_string(8 + thread) + ">TIME t: tag: " + filler + " " +
                                std::to_string(report));
            }
        }
        for (std::thread& thread : threads) {
            thread.join();
        }

        EXPECT_EQ(expected, packets);
        EXPECT_THAT(Packets(log), ElementsAre());
    });
}

TEST(DlogSyslogTest, ReportsThatAReportIsLostForLackOfMemory)
{
    EXPECT_WITH_DEV_LOG([](int log) {
        openlog("t", 0, LOG_USER);
        const std::string text(100, 't');
        bool fired = true;
        int failures = 0;
        for (int nth = 1; fired; ++nth) {
            {
                const ScopedNewFault fault(nth);
                errno = EXDEV;
                __dlog_printf(3, "tag", "%s", text.c_str());
                fired = fault.Fired();
            }
            EXPECT_EQ(EXDEV, errno) << "allocation " << nth;
            EXPECT_THAT(Packets(log), ElementsAre(fired ? "<11>TIME t: dlog: out of memory, a report was lost"
                                                        : "<11>TIME t: tag: " + text))
                << "allocation " << nth;
            failures += fired ? 1 : 0;
        }
        EXPECT_GE(failures, 2) << "the message and the line are allocated";
    });
}

}  // namespace
