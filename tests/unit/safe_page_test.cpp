// PublishPage of the safe companion.
#include "safe/safe.h"

#include "support/cases.h"
#include "support/faults.h"
#include "support/new_fault.h"
#include "support/oracle.h"
#include "support/orv_test.h"
#include "support/safe_lines.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using orv_safe::PageOptions;
using orv_safe::PublishPage;
using Names = std::vector<std::string>;
using namespace std::string_literals;

const char kText[] = "Port 1:up,100 Mbit/s;\n\nPort 2:;\n";

PageOptions Durable()
{
    PageOptions options;
    options.durable = true;
    return options;
}

std::string Line(const std::string& call, const std::string& path, int error)
{
    return SafeLine("PublishPage", call, path, error);
}

class SafePageTest : public TwoFileSystemsTest {
protected:
    // Expects that the call fails with these lines, and changes nothing.
    void ExpectRefusal(const Names& lines, const PageOptions& options = PageOptions())
    {
        const Names before = dir_.Names();
        EXPECT_FALSE(PublishPage(text_, page_, options));
        ExpectSafeLines(lines);
        EXPECT_EQ("old", ReadFile(page_));
        EXPECT_EQ(before, dir_.Names());
        EXPECT_FALSE(Exists(built_));
    }

    void ExpectPublished(const PageOptions& options = PageOptions())
    {
        EXPECT_TRUE(PublishPage(text_, page_, options));
        ExpectSafeLines({});
        EXPECT_EQ(oracle::Page(ReadFile(text_)), ReadFile(page_));
        EXPECT_FALSE(Exists(built_));
    }

    const std::string built_ = oracle::OwnTemporaryPage();
    const std::string text_ = dir_.Write("text", kText);
    const std::string page_ = dir_.Write("page", "old");
    const std::string far_ = other_.Write("page", "old");
};

// ---- What is published

TEST_F(SafePageTest, ReplacesAPage)
{
    const ScopedMask mask(0027);

    ExpectPublished();

    EXPECT_EQ(0640U, ModeOf(page_));
    EXPECT_EQ((Names{"page", "text"}), dir_.Names());
}

TEST_F(SafePageTest, ReplacesAPageOnAnotherFileSystem)
{
    const ScopedMask mask(0002);

    EXPECT_TRUE(PublishPage(text_, far_));

    EXPECT_EQ(oracle::Page(kText), ReadFile(far_));
    EXPECT_EQ(0664U, ModeOf(far_));
    EXPECT_EQ(Names{"page"}, other_.Names());
    EXPECT_FALSE(Exists(built_));
}

TEST_F(SafePageTest, MakesANewPage)
{
    EXPECT_TRUE(PublishPage(text_, dir_ / "new"));

    EXPECT_EQ(oracle::Page(kText), dir_.Read("new"));
}

TEST_F(SafePageTest, ReplacesALinkAndNotTheFileThatItLeadsTo)
{
    dir_.Write("victim", "precious");
    ASSERT_EQ(0, symlink("victim", (dir_ / "link").c_str()));

    EXPECT_TRUE(PublishPage(text_, dir_ / "link"));

    EXPECT_EQ(oracle::Page(kText), dir_.Read("link"));
    EXPECT_TRUE(S_ISREG(StatusOf(dir_ / "link").st_mode));
    EXPECT_EQ("precious", dir_.Read("victim"));
}

TEST_F(SafePageTest, TakesPathsRelativeToTheCurrentDirectory)
{
    char before[4096];
    ASSERT_NE(nullptr, getcwd(before, sizeof before));
    ASSERT_EQ(0, chdir(dir_.Path().c_str()));

    EXPECT_TRUE(PublishPage("text", "page"));

    ASSERT_EQ(0, chdir(before));
    EXPECT_EQ(oracle::Page(kText), ReadFile(page_));
}

TEST_F(SafePageTest, MayReplaceItsText)
{
    EXPECT_TRUE(PublishPage(text_, text_));

    EXPECT_EQ(oracle::Page(kText), ReadFile(text_));
}

