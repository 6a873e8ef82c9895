// What every test of the library stands on: captured diagnostic calls, temporary directories that must end clean, and
// a count of open descriptors. A test that produces a diagnostic call and does not expect it fails.
#ifndef ORV_TESTS_ORV_TEST_H
#define ORV_TESTS_ORV_TEST_H

#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/messages.h"

// One call of __dlog_printf, as the library made it and as printf expands it.
struct DlogCall {
    int severity;
    std::string sourceTag;
    std::string format;
    std::string function;  // the first argument of the format
    std::string text;
};

// Takes the calls captured since the last time.
std::vector<DlogCall> TakeDlogCalls();

// True on a thread whose call is being captured: what is allocated then is not the library's doing.
bool IsCapturingDlogCall();

using messages::Report;

// Compares the captured calls, whole and in order, and takes them. Severity and source are the same for all. In an
// expected text, messages::kAnySuffix fits any name of a temporary file.
void ExpectReports(const std::vector<Report>& expected);

// A directory of its own for a test, removed with everything in it at the end.
class TempDir {
public:
    // Below `base`, which should be a directory that all users may enter.
    explicit TempDir(const std::string& base);
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const
    {
        return path_;
    }
    // The path of `name` in this directory.
    std::string operator/(const std::string& name) const;

    // Creates or replaces the file; the mode is set exactly. Returns its path.
    std::string Write(const std::string& name, const std::string& bytes, mode_t mode = 0644) const;
    std::string Read(const std::string& name) const;
    std::vector<std::string> Names() const;  // of all entries, sorted

private:
    std::string path_;
};

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);
std::vector<std::string> NamesIn(const std::string& directory);

// The status of `path`, links not followed; fails the test when there is none.
struct stat StatusOf(const std::string& path);
bool Exists(const std::string& path);    // links not followed
mode_t ModeOf(const std::string& path);  // the twelve mode bits

// The open descriptors of this process, sorted.
std::vector<std::string> OpenDescriptors();

class OrvTest : public ::testing::Test {
protected:
    OrvTest();
    void TearDown() override;  // no unexpected diagnostic call, no descriptor left open

    TempDir dir_;  // on the disk

private:
    std::vector<std::string> descriptorsBefore_;
};

// A second directory, on another file system than dir_.
class TwoFileSystemsTest : public OrvTest {
protected:
    TwoFileSystemsTest();
    void SetUp() override;  // fails when both are on one file system

    TempDir other_;  // in memory
};

// Skips the test with a reason; where skipping is not allowed (environment ORV_NO_SKIP), fails it instead.
#define ORV_SKIP(reason)                          \
    do {                                          \
        if (std::getenv("ORV_NO_SKIP")) {         \
            FAIL() << "may not skip: " << reason; \
        }                                         \
        GTEST_SKIP() << reason;                   \
    } while (false)

// Runs `body` in a forked child; its failed assertions fail the test.
void RunInChild(const std::function<void()>& body);

// Runs `body` in a child without privileges: files that user and mode protect are out of its reach.
void RunAsNobody(const std::function<void()>& body);

// Runs `body` in a forked child that may write files of `bytes` at most and, as usual, dies of SIGXFSZ where one would
// grow beyond; fails the test when it does not.
void RunIntoFileSizeLimit(std::size_t bytes, const std::function<void()>& body);

// Runs `body` on a thread with a stack of 64 KiB, or of the smallest size that the system allows.
void RunOnSmallStack(const std::function<void()>& body);

// True where private mounts can be made, as root or with user namespaces, and `body`, run in a child that has them,
// answers true.
bool CanMount(const std::function<bool()>& body = [] { return true; });

// Runs `body` in a child with mounts of its own, in which it may mount what it likes.
void RunWithPrivateMounts(const std::function<void()>& body);

// For use in RunWithPrivateMounts: mounts a memory file system of `bytes` at `path`.
void MountTmpfs(const std::string& path, std::size_t bytes);

#endif  // ORV_TESTS_ORV_TEST_H
