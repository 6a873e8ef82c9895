// The base of every test of the library: captured log calls, temporary directories that must be clean at the end, and a
// count of open descriptors. A log call that the test does not expect fails it.
#ifndef ORV_TESTS_ORV_TEST_H
#define ORV_TESTS_ORV_TEST_H

#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/messages.h"

// The file streams of libc++ use stdio. What they return after a failure, and when they allocate their buffers, differs
// from the streams of libstdc++.
#ifdef _LIBCPP_VERSION
constexpr bool kStreamsUseStdio = true;
#else
constexpr bool kStreamsUseStdio = false;
#endif

// A call of __dlog_printf, with the arguments of the library and the text that printf makes of them.
struct DlogCall {
    int severity;
    std::string sourceTag;
    std::string format;
    std::string function;  // the first argument of the format
    std::string text;
};

// Returns the calls that were captured since the last time, and forgets them.
std::vector<DlogCall> TakeDlogCalls();

// True on a thread while its log call is captured: allocations are then those of the test.
bool IsCapturingDlogCall();

using messages::Report;

// Compares the captured calls, completely and in order, and forgets them. Severity and source are the same for all. In
// an expected text, messages::kAnySuffix matches any name of a temporary file.
void ExpectReports(const std::vector<Report>& expected);

// A directory that all users may write to, in memory and so on another file system than /var/tmp; /var/tmp itself where
// only one file system is writable.
std::string MemoryDirectory();

// A temporary directory for a test. At the end, it is removed with everything in it. The test fails if it leaves a
// temporary file that it has not declared: a copy that a move has made (NAME_??????) in this directory, or the page of
// this process in /var/tmp.
class TempDir {
public:
    // Makes the directory below `base`, which all users should be able to enter.
    explicit TempDir(const std::string& base);
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const
    {
        return path_;
    }
    // Returns the path of `name` in this directory.
    std::string operator/(const std::string& name) const;

    // Creates or replaces the file and sets exactly this mode. Returns its path.
    std::string Write(const std::string& name, const std::string& bytes, mode_t mode = 0644) const;
    std::string Read(const std::string& name) const;
    std::vector<std::string> Names() const;  // of all entries, sorted
    void Clear() const;                      // removes all entries

    // Declares that the test leaves one temporary copy beside the file `name`.
    void ExpectTemporary(const std::string& name);

private:
    std::vector<std::string> LeftTemporaries() const;

    std::string path_;
    std::vector<std::string> expectedTemporaries_;
};

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);
std::vector<std::string> NamesIn(const std::string& directory);

// Returns the status of `path` without following links. Fails the test if `path` does not exist.
struct stat StatusOf(const std::string& path);
bool Exists(const std::string& path);    // without following links
mode_t ModeOf(const std::string& path);  // the twelve mode bits

// Sets the file-creation mask while it exists.
class ScopedMask {
public:
    explicit ScopedMask(mode_t mask) : before_(umask(mask))
    {
    }
    ~ScopedMask()
    {
        umask(before_);
    }
    ScopedMask(const ScopedMask&) = delete;
    ScopedMask& operator=(const ScopedMask&) = delete;

private:
    mode_t before_;
};

// Returns the open descriptors of this process, sorted.
std::vector<std::string> OpenDescriptors();

// Returns those that programs inherit which this process starts.
std::vector<std::string> InheritedDescriptors();

class OrvTest : public ::testing::Test {
protected:
    OrvTest();
    void TearDown() override;  // checks that there is no unexpected log call and no open descriptor

    TempDir dir_;  // on the disk

private:
    std::vector<std::string> descriptorsBefore_;
};

// A second directory, on another file system than dir_.
class TwoFileSystemsTest : public OrvTest {
protected:
    TwoFileSystemsTest();
    void SetUp() override;  // skips the test if both are on one file system

    TempDir other_;  // in memory
};

// Skips the test with a reason. If skipping is not allowed (environment ORV_NO_SKIP), fails it instead.
#define ORV_SKIP(reason)                          \
    do {                                          \
        if (std::getenv("ORV_NO_SKIP")) {         \
            FAIL() << "may not skip: " << reason; \
        }                                         \
        GTEST_SKIP() << reason;                   \
    } while (false)

// True for a user who may read a file of mode 0, such as root.
bool CanReadWithoutPermission();

// Runs `body` in a forked child; its failed assertions fail the test.
void RunInChild(const std::function<void()>& body);

// Runs `body` in a child without privileges, for which owners and modes of files apply.
void RunAsNobody(const std::function<void()>& body);

// Runs `body` in a forked child whose files may have at most `bytes` bytes. A larger write kills the child with
// SIGXFSZ. Fails the test if that does not happen.
void RunIntoFileSizeLimit(std::size_t bytes, const std::function<void()>& body);

// Runs `body` on a thread with a stack of 64 KiB, or of the smallest size that the system allows.
void RunOnSmallStack(const std::function<void()>& body);

// Returns true if private mounts are possible, as root or with user namespaces, and `body` returns true in a child that
// has them.
bool CanMount(const std::function<bool()>& body = [] { return true; });

// Runs `body` in a child with private mounts, in which it may mount anything.
void RunWithPrivateMounts(const std::function<void()>& body);

// For use in RunWithPrivateMounts: mounts a file system in memory, with `bytes` bytes, at `path`.
void MountTmpfs(const std::string& path, std::size_t bytes);

#endif  // ORV_TESTS_ORV_TEST_H