TEST_F(SafePageTest, KnowsTheSizeOfEveryPage)
{
    Names texts = {"",         "\n",          "\n\n",
                   "a",        "a\n",         ":",
                   ";",        ";;",          ",",
                   ",,",       ":,",          ":,,",
                   ":,a,",     "a:b,c;d",     "a:b:c,;\n\n;",
                   "a,b,;",    "::;,:,;:\n",  "\0;\0:\0,\0\n\0"s,
                   AllBytes(), "a:b;\r\n\r\n"};
    Random random(14);
    for (int i = 0; i < 500; ++i) {
        texts.push_back(random.Text(";:,\na", 40));
    }
    for (const std::string& text : texts) {
        WriteFile(text_, text);
        EXPECT_TRUE(PublishPage(text_, page_)) << ::testing::PrintToString(text);
        EXPECT_EQ(oracle::Page(text), ReadFile(page_)) << ::testing::PrintToString(text);
    }
    ExpectSafeLines({});
}

TEST_F(SafePageTest, ReadsATextOfManyBlocks)
{
    for (const std::size_t bytes : {8191U, 8192U, 8193U, 300000U}) {
        std::string text;
        while (text.size() < bytes) {
            text += "row " + std::to_string(text.size()) + ":b,c;" + (text.size() % 7 == 0 ? "\n" : "");
        }
        WriteFile(text_, text.substr(0, bytes));
        ExpectPublished();
    }
}

TEST_F(SafePageTest, RunsOnASmallStack)
{
    RunOnSmallStack([this] {
        EXPECT_TRUE(PublishPage(text_, page_));
        EXPECT_TRUE(PublishPage(text_, far_, Durable()));
    });
}

TEST_F(SafePageTest, OpensNothingThatAProgramStartedMeanwhileInherits)
{
    const Names inherited = InheritedDescriptors();
    for (const bool durable : {false, true}) {
        const ScopedCall start("renameat", 1, [&]() -> std::optional<long> {
            EXPECT_EQ(inherited, InheritedDescriptors());
            return std::nullopt;
        });

        ExpectPublished(durable ? Durable() : PageOptions());
    }
}

// ---- Flushing

TEST_F(SafePageTest, FlushesNothingUnlessAsked)
{
    std::vector<std::string> calls;
    {
        const ScopedTrace trace;
        EXPECT_TRUE(PublishPage(text_, page_));
        calls = trace.Calls();
    }
    EXPECT_THAT(calls, ::testing::Not(::testing::Contains(::testing::HasSubstr("fsync"))));
}

TEST_F(SafePageTest, FlushesThePageAndThenItsDirectory)
{
    std::vector<std::string> flushed;
    {
        const ScopedTrace trace;
        EXPECT_TRUE(PublishPage(text_, page_, Durable()));
        for (const std::string& call : trace.Calls()) {
            if (call.find("fsync") == 0) {
                flushed.push_back(call);
            }
        }
    }
    ASSERT_EQ(2U, flushed.size());
    EXPECT_EQ("fsync(" + built_ + ")", flushed[0]);
    EXPECT_EQ(oracle::Page(kText), ReadFile(page_));
}

TEST_F(SafePageTest, FlushesBeforeTheRename)
{
    const ScopedCall renaming("renameat", 1, [this]() -> std::optional<long> {
        EXPECT_EQ("old", ReadFile(page_));
        errno = EIO;
        return -1;
    });
    {
        const ScopedFault flush(Call::kFsync, 1, EIO);
        ExpectRefusal({Line("fsync", built_, EIO)}, Durable());
    }
    ExpectRefusal({Line("renameat", page_, EIO)}, Durable());
}

TEST_F(SafePageTest, SaysThatThePageIsInPlaceIfItsDirectoryCannotBeFlushed)
{
    const ScopedFault flush(Call::kFsync, 2, EIO);

    EXPECT_FALSE(PublishPage(text_, page_, Durable()));

    ExpectSafeLines({"PublishPage: fsync(" + dir_.Path() +
                     "/) failed (5, Input/output error): the file is in place, but a power cut can undo that."});
    EXPECT_EQ(oracle::Page(kText), ReadFile(page_));
}

// ---- The text

TEST_F(SafePageTest, RefusesAMissingText)
{
    ASSERT_EQ(0, unlink(text_.c_str()));

    ExpectRefusal({Line("open", text_, ENOENT)});
}

TEST_F(SafePageTest, RefusesATextThatIsNotARegularFile)
{
    ASSERT_EQ(0, unlink(text_.c_str()));
    ASSERT_EQ(0, mkfifo(text_.c_str(), 0600));  // must not block
    ExpectRefusal({"PublishPage: " + text_ + " is not a regular file (0x1000)."});

    ASSERT_EQ(0, unlink(text_.c_str()));
    ASSERT_EQ(0, mkdir(text_.c_str(), 0700));
    ExpectRefusal({"PublishPage: " + text_ + " is not a regular file (0x4000)."});
}

TEST_F(SafePageTest, PublishesNothingIfTheTextCannotBeRead)
{
    EXPECT_FALSE(PublishPage("/proc/self/mem", page_));  // a regular file whose first page cannot be read

    ExpectSafeLines({Line("read", "/proc/self/mem", EIO)});
    EXPECT_EQ("old", ReadFile(page_));
}

TEST_F(SafePageTest, PublishesNothingIfALaterReadFails)
{
    WriteFile(text_, std::string(10000, 'x'));
    const ScopedFault fault(Call::kRead, 2, EIO);

    ExpectRefusal({Line("read", text_, EIO)});
}

TEST_F(SafePageTest, RefusesATextWhoseStatusCannotBeRead)
{
    const ScopedCall fault("fstat", 1, FailWith(EIO));

    ExpectRefusal({Line("fstat", text_, EIO)});
}

TEST_F(SafePageTest, RepeatsInterruptedCalls)
{
    const ScopedFault opening(Call::kOpen, 2, EINTR);
    const ScopedFault reading(Call::kRead, 1, EINTR);
    const ScopedCall testing("pread", 1, FailWith(EINTR));
    const ScopedCall renaming("renameat", 1, FailWith(EINTR));
    const ScopedFault flushing(Call::kFsync, 1, EINTR);

    ExpectPublished(Durable());
}

TEST_F(SafePageTest, RepeatsAnInterruptedOpenOfTheFileThatItBuilds)
{
    const ScopedFault opening(Call::kOpen, 3, EINTR);

    ExpectPublished();
}

// The library reads the file that was measured, whatever is at its name by then.
TEST_F(SafePageTest, MayLoseItsTextOnceThatIsOpen)
{
    const ScopedAction replace(Call::kOpen, 3, [this] {
        ASSERT_EQ(0, unlink(text_.c_str()));
        ASSERT_EQ(0, mkfifo(text_.c_str(), 0600));
    });

    EXPECT_TRUE(PublishPage(text_, page_));

    EXPECT_EQ(oracle::Page(kText), ReadFile(page_));
}

// ---- The page

TEST_F(SafePageTest, RefusesAPageThatIsNotARegularFile)
{
    const std::string fifo = dir_ / "fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    EXPECT_FALSE(PublishPage(text_, fifo));
    ExpectSafeLines({"PublishPage: " + fifo + " is not a regular file (0x1000)."});
    EXPECT_FALSE(PublishPage(text_, dir_.Path()));
    ExpectSafeLines({"PublishPage: " + dir_.Path() + " is not a regular file (0x4000)."});
    EXPECT_EQ((Names{"fifo", "page", "text"}), dir_.Names());
}

TEST_F(SafePageTest, RefusesAPageInAMissingDirectory)
{
    EXPECT_FALSE(PublishPage(text_, dir_ / "no/page"));

    ExpectSafeLines({Line("open", dir_ / "no/", ENOENT)});
    EXPECT_FALSE(Exists(built_));
}

TEST_F(SafePageTest, RefusesWhatItMustNotReplace)
{
    {
        const ScopedCall renaming("renameat", 1, FailWith(EPERM));
        ExpectRefusal({Line("renameat", page_, EPERM)});
    }
    ExpectPublished();
}

TEST_F(SafePageTest, ReportsACopyToAnotherFileSystemThatFails)
{
    const ScopedCall mode("fchmod", 1, FailWith(EIO));

    EXPECT_FALSE(PublishPage(text_, far_));

    ExpectSafeLines(
        {SafeLine("CopyFile", "fchmod", far_, EIO), "PublishPage: CopyFile(" + built_ + ", " + far_ + ") failed."});
    EXPECT_EQ("old", ReadFile(far_));
    EXPECT_EQ(Names{"page"}, other_.Names());
    EXPECT_FALSE(Exists(built_));
}

TEST_F(SafePageTest, FlushesACopyToAnotherFileSystemOnlyIfAsked)
{
    for (const bool durable : {false, true}) {
        int flushed = 0;
        const ScopedTrace trace;
        EXPECT_TRUE(PublishPage(text_, far_, durable ? Durable() : PageOptions()));
        for (const std::string& call : trace.Calls()) {
            flushed += call.find("fsync") == 0 ? 1 : 0;
        }
        EXPECT_EQ(durable ? 3 : 0, flushed);  // the page, its copy, the directory
    }
}

// ---- The name in /var/tmp

TEST_F(SafePageTest, RemovesWhatAKilledProcessWithItsIdLeft)
{
    WriteFile(built_, "left");

    ExpectPublished();
}

TEST_F(SafePageTest, DoesNotPublishWhatItCannotRemove)
{
    WriteFile(built_, "left");
    {
        const ScopedFault removing(Call::kUnlink, 1, EPERM);
        EXPECT_FALSE(PublishPage(text_, page_));
    }
    ExpectSafeLines({Line("open", built_, EEXIST)});
    {
        const ScopedFault looking(Call::kLstat, 1, EIO);
        EXPECT_FALSE(PublishPage(text_, page_));
    }
    ExpectSafeLines({Line("open", built_, EEXIST)});
    EXPECT_EQ("left", ReadFile(built_));
    EXPECT_EQ("old", ReadFile(page_));
    EXPECT_EQ(0, unlink(built_.c_str()));
}

TEST_F(SafePageTest, TouchesNothingThatIsPlanted)
{
    const std::string victim = dir_.Write("victim", "precious");
    const std::vector<std::function<void()>> plants = {
        [&] { ASSERT_EQ(0, symlink(victim.c_str(), built_.c_str())); },
        [&] { ASSERT_EQ(0, symlink((dir_ / "new").c_str(), built_.c_str())); },
        [&] { ASSERT_EQ(0, mkfifo(built_.c_str(), 0666)); },
        [&] { ASSERT_EQ(0, mkdir(built_.c_str(), 0777)); },
    };
    for (const std::function<void()>& plant : plants) {
        plant();
        const ino_t planted = StatusOf(built_).st_ino;

        EXPECT_FALSE(PublishPage(text_, page_));

        ExpectSafeLines({Line("open", built_, EEXIST)});
        EXPECT_EQ(planted, StatusOf(built_).st_ino);
        EXPECT_EQ("precious", ReadFile(victim));
        EXPECT_EQ("old", ReadFile(page_));
        EXPECT_EQ((Names{"page", "text", "victim"}), dir_.Names());
        EXPECT_EQ(0, remove(built_.c_str()));
    }
}

TEST_F(SafePageTest, TouchesNoFileOfAnotherUser)
{
    if (geteuid() != 0) {
        ORV_SKIP("only root can give a file to another user");
    }
    WriteFile(built_, "planted");
    ASSERT_EQ(0, chown(built_.c_str(), 65534, 65534));

    EXPECT_FALSE(PublishPage(text_, page_));

    ExpectSafeLines({Line("open", built_, EEXIST)});
    EXPECT_EQ("planted", ReadFile(built_));
    EXPECT_EQ("old", ReadFile(page_));
    EXPECT_EQ(0, unlink(built_.c_str()));
}

TEST_F(SafePageTest, RefusesIfTheNameCannotBeTaken)
{
    const ScopedFault fault(Call::kOpen, 3, EACCES);

    ExpectRefusal({Line("open", built_, EACCES)});
}

TEST_F(SafePageTest, RefusesIfTheNameIsTakenAgain)
{
    WriteFile(built_, "left");
    const ScopedFault fault(Call::kOpen, 4, EEXIST);

    ExpectRefusal({Line("open", built_, EEXIST)});
}

TEST_F(SafePageTest, ReportsAFileThatItCannotRemove)
{
    const ScopedCall renaming("renameat", 1, FailWith(EIO));
    const ScopedFault removing(Call::kUnlink, 1, EROFS);

    EXPECT_FALSE(PublishPage(text_, page_));

    ExpectSafeLines({Line("renameat", page_, EIO), Line("unlink", built_, EROFS)});
    EXPECT_EQ(0, unlink(built_.c_str()));
}

TEST_F(SafePageTest, ATemporaryFileThatIsLeftDoesNotMakeACopiedPageAFailure)
{
    const ScopedFault removing(Call::kUnlink, 1, EROFS);

    EXPECT_TRUE(PublishPage(text_, far_));

    ExpectSafeLines({Line("unlink", built_, EROFS)});
    EXPECT_EQ(oracle::Page(kText), ReadFile(far_));
    EXPECT_EQ(0, unlink(built_.c_str()));
}

// ---- Torn pages

class TornPageTest : public SafePageTest {
protected:
    std::string Torn(std::size_t bytes, const std::string& built = oracle::OwnTemporaryPage()) const
    {
        return "PublishPage: the page in " + built + " is torn (" + std::to_string(bytes) + " of " +
               std::to_string(oracle::Page(ReadFile(text_)).size()) + " bytes).";
    }

    // Where the page was cut depends on the streams of the C++ library.
    void ExpectTornSomewhere()
    {
        const Names before = dir_.Names();
        EXPECT_FALSE(PublishPage(text_, page_));
        const std::vector<DlogCall> lines = TakeDlogCalls();
        ASSERT_EQ(1U, lines.size());
        EXPECT_THAT(lines[0].text, ::testing::StartsWith("PublishPage: the page in " + built_ + " is torn ("));
        EXPECT_EQ("old", ReadFile(page_));
        EXPECT_EQ(before, dir_.Names());
    }
};

// The sanitizers need descriptors of their own to look at the library's streams.
#ifndef __SANITIZE_ADDRESS__
// The call has the page's directory, the text and the page open; the library opens two more.
TEST_F(TornPageTest, IsNotPublishedIfThereAreTooFewDescriptors)
{
    const int next = dup(STDOUT_FILENO);
    ASSERT_EQ(0, close(next));
    const std::vector<Names> lines = {{Line("open", dir_.Path() + "/", EMFILE)},
                                      {Line("open", text_, EMFILE)},
                                      {Line("open", built_, EMFILE)},
                                      {Torn(0)},
                                      {Torn(0)},
                                      {}};
    struct rlimit before;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    for (std::size_t free = 0; free < lines.size(); ++free) {
        struct rlimit limit = before;
        limit.rlim_cur = static_cast<rlim_t>(next) + free;
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        const bool published = PublishPage(text_, page_);
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));

        EXPECT_EQ(lines[free].empty(), published);
        ExpectSafeLines(lines[free]);
        EXPECT_EQ(published ? oracle::Page(kText) : "old", ReadFile(page_));
        EXPECT_FALSE(Exists(built_));
    }
}
#endif

TEST_F(TornPageTest, IsNotPublishedIfTheLibraryCannotWrite)
{
    const ScopedFault fault(Call::kWrite, 1, ENOSPC);

    ExpectTornSomewhere();
}

TEST_F(TornPageTest, IsNotPublishedIfTheLibraryCannotReadOn)
{
    WriteFile(text_, std::string(100000, 'x') + "\n");
    const ScopedFault fault(Call::kRead, 16, EIO);

    ExpectTornSomewhere();
}

TEST_F(TornPageTest, IsNotPublishedIfItsTextGrows)
{
    const ScopedAction grow(Call::kOpen, 3, [this] { WriteFile(text_, kText + "Port 3:up;"s); });
    const std::size_t before = oracle::Page(kText).size();
    const std::size_t after = oracle::Page(kText + "Port 3:up;"s).size();

    EXPECT_FALSE(PublishPage(text_, page_));

    ExpectSafeLines({"PublishPage: the page in " + built_ + " is torn (" + std::to_string(after) + " of " +
                     std::to_string(before) + " bytes)."});
    EXPECT_EQ("old", ReadFile(page_));
}

TEST_F(TornPageTest, IsNotPublishedIfItsStatusOrItsEndCannotBeRead)
{
    {
        const ScopedCall fault("fstat", 2, FailWith(EIO));
        ExpectRefusal({Line("fstat", built_, EIO)});
    }
    {
        const ScopedCall fault("pread", 1, FailWith(EIO));
        ExpectRefusal({Line("pread", built_, EIO)});
    }
}

// The library's page is exchanged before it is tested: by one of the same size with another end, and by a longer one.
TEST_F(TornPageTest, IsNotPublishedIfItIsAnother)
{
    const std::string whole = oracle::Page(kText);
    const std::string otherEnd = whole.substr(0, whole.size() - 1) + "?";
    for (const std::string& other : {otherEnd, whole + "?", whole.substr(0, whole.size() - 1)}) {
        const ScopedCall change("pread", 1, [&]() -> std::optional<long> {
            WriteFile(built_, other);
            return std::nullopt;
        });
        const ScopedCall status("fstat", 2, [&]() -> std::optional<long> {
            WriteFile(built_, other);
            return std::nullopt;
        });
        ExpectRefusal({Torn(other.size())});
    }
}

TEST_F(TornPageTest, IsNotPublishedAtAFileSizeLimit)
{
    WriteFile(text_, std::string(3000, 'x') + ":" + std::string(3000, 'y') + ";\n");
    struct rlimit before;
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &before));
    struct rlimit limit = before;
    limit.rlim_cur = 6100;  // the page is longer
    void (*const handler)(int) = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));

    const bool published = PublishPage(text_, page_);

    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &before));
    (void)signal(SIGXFSZ, handler);
    EXPECT_FALSE(published);
    const std::vector<DlogCall> lines = TakeDlogCalls();
    ASSERT_EQ(1U, lines.size());
    EXPECT_THAT(lines[0].text, ::testing::HasSubstr(" is torn ("));
    EXPECT_EQ("old", ReadFile(page_));
    EXPECT_FALSE(Exists(built_));
}

TEST_F(TornPageTest, IsNotPublishedFromAFullDisk)
{
    if (!CanMount()) {
        ORV_SKIP("mounts are not allowed here");
    }
    std::string text;
    for (int i = 0; i < 10000; ++i) {
        text += "row " + std::to_string(i) + ":abc,def;\n";
    }
    const std::string textFile = other_.Write("text", text);
    RunWithPrivateMounts([&] {
        MountTmpfs("/var/tmp", 64 << 10);
        const Names descriptors = OpenDescriptors();

        EXPECT_FALSE(PublishPage(textFile, far_));

        const std::vector<DlogCall> lines = TakeDlogCalls();
        ASSERT_EQ(1U, lines.size());
        EXPECT_THAT(lines[0].text, ::testing::HasSubstr(" is torn ("));
        EXPECT_EQ("old", ReadFile(far_));
        EXPECT_EQ(Names{}, NamesIn("/var/tmp"));
        EXPECT_EQ(descriptors, OpenDescriptors());
    });
}

TEST_F(TornPageTest, IsNotPublishedToAFullDisk)
{
    if (!CanMount()) {
        ORV_SKIP("mounts are not allowed here");
    }
    std::string text;
    for (int i = 0; i < 10000; ++i) {
        text += "row " + std::to_string(i) + ":abc,def;\n";
    }
    WriteFile(text_, text);
    const std::string full = other_ / "full";
    ASSERT_EQ(0, mkdir(full.c_str(), 0755));
    RunWithPrivateMounts([&] {
        MountTmpfs(full, 64 << 10);
        WriteFile(full + "/page", "old");

        EXPECT_FALSE(PublishPage(text_, full + "/page"));

        ExpectSafeLines({SafeLine("CopyFile", "write", full + "/page", ENOSPC),
                         "PublishPage: CopyFile(" + oracle::OwnTemporaryPage() + ", " + full + "/page) failed."});
        EXPECT_EQ("old", ReadFile(full + "/page"));
        EXPECT_EQ(Names{"page"}, NamesIn(full));
        EXPECT_FALSE(Exists(oracle::OwnTemporaryPage()));
    });
}

TEST_F(TornPageTest, IsNotPublishedWithoutProc)
{
    if (!CanMount()) {
        ORV_SKIP("mounts are not allowed here");
    }
    RunWithPrivateMounts([&] {
        ASSERT_EQ(0, mount("none", "/proc", "tmpfs", 0, nullptr));

        EXPECT_FALSE(PublishPage(text_, page_));

        ExpectSafeLines({Torn(oracle::Page("").size(), oracle::OwnTemporaryPage())});
        EXPECT_EQ("old", ReadFile(page_));
        EXPECT_FALSE(Exists(oracle::OwnTemporaryPage()));
    });
}

// ---- Lack of memory

// The streams of libstdc++ allocate and swallow the exception; those of libc++ allocate nothing here.
#ifdef __GLIBCXX__
constexpr int kSwallowed = 1;
#else
constexpr int kSwallowed = 0;
#endif

TEST_F(SafePageTest, EveryAllocationThatFailsThrowsOrIsReportedAndPublishesNothing)
{
    for (const std::string& page : {page_, far_}) {
        int threw = 0;
        int refused = 0;
        bool fired = true;
        for (int nth = 1; fired; ++nth) {
            SCOPED_TRACE("allocation " + std::to_string(nth));
            WriteFile(page, "old");
            const Names descriptors = OpenDescriptors();
            bool threwNow = false;
            bool published = false;
            {
                const ScopedNewFault fault(nth);
                try {
                    published = PublishPage(text_, page);
                } catch (const std::bad_alloc&) {
                    threwNow = true;
                }
                fired = fault.Fired();
            }
            const std::vector<DlogCall> lines = TakeDlogCalls();
            threw += threwNow ? 1 : 0;
            refused += published || threwNow ? 0 : 1;
            EXPECT_EQ(published || threwNow, lines.empty());
            EXPECT_EQ(published ? oracle::Page(kText) : "old", ReadFile(page));
            EXPECT_FALSE(Exists(built_));
            EXPECT_EQ((Names{"page", "text"}), dir_.Names());
            EXPECT_EQ(Names{"page"}, other_.Names());
            EXPECT_EQ(descriptors, OpenDescriptors());
        }
        EXPECT_LE(5, threw);
        EXPECT_LE(kSwallowed, refused);
    }
}

// ---- At the same time

TEST_F(SafePageTest, ManyThreadsPublishAtOnceAndReadersSeeOnlyWholePages)
{
    constexpr int kThreads = 8;
    constexpr int kRounds = 25;
    std::vector<std::string> texts;
    std::vector<std::string> pages = {"old"};
    for (int i = 0; i < kThreads; ++i) {
        std::string text;
        for (int row = 0; row < 200 * i; ++row) {
            text += "thread " + std::to_string(i) + ":" + std::to_string(row) + ";\n";
        }
        texts.push_back(dir_.Write("text" + std::to_string(i), text));
        pages.push_back(oracle::Page(text));
    }
    std::atomic<bool> isDone{false};
    std::atomic<int> torn{0};
    std::atomic<int> failed{0};
    std::thread reader([&] {
        while (!isDone) {
            torn += ::testing::Matches(::testing::Contains(ReadFile(page_)))(pages) ? 0 : 1;
            torn += ::testing::Matches(::testing::Contains(ReadFile(far_)))(pages) ? 0 : 1;
        }
    });
    std::vector<std::thread> publishers;
    for (int i = 0; i < kThreads; ++i) {
        publishers.emplace_back([&, i] {
            const std::string own = (i % 2 == 0 ? dir_ : other_) / ("own" + std::to_string(i));
            const std::string text = texts[static_cast<std::size_t>(i)];
            for (int round = 0; round < kRounds; ++round) {
                failed += PublishPage(text, i % 3 == 0 ? far_ : page_) ? 0 : 1;
                failed += PublishPage(text, own) && ReadFile(own) == pages[static_cast<std::size_t>(i) + 1] ? 0 : 1;
            }
        });
    }
    for (std::thread& publisher : publishers) {
        publisher.join();
    }
    isDone = true;
    reader.join();

    EXPECT_EQ(0, torn);
    EXPECT_EQ(0, failed);
    EXPECT_FALSE(Exists(built_));
}

}  // namespace
