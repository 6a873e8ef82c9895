// CopyFile and MoveFile of the safe companion.
#include "safe/safe.h"
#include "safe/staged_file.h"
#include "support/cases.h"
#include "support/faults.h"
#include "support/new_fault.h"
#include "support/orv_test.h"
#include "support/safe_lines.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using orv_safe::FileOptions;
using ::testing::ElementsAre;

FileOptions Plain()
{
    FileOptions options;
    options.durable = false;
    return options;
}

FileOptions With(bool FileOptions::*member)
{
    FileOptions options;
    options.*member = true;
    return options;
}

using Function = bool (*)(const std::string&, const std::string&, const FileOptions&);

struct Named {
    std::string name;
    Function call;
};

void PrintTo(const Named& param, std::ostream* out)
{
    *out << param.name;
}

// Both functions, each within one file system and across two.
class SafeFilesTest : public TwoFileSystemsTest {
protected:
    bool Copy(const FileOptions& options = FileOptions())
    {
        return orv_safe::CopyFile(source_, destination_, options);
    }
    bool Move(const FileOptions& options = FileOptions())
    {
        return orv_safe::MoveFile(source_, destination_, options);
    }

    // Moves to this directory from now on, so that a move is a rename.
    void StayOnOneFileSystem()
    {
        destination_ = dir_ / "destination";
    }

    void ExpectUnchanged(const std::string& bytes) const
    {
        EXPECT_TRUE(bytes == ReadFile(source_));
        EXPECT_EQ("old", ReadFile(destination_));
        EXPECT_THAT(other_.Names(), ElementsAre("destination"));
        EXPECT_THAT(dir_.Names(), ElementsAre("source"));
    }

    std::string source_ = dir_ / "source";
    std::string destination_ = other_ / "destination";
};

class SafeCopyTest : public SafeFilesTest {};
class SafeMoveTest : public SafeFilesTest {
protected:
    // File systems count time in steps of milliseconds or seconds. After this, a change of the source has another time.
    void WaitForAnotherTime() const
    {
        const timespec before = StatusOf(source_).st_ctim;
        timespec now = before;
        for (int i = 0; i < 3000 && now.tv_sec == before.tv_sec && now.tv_nsec == before.tv_nsec; ++i) {
            usleep(1000);
            now = StatusOf(dir_.Write("probe", "")).st_ctim;
        }
        ASSERT_TRUE(now.tv_sec != before.tv_sec || now.tv_nsec != before.tv_nsec);
        ASSERT_EQ(0, unlink((dir_ / "probe").c_str()));
    }
};

class SafeBothTest : public SafeFilesTest, public ::testing::WithParamInterface<Named> {
protected:
    bool Act(const FileOptions& options = FileOptions()) const
    {
        return GetParam().call(source_, destination_, options);
    }
    std::string Line(const std::string& call, const std::string& path, int error,
                     const std::string& consequence = "") const
    {
        return SafeLine(GetParam().name, call, path, error, consequence);
    }
    bool IsMove() const
    {
        return GetParam().name == "MoveFile";
    }
    void ExpectAllKept();
    std::vector<std::string> SourceNames() const
    {
        return IsMove() ? std::vector<std::string>{} : std::vector<std::string>{"source"};
    }
};

void SafeBothTest::ExpectAllKept()
{
    constexpr off_t kSize = 5 << 20;
    WriteFile(source_, "begin");
    ASSERT_EQ(0, truncate(source_.c_str(), kSize / 2));
    {
        std::ofstream file(source_, std::ios::app | std::ios::binary);
        file << "middle";
    }
    ASSERT_EQ(0, truncate(source_.c_str(), kSize));
    ASSERT_EQ(0, chown(source_.c_str(), 12, 34));
    ASSERT_EQ(0, chmod(source_.c_str(), 06451));
    ASSERT_EQ(0, setxattr(source_.c_str(), "user.one", "1", 1, 0));
    ASSERT_EQ(0, setxattr(source_.c_str(), "user.empty", "", 0, 0));
    const timespec times[] = {{1000000000, 123456789}, {1100000000, 987654321}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, source_.c_str(), times, 0));
    const std::string bytes = ReadFile(source_);
    ASSERT_EQ(0, utimensat(AT_FDCWD, source_.c_str(), times, 0));
    const struct stat before = StatusOf(source_);
    ASSERT_GT(kSize / 512 / 4, before.st_blocks) << "the source has no holes";
    FileOptions options = With(&FileOptions::preserve);
    options.verify = true;

    EXPECT_TRUE(Act(options));

    const struct stat after = StatusOf(destination_);
    EXPECT_EQ(06451U, ModeOf(destination_));
    EXPECT_EQ(12U, after.st_uid);
    EXPECT_EQ(34U, after.st_gid);
    EXPECT_EQ(1000000000, after.st_atim.tv_sec);
    EXPECT_EQ(123456789, after.st_atim.tv_nsec);
    EXPECT_EQ(1100000000, after.st_mtim.tv_sec);
    EXPECT_EQ(987654321, after.st_mtim.tv_nsec);
    EXPECT_EQ(kSize, after.st_size);
    EXPECT_GE(before.st_blocks + 16, after.st_blocks) << "holes were filled";
    char value[8] = {};
    EXPECT_EQ(1, getxattr(destination_.c_str(), "user.one", value, sizeof value));
    EXPECT_STREQ("1", value);
    EXPECT_EQ(0, getxattr(destination_.c_str(), "user.empty", value, sizeof value));
    EXPECT_TRUE(bytes == ReadFile(destination_));
    EXPECT_NE(before.st_ino, after.st_ino);
}

INSTANTIATE_TEST_SUITE_P(Functions, SafeBothTest,
                         ::testing::Values(Named{"CopyFile", orv_safe::CopyFile},
                                           Named{"MoveFile", orv_safe::MoveFile}),
                         CaseName<Named>);

// ---- What arrives

TEST_P(SafeBothTest, EveryByteOfAFileOfAnySizeArrives)
{
    for (const bool durable : {false, true}) {
        for (const bool preserve : {false, true}) {
            for (const std::size_t size : {0U, 1U, 8191U, 8192U, 8193U, 100000U, 3000000U}) {
                FileOptions options;
                options.durable = durable;
                options.preserve = preserve;
                options.verify = durable;
                const std::string bytes = BytesOfLength(size);
                WriteFile(source_, bytes);

                EXPECT_TRUE(Act(options));

                EXPECT_TRUE(bytes == ReadFile(destination_));
                EXPECT_EQ(SourceNames(), dir_.Names());
                EXPECT_THAT(other_.Names(), ElementsAre("destination"));
            }
        }
    }
}

TEST_P(SafeBothTest, EveryByteArrivesInEveryWayOfCopying)
{
    const std::string bytes = BytesOfLength(8192 * 2 + 1);  // the last block is one byte
    for (const bool ranges : {false, true}) {
        for (const bool sendfile : {false, true}) {
            WriteFile(source_, bytes);
            std::list<ScopedCall> unsupported;
            if (!ranges) {
                unsupported.emplace_back("copy_file_range", 1, FailWith(ENOSYS), kAlways);
            }
            if (!sendfile) {
                unsupported.emplace_back("sendfile", 1, FailWith(EINVAL), kAlways);
            }

            EXPECT_TRUE(Act());

            EXPECT_TRUE(bytes == ReadFile(destination_));
        }
    }
}

TEST_P(SafeBothTest, WhatTheKernelLeavesIsCopiedFromThere)
{
    const std::string bytes = BytesOfLength(100000);
    WriteFile(source_, bytes);
    // Copies a part itself, as the kernel does, and then returns 0 though more is left.
    const int parts[] = {1000, 0};
    std::size_t part = 0;
    const ScopedCall ranges(
        "copy_file_range", 1,
        [&]() -> std::optional<long> { return parts[part] == 0 ? std::optional<long>(0) : (++part, std::nullopt); }, 2);
    const ScopedCall sent(
        "sendfile", 1, [] { return 0L; }, kAlways);

    EXPECT_TRUE(Act());

    EXPECT_TRUE(bytes == ReadFile(destination_));
}

TEST_P(SafeBothTest, TheKernelCopiesTheBytes)
{
    WriteFile(source_, BytesOfLength(100000));
    const ScopedTrace trace;

    EXPECT_TRUE(Act());

    EXPECT_THAT(trace.Calls(), ::testing::Not(::testing::Contains(::testing::StartsWith("write("))));
}

TEST_F(SafeCopyTest, TheKernelCopiesTheBytesWithoutSendfileToo)
{
    StayOnOneFileSystem();
    WriteFile(source_, BytesOfLength(100000));
    {
        const std::string probe = dir_.Write("probe", "");
        const int from = open(source_.c_str(), O_RDONLY | O_CLOEXEC);
        const int to = open(probe.c_str(), O_WRONLY | O_CLOEXEC);
        const long copied = syscall(SYS_copy_file_range, from, nullptr, to, nullptr, std::size_t{1}, 0U);
        EXPECT_EQ(0, close(from));
        EXPECT_EQ(0, close(to));
        if (copied != 1) {
            ORV_SKIP("the kernel or the file system cannot copy by copy_file_range");
        }
    }
    const ScopedCall sent("sendfile", 1, FailWith(EINVAL));
    const ScopedTrace trace;

    EXPECT_TRUE(Copy());

    EXPECT_THAT(trace.Calls(), ::testing::Not(::testing::Contains(::testing::StartsWith("write("))));
}

TEST_P(SafeBothTest, AProgramStartedMeanwhileInheritsNoDescriptor)
{
    for (const bool durable : {false, true}) {
        for (const bool isNameless : {false, true}) {
            WriteFile(source_, "abc");
            FileOptions options;
            options.durable = durable;
            std::optional<ScopedCall> noTmpfile;
            if (!isNameless) {
                noTmpfile.emplace("tmpfile", 1, FailWith(EOPNOTSUPP));
            }
            const std::vector<std::string> inherited = InheritedDescriptors();
            const ScopedCall start("fchmod", 1, [&]() -> std::optional<long> {
                EXPECT_EQ(inherited, InheritedDescriptors());
                return std::nullopt;
            });

            EXPECT_TRUE(Act(options));
        }
    }
}

TEST_P(SafeBothTest, ShortWritesAreContinuedAndInterruptedCallsRepeated)
{
    const std::string bytes = BytesOfLength(20000);
    WriteFile(source_, bytes);
    const ScopedCall ranges("copy_file_range", 1, FailWith(EXDEV), kAlways);
    const ScopedCall sent("sendfile", 1, FailWith(EINTR), kAlways);
    const ScopedShortWrite shortWrite(1, 17);
    const ScopedFault interruptedRead(Call::kRead, 1, EINTR);
    const ScopedFault interruptedWrite(Call::kWrite, 2, EINTR);
    const ScopedFault interruptedFlush(Call::kFsync, 1, EINTR);

    EXPECT_TRUE(Act());

    EXPECT_TRUE(bytes == ReadFile(destination_));
}

TEST_P(SafeBothTest, AnInterruptedSearchForAFailedWriteIsRepeated)
{
    WriteFile(source_, "abc");
    const ScopedCall interruptedDup("dup", 1, FailWith(EINTR));
    const ScopedFault interruptedClose(Call::kClose, 1, EINTR);

    EXPECT_TRUE(Act(Plain()));

    EXPECT_EQ("abc", ReadFile(destination_));
}

TEST_P(SafeBothTest, TheModeArrivesWithoutSetIdBitsAndWhateverTheUmaskIs)
{
    const ScopedMask mask(0777);
    dir_.Write("source", "abc", 06754);

    EXPECT_TRUE(Act());

    EXPECT_EQ(0754U, ModeOf(destination_));
}

TEST_P(SafeBothTest, AnExistingFileIsReplacedByANewOneAndItsHardLinksKeepTheContent)
{
    WriteFile(source_, "new");
    other_.Write("destination", "old", 0600);
    ASSERT_EQ(0, link(destination_.c_str(), (other_ / "link").c_str()));

    EXPECT_TRUE(Act());

    EXPECT_EQ("new", ReadFile(destination_));
    EXPECT_EQ("old", other_.Read("link"));
    EXPECT_THAT(other_.Names(), ElementsAre("destination", "link"));
}

TEST_P(SafeBothTest, ALinkAtTheDestinationIsReplacedAndNotFollowed)
{
    WriteFile(source_, "new");
    other_.Write("target", "untouched");
    ASSERT_EQ(0, symlink("target", destination_.c_str()));

    EXPECT_TRUE(Act());

    EXPECT_TRUE(S_ISREG(StatusOf(destination_).st_mode));
    EXPECT_EQ("new", ReadFile(destination_));
    EXPECT_EQ("untouched", other_.Read("target"));
}

TEST_P(SafeBothTest, TheFileThatALinkLeadsToIsCopied)
{
    const std::string target = dir_.Write("target", "abc", 0640);
    ASSERT_EQ(0, symlink("target", source_.c_str()));

    EXPECT_TRUE(Act());

    EXPECT_TRUE(S_ISREG(StatusOf(destination_).st_mode));
    EXPECT_EQ("abc", ReadFile(destination_));
    EXPECT_EQ("abc", ReadFile(target));
    EXPECT_EQ(!IsMove(), Exists(source_)) << "a link is removed, and its target stays";
}

TEST_P(SafeBothTest, NamesOfTheFullLengthWork)
{
    WriteFile(source_, "abc");
    destination_ = other_ / std::string(255, 'x');
    const ScopedCall noTmpfile("tmpfile", 1, FailWith(EOPNOTSUPP), kAlways);

    EXPECT_TRUE(Act());

    EXPECT_EQ("abc", ReadFile(destination_));
}

TEST_P(SafeBothTest, PathsWithoutADirectoryAndPathsUpToTheirNulWork)
{
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(dir_.Path());
    WriteFile("source", "abc");

    const bool done = GetParam().call(std::string("source\0x", 8), std::string("destination\0/x", 14), Plain());

    std::filesystem::current_path(before);
    EXPECT_TRUE(done);
    EXPECT_EQ("abc", dir_.Read("destination"));
}

TEST_P(SafeBothTest, AStreamOfUnknownSizeIsCopiedWhole)
{
    source_ = "/proc/self/status";

    EXPECT_EQ(!IsMove(), Act(Plain()));

    EXPECT_NE(std::string::npos, ReadFile(destination_).find("\nPid:\t" + std::to_string(getpid()) + "\n"));
    const std::vector<DlogCall> lines = TakeDlogCalls();
    EXPECT_EQ(IsMove() ? 1U : 0U, lines.size());  // it cannot be removed
}

TEST_P(SafeBothTest, ADirectoryThatOnlyMayBeWrittenToSufficesWithoutFlushing)
{
    ASSERT_EQ(0, chmod(dir_.Path().c_str(), 0777));
    ASSERT_EQ(0, mkdir((dir_ / "drop").c_str(), 0333));
    ASSERT_EQ(0, chmod((dir_ / "drop").c_str(), 0333));
    destination_ = dir_ / "drop/file";
    WriteFile(source_, "abc");

    RunAsNobody([&] {
        EXPECT_FALSE(Act());
        ExpectSafeLines({Line("open", dir_ / "drop/", EACCES)});
        EXPECT_TRUE(Act(Plain()));
    });

    ASSERT_EQ(0, chmod((dir_ / "drop").c_str(), 0755));
    EXPECT_EQ("abc", ReadFile(destination_));
}

TEST_F(SafeCopyTest, ADirectoryThatOnlyMayBeSearchedSufficesForTheSource)
{
    ASSERT_EQ(0, chmod(dir_.Path().c_str(), 0777));
    ASSERT_EQ(0, mkdir((dir_ / "closed").c_str(), 0755));
    source_ = dir_.Write("closed/source", "abc", 0644);
    ASSERT_EQ(0, chmod((dir_ / "closed").c_str(), 0111));
    StayOnOneFileSystem();

    RunAsNobody([this] { EXPECT_TRUE(Copy()); });

    ASSERT_EQ(0, chmod((dir_ / "closed").c_str(), 0755));
    EXPECT_EQ("abc", ReadFile(destination_));
}

// ---- What is refused

TEST_P(SafeBothTest, ASourceThatIsNotARegularFileIsRefused)
{
    other_.Write("destination", "old");
    const std::string fifo = dir_ / "fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));

    for (const auto& [path, type] : std::vector<std::pair<std::string, std::string>>{
             {dir_.Path(), "4000"}, {fifo, "1000"}, {"/dev/null", "2000"}}) {
        source_ = path;
        EXPECT_FALSE(Act());
        ExpectSafeLines({GetParam().name + ": " + path + " is not a regular file (0x" + type + ")."});
    }

    EXPECT_EQ("old", ReadFile(destination_));
}

TEST_P(SafeBothTest, ASourceThatCannotBeReachedIsReported)
{
    source_ = dir_ / "no/source";
    EXPECT_FALSE(Act());
    ExpectSafeLines({Line("open", dir_ / "no/", ENOENT)});
    source_ = "";
    EXPECT_FALSE(Act());
    ExpectSafeLines({Line("fstatat", "", ENOENT)});
    source_ = dir_ / "none";
    EXPECT_FALSE(Act());
    ExpectSafeLines({Line("fstatat", source_, ENOENT)});
    ASSERT_EQ(0, symlink("nowhere", (dir_ / "dangling").c_str()));
    source_ = dir_ / "dangling";
    EXPECT_FALSE(Act());
    ExpectSafeLines({Line("fstatat", source_, ENOENT)});
    EXPECT_TRUE(Exists(source_));
    EXPECT_THAT(other_.Names(), ElementsAre());
}

TEST_P(SafeBothTest, ADestinationThatIsNotAFileOrLinkIsRefused)
{
    WriteFile(source_, "abc");
    const std::string fifo = other_ / "fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));

    for (const auto& [path, type] : std::vector<std::pair<std::string, std::string>>{
             {other_.Path(), "4000"}, {fifo, "1000"}, {"/dev/null", "2000"}, {other_ / ".", "4000"}}) {
        destination_ = path;
        EXPECT_FALSE(Act());
        ExpectSafeLines({GetParam().name + ": " + path + " is not a regular file (0x" + type + ")."});
    }
    for (const auto& [path, error] :
         std::vector<std::pair<std::string, int>>{{"", ENOENT}, {other_.Path() + "/", EISDIR}}) {
        destination_ = path;
        EXPECT_FALSE(Act());
        ExpectSafeLines({Line("openat", path, error)});
    }
    destination_ = other_ / "no/file";
    EXPECT_FALSE(Act());
    ExpectSafeLines({Line("open", other_ / "no/", ENOENT)});

    EXPECT_EQ("abc", ReadFile(source_));
    EXPECT_THAT(other_.Names(), ElementsAre("fifo"));
}

TEST_P(SafeBothTest, WithNoReplaceWhateverExistsStays)
{
    WriteFile(source_, "abc");
    other_.Write("destination", "old");
    const ScopedCall opening("openat", 1, FailWith(EIO));

    EXPECT_FALSE(Act(With(&FileOptions::noReplace)));

    ExpectSafeLines({Line("linkat", destination_, EEXIST)});
    EXPECT_EQ(-1, openat(-1, "", O_RDONLY | O_CLOEXEC)) << "the first call is this one";
    ExpectUnchanged("abc");
}

TEST_P(SafeBothTest, WithNoReplaceAFileThatAppearsMeanwhileStays)
{
    for (const bool nameless : {true, false}) {  // only a file that is not flushed stays without a name
        WriteFile(source_, "abc");
        FileOptions options = With(&FileOptions::noReplace);
        options.durable = !nameless;
        {
            const ScopedCall appears("fchmod", 1, [&]() -> std::optional<long> {
                WriteFile(destination_, "old");
                return std::nullopt;
            });

            EXPECT_FALSE(Act(options));
        }

        ExpectSafeLines({Line(nameless ? "linkat" : "renameat", destination_, EEXIST)});
        ExpectUnchanged("abc");
        ASSERT_EQ(0, unlink(destination_.c_str()));
    }
}

TEST_P(SafeBothTest, WithNoReplaceAFileIsPutWhereNothingIs)
{
    for (const char* const missing : {"", "tmpfile", "renameat2"}) {
        WriteFile(source_, "abc");
        std::list<ScopedCall> unsupported;
        if (*missing != '\0') {
            unsupported.emplace_back("tmpfile", 1, FailWith(EOPNOTSUPP));
        }
        if (std::strcmp(missing, "renameat2") == 0) {
            unsupported.emplace_back("renameat2", 1, FailWith(EINVAL));
        }

        EXPECT_TRUE(Act(With(&FileOptions::noReplace))) << missing;

        EXPECT_EQ("abc", ReadFile(destination_));
        EXPECT_THAT(other_.Names(), ElementsAre("destination"));
        other_.Clear();
    }
}

// ---- Each call that fails

// The call that a ScopedFault of faults.h makes fail, for those that are wrapped there.
const std::map<std::string, Call> kOldCalls = {
    {"open", Call::kOpen},   {"read", Call::kRead},   {"write", Call::kWrite},
    {"close", Call::kClose}, {"fsync", Call::kFsync},
};

// Makes a call fail, also in different ways of copying.
class Faults {
public:
    void Add(const std::string& call, int nth, int error, int times = 1)
    {
        const auto old = kOldCalls.find(call);
        if (old != kOldCalls.end()) {
            old_.push_back(std::make_unique<ScopedFault>(old->second, nth, error));
        } else {
            calls_.emplace_back(call, nth, FailWith(error), times);
        }
    }

private:
    std::list<std::unique_ptr<ScopedFault>> old_;
    std::list<ScopedCall> calls_;
};

struct FaultCase {
    std::string name;
    char options;        // d: the default; p: preserve; v: verify; n: noReplace; -: not durable
    std::string before;  // calls that fail always, separated by blanks
    std::string call;
    int nth;
    int error;
    std::string reported;  // the call in the line
    char path;             // of the line: s, S (its directory), d, D, t (staged)
};

void PrintTo(const FaultCase& param, std::ostream* out)
{
    *out << param.name;
}

FileOptions OptionsOf(char letter)
{
    FileOptions options;
    options.durable = letter != '-';
    options.preserve = letter == 'p';
    options.verify = letter == 'v';
    options.noReplace = letter == 'n';
    return options;
}

class SafeFaultTest : public SafeFilesTest, public ::testing::WithParamInterface<FaultCase> {
protected:
    std::string PathOf(char letter) const
    {
        switch (letter) {
            case 's':
                return source_;
            case 'S':
                return dir_ / "";
            case 'D':
                return other_ / "";
            case 't':
                return other_ / ".orv_*";
            default:
                return destination_;
        }
    }

    void ExpectRefused(const std::string& function, Function call, bool isReplaced)
    {
        const FaultCase& fault = GetParam();
        SCOPED_TRACE(function + (isReplaced ? ", replacing" : ", new"));
        other_.Clear();
        dir_.Write("source", kBytes_, 0640);
        if (isReplaced) {
            WriteFile(destination_, "old");
        }
        {
            Faults faults;
            std::istringstream before(fault.before);
            for (std::string name; before >> name;) {
                faults.Add(name, 1, ENOSYS, kAlways);
            }
            faults.Add(fault.call, fault.nth, fault.error);

            EXPECT_FALSE(call(source_, destination_, OptionsOf(fault.options)));
        }

        ExpectSafeLines({SafeLine(function, fault.reported, PathOf(fault.path), fault.error)});
        EXPECT_TRUE(kBytes_ == ReadFile(source_));
        EXPECT_EQ(0640U, ModeOf(source_));
        EXPECT_THAT(dir_.Names(), ElementsAre("source"));
        EXPECT_EQ(isReplaced ? std::vector<std::string>{"destination"} : std::vector<std::string>{}, other_.Names());
        EXPECT_TRUE(!isReplaced || ReadFile(destination_) == "old");
    }

    const std::string kBytes_ = BytesOfLength(20000);
};

TEST_P(SafeFaultTest, LeavesBothAsTheyWereAndNothingElse)
{
    if (GetParam().options != 'n') {
        ExpectRefused("CopyFile", orv_safe::CopyFile, true);
    }
    if (GetParam().name != "stagedName") {
        ExpectRefused("CopyFile", orv_safe::CopyFile, false);
    }
}

const char kPlainCopy[] = "copy_file_range sendfile";

INSTANTIATE_TEST_SUITE_P(
    Calls, SafeFaultTest,
    ::testing::Values(FaultCase{"sourceDirectory", 'd', "", "open", 1, EMFILE, "open", 'S'},
                      FaultCase{"destinationDirectory", 'd', "", "open", 2, EMFILE, "open", 'D'},
                      FaultCase{"destinationStatus", 'd', "", "fstatat", 1, EIO, "fstatat", 'd'},
                      FaultCase{"sourceStatus", 'd', "", "fstatat", 2, EIO, "fstatat", 's'},
                      FaultCase{"sourceOpened", 'd', "", "openat", 1, EMFILE, "openat", 's'},
                      FaultCase{"sourceOpenedStatus", 'd', "", "fstat", 1, EIO, "fstat", 's'},
                      FaultCase{"stagedFile", 'd', "tmpfile", "openat", 2, ENOSPC, "openat", 't'},
                      FaultCase{"stagedFileWithoutProc", 'd', "access", "openat", 2, ENOSPC, "openat", 't'},
                      FaultCase{"read", 'd', kPlainCopy, "read", 2, EIO, "read", 's'},
                      FaultCase{"write", 'd', kPlainCopy, "write", 2, ENOSPC, "write", 'd'},
                      FaultCase{"writeToNamed", 'd', "tmpfile copy_file_range sendfile", "write", 2, ENOSPC, "write",
                                'd'},
                      FaultCase{"flushToVerify", 'v', "", "fsync", 1, EIO, "fsync", 'd'},
                      FaultCase{"readSourceToVerify", 'v', "", "pread", 1, EIO, "pread", 's'},
                      FaultCase{"readToVerify", 'v', "", "pread", 2, EIO, "pread", 'd'},
                      FaultCase{"mode", 'd', "", "fchmod", 1, EIO, "fchmod", 'd'},
                      FaultCase{"preservedMode", 'p', "", "fchmod", 1, EROFS, "fchmod", 'd'},
                      FaultCase{"flush", 'd', "", "fsync", 1, EIO, "fsync", 'd'},
                      FaultCase{"flushAfterVerify", 'v', "", "fsync", 2, EIO, "fsync", 'd'},
                      FaultCase{"duplicate", '-', "", "dup", 1, EMFILE, "close", 'd'},
                      FaultCase{"close", '-', "", "close", 1, ENOSPC, "close", 'd'},
                      FaultCase{"nameToFlush", 'd', "", "linkat", 1, ENOSPC, "linkat", 't'},
                      FaultCase{"link", '-', "", "linkat", 1, EIO, "linkat", 'd'},
                      FaultCase{"stagedName", '-', "", "linkat", 2, ENOSPC, "linkat", 't'},
                      FaultCase{"rename", 'd', "tmpfile", "renameat", 1, EIO, "renameat", 'd'},
                      FaultCase{"linkToNewName", 'n', "tmpfile renameat2", "linkat", 1, EIO, "renameat", 'd'}),
    CaseName<FaultCase>);

// Otherwise btrfs of Linux 6.1 loses the content in a power cut, which script/board power-cuts shows.
TEST_P(SafeBothTest, ADurableFileHasANameOfItsOwnWhenItIsFlushed)
{
    for (const bool isReplaced : {false, true}) {
        WriteFile(source_, "abc");
        std::vector<std::string> names;
        {
            const ScopedAction flushed(Call::kFsync, /*nth=*/1, [&] { names = other_.Names(); });

            EXPECT_TRUE(Act());
        }

        ASSERT_EQ(isReplaced ? 2U : 1U, names.size());
        EXPECT_THAT(names[0], ::testing::MatchesRegex("\\.orv_[0-9a-f]{16}"));
        EXPECT_THAT(other_.Names(), ElementsAre("destination"));
    }
}

// ---- What a copy cannot keep, or leaves

constexpr char kPlaced[] = "the file is in place, but a power cut can undo that";
constexpr char kSourceKept[] = "the content is in place, and the source is kept";

TEST_P(SafeBothTest, AModeThatTheFileSystemCannotKeepIsReportedAndTheResultIsTrue)
{
    for (const int error : {EPERM, EOPNOTSUPP, ENOSYS, EINVAL}) {
        dir_.Write("source", "abc", 0751);
        {
            const ScopedCall noMode("fchmod", 1, FailWith(error));

            EXPECT_TRUE(Act());
        }

        ExpectSafeLines({Line("fchmod", destination_, error, "the mode is not kept")});
        EXPECT_EQ("abc", ReadFile(destination_));
        EXPECT_EQ(0600U, ModeOf(destination_));
    }
}

TEST_P(SafeBothTest, AStagedFileThatCannotBeRemovedIsReported)
{
    WriteFile(source_, "abc");
    {
        const ScopedCall noTmpfile("tmpfile", 1, FailWith(EOPNOTSUPP));
        const ScopedCall noMode("fchmod", 1, FailWith(EIO));
        const ScopedCall stays("unlinkat", 1, FailWith(EROFS));

        EXPECT_FALSE(Act());
    }

    ExpectSafeLines({Line("fchmod", destination_, EIO), Line("unlinkat", other_ / ".orv_*", EROFS)});
    EXPECT_EQ("abc", ReadFile(source_));
    const std::vector<std::string> left = other_.Names();
    ASSERT_EQ(1U, left.size());
    EXPECT_THAT(left[0], ::testing::MatchesRegex("\\.orv_[0-9a-f]{16}"));
    EXPECT_EQ("abc", other_.Read(left[0]));
    EXPECT_EQ(0600U, ModeOf(other_ / left[0]));
}

TEST_P(SafeBothTest, NamesThatAreTakenAreNotTouchedAndOthersAreTried)
{
    WriteFile(source_, "abc");
    const ScopedCall noTmpfile("tmpfile", 1, FailWith(EOPNOTSUPP));
    const ScopedCall taken("openat", 2, FailWith(EEXIST), 99);

    EXPECT_TRUE(Act());

    EXPECT_EQ("abc", ReadFile(destination_));
}

TEST_P(SafeBothTest, WhatIsPlantedAtAStagedNameIsNotTouched)
{
    const std::string victim = dir_.Write("victim", "victim's");
    const std::string planted = other_ / ".orv_0000000000000000";
    for (const bool isLink : {false, true}) {
        WriteFile(source_, "abc");
        if (isLink) {
            ASSERT_EQ(0, symlink(victim.c_str(), planted.c_str()));
        } else {
            WriteFile(planted, "victim's");
        }
        const ScopedCall noTmpfile("tmpfile", 1, FailWith(EOPNOTSUPP));
        const ScopedCall noTime("clock_gettime", 1, [] { return 0L; });  // the name is made of the time

        EXPECT_TRUE(Act());

        EXPECT_EQ("abc", ReadFile(destination_));
        EXPECT_EQ("victim's", ReadFile(planted));
        EXPECT_EQ(isLink, S_ISLNK(StatusOf(planted).st_mode));
        EXPECT_THAT(other_.Names(), ElementsAre(".orv_0000000000000000", "destination"));
        ASSERT_EQ(0, unlink(planted.c_str()));
    }
}

TEST_P(SafeBothTest, TheSearchForAFreeNameEnds)
{
    WriteFile(source_, "abc");
    {
        const ScopedCall noTmpfile("tmpfile", 1, FailWith(EOPNOTSUPP));
        const ScopedCall taken("openat", 2, FailWith(EEXIST), 100);

        EXPECT_FALSE(Act());
    }

    ExpectSafeLines({Line("openat", other_ / ".orv_*", EEXIST)});
    EXPECT_EQ("abc", ReadFile(source_));
}

TEST_P(SafeBothTest, ADirectoryThatCannotBeFlushedIsReportedAfterTheFileIsInPlace)
{
    WriteFile(source_, "abc");
    {
        const ScopedFault directory(Call::kFsync, 2, EIO);

        EXPECT_FALSE(Act());
    }

    ExpectSafeLines({Line("fsync", other_ / "", EIO, kPlaced)});
    EXPECT_EQ("abc", ReadFile(destination_));
    EXPECT_EQ("abc", ReadFile(source_));
}

TEST_P(SafeBothTest, WhatDiffersOnTheMediumIsNotPutInPlace)
{
    const std::string bytes = BytesOfLength(20000);
    // The reads of source and copy alternate. That of the last block is followed by one that finds the end.
    for (const auto& [read, offset] : std::vector<std::pair<int, int>>{{2, 0}, {4, 8192}, {7, 16384}}) {
        WriteFile(source_, bytes);
        WriteFile(destination_, "old");
        {
            const ScopedCall shorter("pread", read, [] { return 0L; });

            EXPECT_FALSE(Act(With(&FileOptions::verify)));
        }

        ExpectSafeLines({GetParam().name + ": what was written for " + destination_ + " differs from " + source_ +
                         " after byte " + std::to_string(offset) + "."});
        ExpectUnchanged(bytes);
    }
}

TEST_P(SafeBothTest, OneByteThatDiffersIsNoticed)
{
    const std::string bytes = BytesOfLength(20000);
    WriteFile(source_, bytes);
    WriteFile(destination_, "old");
    {
        const ScopedCall changes("posix_fadvise", 1, [&]() -> std::optional<long> {
            std::string other = bytes;
            other.back() = static_cast<char>(other.back() + 1);
            WriteFile(source_, other);
            return std::nullopt;
        });

        EXPECT_FALSE(Act(With(&FileOptions::verify)));
    }

    ExpectSafeLines({GetParam().name + ": what was written for " + destination_ + " differs from " + source_ +
                     " after byte 16384."});
}

TEST_P(SafeBothTest, AllThatTheKernelHasOfTheCopyIsDroppedBeforeComparing)
{
    WriteFile(source_, "abc");
    const ScopedTrace trace;

    EXPECT_TRUE(Act(With(&FileOptions::verify)));

    EXPECT_THAT(trace.Calls(), ::testing::Contains(::testing::MatchesRegex(
                                   "posix_fadvise\\([0-9]+, 0, 0, " + std::to_string(POSIX_FADV_DONTNEED) + "\\)")));
}

TEST_P(SafeBothTest, AMediumThatCannotBeReadAgainIsReported)
{
    WriteFile(source_, "abc");
    WriteFile(destination_, "old");
    {
        const ScopedCall kept("posix_fadvise", 1, [] { return long{ESPIPE}; });

        EXPECT_FALSE(Act(With(&FileOptions::verify)));
    }

    ExpectSafeLines({Line("posix_fadvise", destination_, ESPIPE)});
    ExpectUnchanged("abc");
}

TEST_P(SafeBothTest, ReadsThatAreShortOrInterruptedAreContinuedWhenComparing)
{
    WriteFile(source_, BytesOfLength(50000));
    const ScopedCall shorter(
        "pread bytes", 1, [] { return 100L; }, 3);
    const ScopedCall interrupted("pread", 5, FailWith(EINTR));

    EXPECT_TRUE(Act(With(&FileOptions::verify)));
}

// ---- Progress

constexpr uint64_t kStepBytes = 1 << 20;

// Keeps what a progress function is given, and cancels at one of its calls.
struct Heard {
    std::string destination;    // must be the old file at each call
    std::size_t cancelsAt = 0;  // 1-based
    std::vector<std::pair<uint64_t, uint64_t>> calls;

    static bool Hear(void* context, uint64_t done, uint64_t total)
    {
        Heard& heard = *static_cast<Heard*>(context);
        heard.calls.emplace_back(done, total);
        EXPECT_EQ("old", ReadFile(heard.destination));
        return heard.calls.size() != heard.cancelsAt;
    }
};

class SafeProgressTest : public SafeBothTest {
protected:
    // A source of 3 MiB and 1 byte, with a hole in it, and an old destination.
    void Arrange()
    {
        WriteFile(source_, BytesOfLength(2 << 20));
        ASSERT_EQ(0, truncate(source_.c_str(), 3 << 20));
        std::ofstream(source_, std::ios::app) << "x";
        bytes_ = ReadFile(source_);
        WriteFile(destination_, "old");
    }

    bool ActWith(Heard& heard, FileOptions options) const
    {
        heard.destination = destination_;
        options.progress = Heard::Hear;
        options.progressContext = &heard;
        return Act(options);
    }

    static std::vector<FileOptions> Ways()
    {
        FileOptions all = With(&FileOptions::verify);
        all.preserve = true;
        return {FileOptions(), Plain(), With(&FileOptions::verify), With(&FileOptions::preserve), all};
    }

    std::string bytes_;
};

INSTANTIATE_TEST_SUITE_P(Functions, SafeProgressTest,
                         ::testing::Values(Named{"CopyFile", orv_safe::CopyFile},
                                           Named{"MoveFile", orv_safe::MoveFile}),
                         CaseName<Named>);

TEST_P(SafeProgressTest, EachStepIsHeardAndTheLastOneBeforeTheFileIsInPlace)
{
    for (const FileOptions& options : Ways()) {
        Arrange();
        const uint64_t total = bytes_.size() * (options.verify ? 2 : 1);
        Heard heard;

        EXPECT_TRUE(ActWith(heard, options));

        uint64_t before = 0;
        for (const auto& [done, ofTotal] : heard.calls) {
            EXPECT_EQ(total, ofTotal);
            EXPECT_LE(before, done);
            EXPECT_GE(before + kStepBytes, done);
            before = done;
        }
        ASSERT_LE(5U, heard.calls.size());
        EXPECT_EQ(total, heard.calls.end()[-1].first);
        EXPECT_EQ(total, heard.calls.end()[-2].first);
        EXPECT_NE(total, heard.calls.end()[-3].first);
        EXPECT_TRUE(bytes_ == ReadFile(destination_));
    }
}

TEST_P(SafeProgressTest, EachWayOfCopyingIsHeardAndCanBeCancelled)
{
    for (const bool sendfile : {false, true}) {
        Arrange();
        const ScopedCall ranges("copy_file_range", 1, FailWith(EXDEV), kAlways);
        std::optional<ScopedCall> sent;
        if (!sendfile) {
            sent.emplace("sendfile", 1, FailWith(EINVAL), kAlways);
        }
        Heard heard;
        heard.cancelsAt = 2;

        EXPECT_FALSE(ActWith(heard, FileOptions()));

        const uint64_t step = sendfile ? kStepBytes : 8192;
        EXPECT_EQ((std::vector<std::pair<uint64_t, uint64_t>>{{step, bytes_.size()}, {2 * step, bytes_.size()}}),
                  heard.calls);
        ExpectSafeLines({Line("progress", source_, ECANCELED)});
        ExpectUnchanged(bytes_);
    }
}

TEST_P(SafeProgressTest, WhatTheKernelCopiesByRangesIsHeard)
{
    Arrange();
    const ScopedCall ranges("copy_file_range", 1, [] { return 500L; });
    Heard heard;
    heard.cancelsAt = 1;

    EXPECT_FALSE(ActWith(heard, FileOptions()));

    ExpectSafeLines({Line("progress", source_, ECANCELED)});
    ExpectUnchanged(bytes_);
    EXPECT_EQ((std::vector<std::pair<uint64_t, uint64_t>>{{500, bytes_.size()}}), heard.calls);
}

TEST_P(SafeProgressTest, CancelledAtAnyCallItChangesNothing)
{
    for (const FileOptions& options : Ways()) {
        Arrange();
        // The first calls, two in the middle, and the last one.
        Heard all;
        EXPECT_TRUE(ActWith(all, options));
        const std::size_t calls = all.calls.size();
        for (const std::size_t at : {std::size_t{1}, std::size_t{2}, calls / 2, calls - 2, calls - 1, calls}) {
            Arrange();
            Heard heard;
            heard.cancelsAt = at;

            EXPECT_FALSE(ActWith(heard, options));

            EXPECT_EQ(at, heard.calls.size()) << "was called after it cancelled";
            ExpectSafeLines({Line("progress", source_, ECANCELED)});
            ExpectUnchanged(bytes_);
        }
    }
}

TEST_P(SafeProgressTest, AnEmptyFileIsHeardOnceAndCanBeCancelled)
{
    Heard heard;
    heard.cancelsAt = 2;
    for (const bool cancels : {false, true}) {
        WriteFile(source_, "");
        WriteFile(destination_, "old");

        EXPECT_EQ(!cancels, ActWith(heard, FileOptions()));
    }

    EXPECT_EQ((std::vector<std::pair<uint64_t, uint64_t>>(2, {0, 0})), heard.calls);
    ExpectSafeLines({Line("progress", source_, ECANCELED)});
    ExpectUnchanged("");
}

TEST_P(SafeProgressTest, WithoutAListenerTheKernelCopiesAllAtOnce)
{
    Arrange();
    int calls = 0;
    const ScopedCall ranges("copy_file_range", 1, FailWith(EXDEV), kAlways);
    const ScopedCall sent(
        "sendfile", 1,
        [&calls]() -> std::optional<long> {
            ++calls;
            return std::nullopt;
        },
        kAlways);

    EXPECT_TRUE(Act());

    EXPECT_EQ(2, calls) << "one for the bytes, one that finds the end";
}

TEST_F(SafeCopyTest, AFileThatGrowsIsHeardBeyondItsSize)
{
    source_ = "/proc/self/mounts";  // has the size 0
    WriteFile(destination_, "old");
    Heard heard;
    heard.destination = destination_;
    FileOptions options;
    options.progress = Heard::Hear;
    options.progressContext = &heard;

    EXPECT_TRUE(Copy(options));

    EXPECT_EQ(0U, heard.calls.back().second);
    EXPECT_EQ(ReadFile(destination_).size(), heard.calls.back().first);
}

TEST_F(SafeMoveTest, ARenameIsNotHeard)
{
    StayOnOneFileSystem();
    WriteFile(source_, "new");
    WriteFile(destination_, "old");
    Heard heard;
    FileOptions options;
    options.progress = Heard::Hear;
    options.progressContext = &heard;

    EXPECT_TRUE(Move(options));

    EXPECT_TRUE(heard.calls.empty());
}

// ---- With preserve

TEST_P(SafeBothTest, WithPreserveOwnerModeTimesAttributesAndHolesArrive)
{
    if (geteuid() != 0) {
        ORV_SKIP("only root may change owners");
    }
    destination_ = dir_ / "copy/destination";  // a file system with attributes
    ASSERT_EQ(0, mkdir((dir_ / "copy").c_str(), 0755));
    if (IsMove()) {
        const ScopedCall other("renameat", 1, FailWith(EXDEV));
        ExpectAllKept();
    } else {
        ExpectAllKept();
    }
}

TEST_P(SafeBothTest, WithoutPreserveNoneOfTheseArrives)
{
    WriteFile(source_, std::string(10000, 'x'));
    ASSERT_EQ(0, truncate(source_.c_str(), 1 << 20));
    const timespec times[] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, source_.c_str(), times, 0));
    const ScopedCall owner("fchown", 1, [] { return -1L; });
    const ScopedCall attributes("flistxattr", 1, [] { return -1L; });
    const ScopedCall holes("ftruncate", 1, [] { return -1L; });

    EXPECT_TRUE(Act());

    EXPECT_NE(1000000000, StatusOf(destination_).st_mtim.tv_sec);
    (void)fchown(-1, 0, 0);  // the first call is this one
    (void)flistxattr(-1, nullptr, 0);
    EXPECT_EQ(-1, ftruncate(-1, 0));
}

TEST_P(SafeBothTest, WithPreserveEachThingThatIsNotKeptIsReportedAndTheResultIsTrue)
{
    const std::string bytes = BytesOfLength(20000);
    dir_.Write("source", bytes, 06751);
    ASSERT_EQ(0, setxattr(source_.c_str(), "user.a", "1", 1, 0));
    ASSERT_EQ(0, setxattr(source_.c_str(), "user.b", "2", 1, 0));
    {
        const ScopedCall owner("fchown", 1, FailWith(EPERM));
        const ScopedCall get("fgetxattr", 1, FailWith(ENODATA));
        const ScopedCall set("fsetxattr", 1, FailWith(ENOTSUP));
        const ScopedCall times("futimens", 1, FailWith(EPERM));

        EXPECT_TRUE(Act(With(&FileOptions::preserve)));
    }

    std::vector<DlogCall> lines = TakeDlogCalls();
    ASSERT_EQ(4U, lines.size());
    const std::string get = lines[1].text;
    const std::string set = lines[2].text;
    EXPECT_EQ(Line("fchown", destination_, EPERM, "owner and group are not kept"), lines[0].text);
    for (const auto& [first, second] : {std::make_pair("user.a", "user.b"), std::make_pair("user.b", "user.a")}) {
        if (get.find(first) != std::string::npos) {  // the file system decides about the order
            const std::string attribute = "the attribute ";
            EXPECT_EQ(Line("fgetxattr", destination_, ENODATA, attribute + first + " is not kept"), get);
            EXPECT_EQ(Line("fsetxattr", destination_, ENOTSUP, attribute + second + " is not kept"), set);
        }
    }
    EXPECT_EQ(Line("futimens", destination_, EPERM, "times are not kept"), lines[3].text);
    EXPECT_TRUE(bytes == ReadFile(destination_));
    EXPECT_EQ(0751U, ModeOf(destination_)) << "set-id bits must not go to another owner";
}

TEST_P(SafeBothTest, WithPreserveAFileSystemWithoutAttributesIsNoFailureButAnErrorIsReported)
{
    for (const int error : {ENOTSUP, EIO}) {
        WriteFile(source_, "abc");
        {
            const ScopedCall none("flistxattr", 1, FailWith(error));

            EXPECT_TRUE(Act(With(&FileOptions::preserve)));
        }

        if (error == EIO) {
            ExpectSafeLines({Line("flistxattr", destination_, EIO, "extended attributes are not kept")});
        }
        ExpectSafeLines({});
        EXPECT_EQ("abc", ReadFile(destination_));
    }
}

TEST_P(SafeBothTest, WithPreserveEachCallThatCopiesAFileWithHolesIsReported)
{
    const std::string bytes = BytesOfLength(10000) + std::string(1 << 20, '\0') + "end";
    const std::vector<std::tuple<std::string, int, std::string, std::string>> faults = {
        {"pread", 1, "pread", source_},      {"pread", 3, "pread", source_},
        {"lseek", 1, "lseek", destination_}, {"lseek", 3, "lseek", destination_},
        {"write", 2, "write", destination_}, {"ftruncate", 1, "ftruncate", destination_}};
    for (const auto& [call, nth, reported, path] : faults) {
        WriteFile(source_, BytesOfLength(10000));
        ASSERT_EQ(0, truncate(source_.c_str(), static_cast<off_t>(bytes.size() - 3)));
        std::ofstream(source_, std::ios::app) << "end";
        WriteFile(destination_, "old");
        {
            Faults fault;
            fault.Add(call, nth, EIO);

            EXPECT_FALSE(Act(With(&FileOptions::preserve)));
        }

        ExpectSafeLines({Line(reported, path, EIO)});
        ExpectUnchanged(bytes);
    }
}

TEST_P(SafeBothTest, WithPreserveAFileThatEndsInAHoleHasItsSize)
{
    ASSERT_EQ(0, truncate(dir_.Write("source", "abc").c_str(), 1 << 20));
    const ScopedCall interrupted("ftruncate", 1, FailWith(EINTR));

    EXPECT_TRUE(Act(With(&FileOptions::preserve)));

    EXPECT_TRUE("abc" + std::string((1 << 20) - 3, '\0') == ReadFile(destination_));
    EXPECT_GE(64, StatusOf(destination_).st_blocks);
}

// A file system in memory counts every block.
TEST_F(SafeCopyTest, WithPreserveAFileGetsHolesOnlyIfTheSourceHasOne)
{
    constexpr off_t kBlocks = (8 << 20) / 512;
    constexpr off_t kHoleBlocks = 8192 / 512;
    source_ = other_ / "source";
    for (const off_t holeBlocks : {off_t{0}, kHoleBlocks}) {
        (void)unlink(source_.c_str());
        ASSERT_EQ(0, truncate(other_.Write("source", "").c_str(), holeBlocks * 512));
        std::ofstream(source_, std::ios::app | std::ios::binary)
            << std::string(static_cast<std::size_t>((kBlocks - holeBlocks) * 512), holeBlocks == 0 ? '\0' : 'x');
        ASSERT_EQ(kBlocks - holeBlocks, StatusOf(source_).st_blocks);

        EXPECT_TRUE(Copy(With(&FileOptions::preserve)));

        EXPECT_EQ(kBlocks - holeBlocks, StatusOf(destination_).st_blocks);
        EXPECT_EQ(kBlocks * 512, StatusOf(destination_).st_size);
    }
}

// ---- A move

TEST_F(SafeMoveTest, AMoveOnOneFileSystemIsARename)
{
    StayOnOneFileSystem();
    for (const FileOptions& options : {FileOptions(), Plain(), With(&FileOptions::noReplace)}) {
        (void)unlink(destination_.c_str());
        dir_.Write("source", "abc", 06755);
        const ino_t inode = StatusOf(source_).st_ino;

        EXPECT_TRUE(Move(options));

        EXPECT_EQ(inode, StatusOf(destination_).st_ino);
        EXPECT_EQ(06755U, ModeOf(destination_));
        EXPECT_THAT(dir_.Names(), ElementsAre("destination"));
    }
}

TEST_F(SafeMoveTest, ARenameReplacesAFile)
{
    StayOnOneFileSystem();
    WriteFile(source_, "abc");
    WriteFile(destination_, "old");

    EXPECT_TRUE(Move());

    EXPECT_EQ("abc", ReadFile(destination_));
    EXPECT_THAT(dir_.Names(), ElementsAre("destination"));
}

TEST_F(SafeMoveTest, ARenameIsFlushedBeforeAndAfter)
{
    ASSERT_EQ(0, mkdir((dir_ / "other").c_str(), 0755));
    WriteFile(source_, "abc");
    std::vector<std::string> calls;
    for (const std::string& destination : {dir_ / "other/destination", dir_ / "other/destination2"}) {
        const ScopedTrace trace;
        destination_ = destination;
        EXPECT_TRUE(Move());
        for (const std::string& call : trace.Calls()) {
            if (call.find("fsync") == 0) {
                calls.push_back(call);
            }
        }
        source_ = destination;
    }

    EXPECT_EQ(5U, calls.size()) << "file and two directories; then file and one directory";
}

TEST_F(SafeMoveTest, ASourceThatIsCopiedIsNotFlushed)
{
    WriteFile(source_, "abc");
    const ScopedTrace trace;

    EXPECT_TRUE(Move());

    EXPECT_EQ(3, std::count_if(trace.Calls().begin(), trace.Calls().end(),
                               [](const std::string& call) { return call.find("fsync") == 0; }))
        << "the copy and two directories";
}

TEST_F(SafeMoveTest, AnErrorFromBeforeTheCallDoesNotMatter)
{
    StayOnOneFileSystem();
    WriteFile(source_, "abc");
    WriteFile(destination_, "old");
    const ino_t inode = StatusOf(source_).st_ino;
    errno = EXDEV;

    EXPECT_TRUE(Move());

    EXPECT_EQ(inode, StatusOf(destination_).st_ino);
}

TEST_F(SafeMoveTest, NothingIsFlushedUnlessItIsAskedFor)
{
    for (const bool here : {true, false}) {
        destination_ = (here ? dir_ : other_) / "destination";
        WriteFile(source_, "abc");
        const ScopedTrace trace;

        EXPECT_TRUE(Move(Plain()));

        for (const std::string& call : trace.Calls()) {
            EXPECT_NE(0U, call.find("fsync")) << call;
        }
    }
}

struct RenameFault {
    std::string name;
    char options;
    std::string call;
    int nth;
    int error;
    std::string reported;
    char path;
    std::string consequence;  // the file is at both names or at the destination
};

void PrintTo(const RenameFault& param, std::ostream* out)
{
    *out << param.name;
}

class SafeRenameFaultTest : public SafeFilesTest, public ::testing::WithParamInterface<RenameFault> {};

TEST_P(SafeRenameFaultTest, IsReportedAndNothingIsLost)
{
    const RenameFault& fault = GetParam();
    ASSERT_EQ(0, mkdir((dir_ / "to").c_str(), 0755));
    destination_ = dir_ / "to/destination";
    WriteFile(source_, "abc");
    {
        Faults faults;
        if (fault.options == 'l') {
            faults.Add("renameat2", 1, ENOSYS);
        }
        faults.Add(fault.call, fault.nth, fault.error);

        EXPECT_FALSE(Move(OptionsOf(fault.options == 'l' ? 'n' : fault.options)));
    }

    const std::string path = fault.path == 's'   ? source_
                             : fault.path == 'S' ? dir_ / ""
                             : fault.path == 'D' ? dir_ / "to/"
                                                 : destination_;
    ExpectSafeLines({SafeLine("MoveFile", fault.reported, path, fault.error, fault.consequence)});
    const bool isPlaced = !fault.consequence.empty();
    EXPECT_EQ(isPlaced, Exists(destination_));
    EXPECT_EQ(fault.consequence != kPlaced, Exists(source_));
    EXPECT_EQ("abc", ReadFile(isPlaced ? destination_ : source_));
}

INSTANTIATE_TEST_SUITE_P(
    Calls, SafeRenameFaultTest,
    ::testing::Values(RenameFault{"sourceDirectory", 'd', "open", 1, EMFILE, "open", 'S', ""},
                      RenameFault{"sourceStatus", 'd', "fstatat", 1, EIO, "fstatat", 's', ""},
                      RenameFault{"destinationDirectory", 'd', "open", 2, EMFILE, "open", 'D', ""},
                      RenameFault{"destinationStatus", 'd', "fstatat", 2, EIO, "fstatat", 'd', ""},
                      RenameFault{"sourceOpened", 'd', "openat", 1, EACCES, "openat", 's', ""},
                      RenameFault{"flushFile", 'd', "fsync", 1, EIO, "fsync", 's', ""},
                      RenameFault{"rename", 'd', "renameat", 1, EIO, "renameat", 'd', ""},
                      RenameFault{"renameExisting", 'n', "renameat2", 1, EEXIST, "renameat", 'd', ""},
                      RenameFault{"link", 'l', "linkat", 1, EPERM, "linkat", 'd', ""},
                      RenameFault{"flushDestination", 'd', "fsync", 2, EIO, "fsync", 'D', kPlaced},
                      RenameFault{"flushSource", 'd', "fsync", 3, EIO, "fsync", 'S', kPlaced},
                      RenameFault{"flushLinked", 'l', "fsync", 3, EIO, "fsync", 'S', kPlaced},
                      RenameFault{"statusOfLinked", 'l', "fstatat", 4, EIO, "fstatat", 'd', kSourceKept},
                      RenameFault{"statusToRemove", 'l', "fstatat", 5, EIO, "fstatat", 's', kSourceKept},
                      RenameFault{"remove", 'l', "unlinkat", 1, EIO, "unlinkat", 's', kSourceKept}),
    CaseName<RenameFault>);

TEST_F(SafeMoveTest, WithoutRenamesToNewNamesALinkMovesTheFile)
{
    StayOnOneFileSystem();
    WriteFile(source_, "abc");
    const ino_t inode = StatusOf(source_).st_ino;
    const ScopedCall noRename("renameat2", 1, FailWith(EINVAL));

    EXPECT_TRUE(Move(With(&FileOptions::noReplace)));

    EXPECT_EQ(inode, StatusOf(destination_).st_ino);
    EXPECT_EQ(1U, StatusOf(destination_).st_nlink);
    EXPECT_THAT(dir_.Names(), ElementsAre("destination"));
}

TEST_F(SafeMoveTest, TheSourceIsKeptWhenItsRemovalFails)
{
    for (const char* const call : {"fstatat", "unlinkat"}) {
        WriteFile(source_, "abc");
        other_.Clear();
        {
            const ScopedCall fault(call, *call == 'f' ? 5 : 1, FailWith(EROFS));

            EXPECT_FALSE(Move());
        }

        ExpectSafeLines({SafeLine("MoveFile", call, source_, EROFS, kSourceKept)});
        EXPECT_EQ("abc", ReadFile(source_));
        EXPECT_EQ("abc", ReadFile(destination_));
    }
}

TEST_F(SafeMoveTest, ADirectoryOfTheSourceThatCannotBeFlushedIsReported)
{
    WriteFile(source_, "abc");
    {
        const ScopedFault fault(Call::kFsync, 3, EIO);

        EXPECT_FALSE(Move());
    }

    ExpectSafeLines({SafeLine("MoveFile", "fsync", dir_ / "", EIO, kPlaced)});
    EXPECT_EQ("abc", ReadFile(destination_));
    EXPECT_FALSE(Exists(source_));
}

TEST_F(SafeMoveTest, ASourceThatChangesMeanwhileIsKept)
{
    const std::vector<std::function<void()>> changes = {
        [this] { WriteFile(source_, "other"); },  // another size
        [this] {                                  // its time
            const timespec times[] = {{1000000000, 0}, {1000000000, 0}};
            ASSERT_EQ(0, utimensat(AT_FDCWD, source_.c_str(), times, 0));
        },
        [this] { ASSERT_EQ(0, chmod(source_.c_str(), 0600)); },                               // its status
        [this] { ASSERT_EQ(0, link(source_.c_str(), (dir_ / "link").c_str())); },             // another name
        [this] { ASSERT_EQ(0, rename(dir_.Write("new", "abc").c_str(), source_.c_str())); },  // another file
        [this] {
            ASSERT_EQ(0, unlink(source_.c_str()));
            ASSERT_EQ(0, mkfifo(source_.c_str(), 0600));
        },
    };
    for (const auto& change : changes) {
        WriteFile(source_, "abc");
        WaitForAnotherTime();
        {
            const ScopedCall meanwhile("fchmod", 1, [&]() -> std::optional<long> {
                change();
                return std::nullopt;
            });

            EXPECT_FALSE(Move());
        }

        ExpectSafeLines({SafeLine("MoveFile", "unlinkat", source_, ESTALE, kSourceKept)});
        EXPECT_TRUE(Exists(source_));
        EXPECT_EQ("abc", ReadFile(destination_));
        dir_.Clear();
    }
}

TEST_F(SafeMoveTest, ASourceWhoseStatusDiffersInOneThingIsKept)
{
    const std::vector<ScopedStatus::Change> changes = {
        [](struct stat* status) { ++status->st_dev; },          [](struct stat* status) { ++status->st_ino; },
        [](struct stat* status) { --status->st_nlink; },        [](struct stat* status) { ++status->st_nlink; },
        [](struct stat* status) { ++status->st_size; },         [](struct stat* status) { ++status->st_mtim.tv_sec; },
        [](struct stat* status) { ++status->st_mtim.tv_nsec; }, [](struct stat* status) { ++status->st_ctim.tv_sec; },
        [](struct stat* status) { ++status->st_ctim.tv_nsec; },
    };
    for (const ScopedStatus::Change& change : changes) {
        WriteFile(source_, "abc");
        WriteFile(destination_, "old");
        {
            const ScopedStatus other(5, change);

            EXPECT_FALSE(Move());
        }

        ExpectSafeLines({SafeLine("MoveFile", "unlinkat", source_, ESTALE, kSourceKept)});
        EXPECT_EQ("abc", ReadFile(source_));
        EXPECT_EQ("abc", ReadFile(destination_));
    }
}

TEST_F(SafeMoveTest, NamesOfOneFileAreRefusedAndNothingChanges)
{
    StayOnOneFileSystem();
    WriteFile(source_, "abc");
    ASSERT_EQ(0, link(source_.c_str(), destination_.c_str()));

    for (const std::string& same : {destination_, source_, dir_ / "./source"}) {
        EXPECT_FALSE(orv_safe::MoveFile(source_, same));
        ExpectSafeLines({"MoveFile: " + source_ + " and " + same + " are the same file."});
    }

    EXPECT_EQ("abc", ReadFile(source_));
    EXPECT_EQ("abc", ReadFile(destination_));
    EXPECT_EQ(2U, StatusOf(source_).st_nlink);
}

TEST_F(SafeMoveTest, ALinkMovedOntoTheFileThatItLeadsToLosesNothing)
{
    StayOnOneFileSystem();
    WriteFile(destination_, "abc");
    ASSERT_EQ(0, symlink("destination", source_.c_str()));

    EXPECT_TRUE(Move());

    EXPECT_TRUE(S_ISREG(StatusOf(destination_).st_mode));
    EXPECT_EQ("abc", ReadFile(destination_));
    EXPECT_THAT(dir_.Names(), ElementsAre("destination"));
}

TEST_F(SafeMoveTest, TheSourceIsKeptIfAnotherProcessReplacesTheCopy)
{
    WriteFile(source_, "abc");
    {
        const ScopedCall replaced("fstatat", 4, [this]() -> std::optional<long> {
            EXPECT_EQ(0, unlink(destination_.c_str()));
            WriteFile(destination_, "other");
            return std::nullopt;
        });

        EXPECT_FALSE(Move());
    }

    ExpectSafeLines(
        {SafeLine("MoveFile", "fstatat", destination_, ESTALE, "another file is there, and the source is kept")});
    EXPECT_EQ("abc", ReadFile(source_));
}

TEST_F(SafeMoveTest, TheSourceIsKeptIfItIsNotKnownWhetherTheCopyIsStillThere)
{
    for (const char* const call : {"fstat", "fstatat"}) {
        WriteFile(source_, "abc");
        other_.Clear();
        {
            const ScopedCall unknown(call, 4, FailWith(EIO));

            EXPECT_FALSE(Move());
        }

        ExpectSafeLines({SafeLine("MoveFile", "fstatat", destination_, EIO, kSourceKept)});
        EXPECT_EQ("abc", ReadFile(source_));
        EXPECT_EQ("abc", ReadFile(destination_));
    }
}

TEST_F(SafeMoveTest, ALinkThatChangesMeanwhileIsKept)
{
    dir_.Write("target", "abc");
    ASSERT_EQ(0, symlink("target", source_.c_str()));
    {
        const ScopedCall meanwhile("fchmod", 1, [&]() -> std::optional<long> {
            EXPECT_EQ(0, symlink("nowhere", (dir_ / "new").c_str()));
            EXPECT_EQ(0, rename((dir_ / "new").c_str(), source_.c_str()));
            return std::nullopt;
        });

        EXPECT_FALSE(Move());
    }

    ExpectSafeLines({SafeLine("MoveFile", "unlinkat", source_, ESTALE, kSourceKept)});
    EXPECT_TRUE(Exists(source_));
    EXPECT_EQ("abc", ReadFile(destination_));
}

// The names of both files are the same, as in most moves.
class SafeSameNameTest : public SafeFilesTest, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override
    {
        SafeFilesTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        destination_ = other_ / "source";
        WriteFile(source_, "abc");
        WriteFile(destination_, "old");
        if (GetParam()) {
            noTmpfile_.emplace("tmpfile", 1, FailWith(EOPNOTSUPP));
        }
    }

    std::optional<ScopedCall> noTmpfile_;
};

TEST_P(SafeSameNameTest, AFileIsMovedOverAnotherOne)
{
    EXPECT_TRUE(Move());

    EXPECT_EQ("abc", ReadFile(destination_));
    EXPECT_THAT(dir_.Names(), ElementsAre());
    EXPECT_THAT(other_.Names(), ElementsAre("source"));
}

TEST_F(SafeMoveTest, AFileThatReplacesNothingGetsNoStagedName)
{
    destination_ = other_ / "source";
    WriteFile(source_, "abc");
    const ScopedCall renamed("renameat", 1, FailWith(EIO));

    EXPECT_TRUE(Move(Plain()));

    EXPECT_EQ("abc", ReadFile(destination_));
    EXPECT_EQ(-1, renameat(-1, "", -1, ""));  // the first call is this one
}

TEST_P(SafeSameNameTest, AStagedNameInBothDirectoriesShowsThatTheyAreOne)
{
    {
        const ScopedCall seen("fstatat", 4, [] { return 0L; });

        EXPECT_FALSE(Move());
    }

    ExpectSafeLines({"MoveFile: " + source_ + " and " + destination_ + " are the same file."});
    EXPECT_EQ("abc", ReadFile(source_));
    EXPECT_EQ("old", ReadFile(destination_));
    EXPECT_THAT(other_.Names(), ElementsAre("source"));
}

INSTANTIATE_TEST_SUITE_P(StagedWithAndWithoutAName, SafeSameNameTest, ::testing::Bool());

TEST_F(SafeMoveTest, AStagedNameThatCannotBeMadeIsReported)
{
    destination_ = other_ / "source";
    WriteFile(source_, "abc");
    WriteFile(destination_, "old");
    for (const FileOptions& options : {FileOptions(), Plain()}) {  // to flush the file, and to compare directories
        {
            const ScopedCall taken("linkat", 1, FailWith(EEXIST), 100);

            EXPECT_FALSE(Move(options));
        }

        ExpectSafeLines({SafeLine("MoveFile", "linkat", other_ / ".orv_*", EEXIST)});
        EXPECT_EQ("abc", ReadFile(source_));
        EXPECT_EQ("old", ReadFile(destination_));
    }
}

TEST_F(SafeMoveTest, StagedNamesThatAreTakenAreNotTouchedAndOthersAreTried)
{
    for (const bool durable : {true, false}) {
        FileOptions options;
        options.durable = durable;
        WriteFile(source_, "abc");
        WriteFile(destination_, "old");
        const ScopedCall taken("linkat", durable ? 1 : 2, FailWith(EEXIST), 99);

        EXPECT_TRUE(Move(options));

        EXPECT_EQ("abc", ReadFile(destination_));
        EXPECT_THAT(other_.Names(), ElementsAre("destination"));
    }
}

TEST_F(SafeMoveTest, AFileIsCopiedIfItsFileSystemIsNotKnown)
{
    StayOnOneFileSystem();
    for (const int directory : {1, 2}) {
        WriteFile(source_, "abc");
        const ino_t inode = StatusOf(source_).st_ino;
        const ScopedCall unknown("fstat", directory, FailWith(EIO));

        EXPECT_TRUE(Move());

        EXPECT_EQ("abc", ReadFile(destination_));
        EXPECT_NE(inode, StatusOf(destination_).st_ino);
        EXPECT_THAT(dir_.Names(), ElementsAre("destination"));
    }
}

TEST_F(SafeCopyTest, AFileCopiedOntoItselfKeepsItsContent)
{
    WriteFile(source_, "abc");
    ASSERT_EQ(0, link(source_.c_str(), (dir_ / "link").c_str()));

    EXPECT_TRUE(orv_safe::CopyFile(source_, source_));
    EXPECT_TRUE(orv_safe::CopyFile(source_, dir_ / "link"));

    EXPECT_EQ("abc", ReadFile(source_));
    EXPECT_EQ("abc", dir_.Read("link"));
    EXPECT_THAT(dir_.Names(), ElementsAre("link", "source"));
}

// ---- Memory runs out

TEST_P(SafeBothTest, WithoutMemoryTheExceptionPassesAndNothingIsLost)
{
    for (const bool isNameless : {true, false}) {
        FileOptions options = With(&FileOptions::preserve);
        options.verify = true;
        std::optional<ScopedCall> noTmpfile;
        if (!isNameless) {
            noTmpfile.emplace("tmpfile", 1, FailWith(EOPNOTSUPP), kAlways);
        }
        const ScopedCall notKept("futimens", 1, FailWith(EPERM), kAlways);
        int failures = 0;
        for (bool failed = true; failed; ++failures) {
            SCOPED_TRACE(failures);
            other_.Clear();
            WriteFile(source_, "abc");
            ASSERT_EQ(0, setxattr(source_.c_str(), "user.a name that a string cannot store in itself", "1", 1, 0));
            WriteFile(destination_, "old");
            bool threw = false;
            bool done = false;
            {
                const ScopedNewFault fault(failures + 1);
                try {
                    done = Act(options);
                } catch (const std::bad_alloc&) {
                    threw = true;
                }
                failed = fault.Fired();
            }

            EXPECT_EQ(failed, threw);
            EXPECT_EQ(!failed, done);
            (void)TakeDlogCalls();
            if (threw) {
                ExpectUnchanged("abc");
            } else {
                EXPECT_EQ("abc", ReadFile(destination_));
            }
            if (HasFailure()) {
                return;
            }
        }
        EXPECT_LE(8, failures);
    }
}

// ---- Attacks and races

TEST_P(SafeBothTest, ASourceThatBecomesAFifoDoesNotBlockAndIsRefused)
{
    WriteFile(source_, "abc");
    {
        const ScopedCall swap("openat", 1, [&]() -> std::optional<long> {
            EXPECT_EQ(0, unlink(source_.c_str()));
            EXPECT_EQ(0, mkfifo(source_.c_str(), 0600));
            return std::nullopt;
        });

        EXPECT_FALSE(Act());
    }

    ExpectSafeLines({GetParam().name + ": " + source_ + " is not a regular file (0x1000)."});
    EXPECT_THAT(other_.Names(), ElementsAre());
}

TEST_P(SafeBothTest, AStagedNameThatIsSwappedRedirectsNothing)
{
    const std::string victim = dir_.Write("victim", "victim's", 0600);
    for (const bool isLink : {true, false}) {
        WriteFile(source_, "abc");
        const ScopedCall noTmpfile("tmpfile", 1, FailWith(EOPNOTSUPP));
        const ScopedCall swap("copy_file_range", 1, [&]() -> std::optional<long> {
            const std::string staged = other_ / other_.Names().at(0);
            EXPECT_EQ(0, unlink(staged.c_str()));
            EXPECT_EQ(0, isLink ? symlink(victim.c_str(), staged.c_str()) : mkdir(staged.c_str(), 0777));
            return std::nullopt;
        });

        (void)Act();

        EXPECT_EQ("victim's", ReadFile(victim));
        EXPECT_EQ(0600U, ModeOf(victim));
        (void)TakeDlogCalls();
        other_.Clear();
    }
}

// ---- Two names of one file, by mounts

class SafeMountTest : public OrvTest {
protected:
    void SetUp() override
    {
        if (!CanMount()) {
            ORV_SKIP("no private mounts here: needs root or user namespaces");
        }
        ASSERT_EQ(0, mkdir(real_.c_str(), 0755));
        ASSERT_EQ(0, mkdir(bound_.c_str(), 0755));
    }

    void Bind() const
    {
        ASSERT_EQ(0, mount(real_.c_str(), bound_.c_str(), nullptr, MS_BIND, nullptr));
    }

    // `source` and `destination` are names of one file with the content "abc".
    static void ExpectKeptByBoth(const std::string& source, const std::string& destination)
    {
        EXPECT_TRUE(orv_safe::CopyFile(source, destination));
        EXPECT_EQ("abc", ReadFile(source));
        EXPECT_EQ("abc", ReadFile(destination));
        ExpectSafeLines({});

        EXPECT_FALSE(orv_safe::MoveFile(source, destination));
        ExpectSafeLines({"MoveFile: " + source + " and " + destination + " are the same file."});
        EXPECT_EQ("abc", ReadFile(source));
        EXPECT_EQ("abc", ReadFile(destination));
    }

    const std::string real_ = dir_ / "real";
    const std::string bound_ = dir_ / "bound";
};

TEST_F(SafeMountTest, AFileWithTwoNamesOnTwoMountsIsKept)
{
    dir_.Write("real/file", "abc", 0640);

    RunWithPrivateMounts([&] {
        Bind();

        ExpectKeptByBoth(real_ + "/file", bound_ + "/file");
        ExpectKeptByBoth(bound_ + "/file", real_ + "/file");

        EXPECT_THAT(NamesIn(real_), ElementsAre("file"));
        EXPECT_EQ(0640U, ModeOf(real_ + "/file"));
    });
}

TEST_F(SafeMountTest, AMoveBetweenTwoMountsOfOneDirectoryToAnotherNameWorks)
{
    dir_.Write("real/file", "abc");
    dir_.Write("real/old", "old");

    RunWithPrivateMounts([&] {
        Bind();

        EXPECT_TRUE(orv_safe::MoveFile(real_ + "/file", bound_ + "/new"));
        EXPECT_TRUE(orv_safe::MoveFile(real_ + "/new", bound_ + "/old"));

        EXPECT_THAT(NamesIn(real_), ElementsAre("old"));
        EXPECT_EQ("abc", ReadFile(real_ + "/old"));
    });
}

TEST_F(SafeMountTest, ALinkMovedThroughAnotherMountLosesNothing)
{
    dir_.Write("real/target", "abc");
    ASSERT_EQ(0, symlink("target", (real_ + "/link").c_str()));

    RunWithPrivateMounts([&] {
        Bind();

        EXPECT_FALSE(orv_safe::MoveFile(real_ + "/link", bound_ + "/link"));
        ExpectSafeLines({"MoveFile: " + real_ + "/link and " + bound_ + "/link are the same file."});
        EXPECT_TRUE(orv_safe::MoveFile(real_ + "/link", bound_ + "/target"));

        EXPECT_THAT(NamesIn(real_), ElementsAre("target"));
        EXPECT_EQ("abc", ReadFile(real_ + "/target"));
        EXPECT_TRUE(S_ISREG(StatusOf(real_ + "/target").st_mode));
    });
}

TEST_F(SafeMountTest, AHardLinkReplacedThroughAnotherMountLosesNothing)
{
    dir_.Write("real/file", "abc");
    ASSERT_EQ(0, link((real_ + "/file").c_str(), (real_ + "/link").c_str()));

    RunWithPrivateMounts([&] {
        Bind();

        ExpectKeptByBoth(real_ + "/file", bound_ + "/file");
        EXPECT_THAT(NamesIn(real_), ElementsAre("file", "link"));
        EXPECT_EQ("abc", ReadFile(real_ + "/link"));
    });
}

// The layers of an overlay have other device numbers than the overlay.
class SafeOverlayTest : public SafeMountTest {
protected:
    void SetUp() override
    {
        SafeMountTest::SetUp();
        if (!IsSkipped() && !CanMount([this] { return MountOverlay(); })) {
            ORV_SKIP("no overlay file system can be mounted here");
        }
    }

    // Its layers are in memory, because a disk that is itself an overlay cannot hold them.
    bool MountOverlay() const
    {
        MountTmpfs(real_, 1 << 20);
        for (const char* const name : {"/lower", "/upper", "/work"}) {
            (void)mkdir((real_ + name).c_str(), 0755);
        }
        WriteFile(real_ + "/lower/low", "abc");
        const std::string options =
            "lowerdir=" + real_ + "/lower,upperdir=" + real_ + "/upper,workdir=" + real_ + "/work";
        return mount("overlay", bound_.c_str(), "overlay", 0, options.c_str()) == 0;
    }

    void ExpectKeptInOverlay(const std::string& source, const std::string& destination)
    {
        RunWithPrivateMounts([&] {
            ASSERT_TRUE(MountOverlay()) << std::strerror(errno);
            WriteFile(bound_ + "/file", "abc");
            ExpectKeptByBoth(real_ + source, real_ + destination);
        });
    }
};

TEST_F(SafeOverlayTest, AFileInTheUpperDirectoryAndInTheMergedOneIsKept)
{
    RunWithPrivateMounts([&] {
        ASSERT_TRUE(MountOverlay()) << std::strerror(errno);
        WriteFile(bound_ + "/file", "abc");
        ASSERT_NE(StatusOf(real_ + "/upper/file").st_dev, StatusOf(bound_ + "/file").st_dev);

        ExpectKeptByBoth(real_ + "/upper/file", bound_ + "/file");
    });
}

TEST_F(SafeOverlayTest, AFileInTheMergedDirectoryAndInTheUpperOneIsKept)
{
    RunWithPrivateMounts([&] {
        ASSERT_TRUE(MountOverlay()) << std::strerror(errno);
        WriteFile(bound_ + "/file", "abc");

        ExpectKeptByBoth(bound_ + "/file", real_ + "/upper/file");
    });
}

TEST_F(SafeOverlayTest, AFileInTheMergedDirectoryAndInTheLowerOneIsKept)
{
    RunWithPrivateMounts([&] {
        ASSERT_TRUE(MountOverlay()) << std::strerror(errno);

        ExpectKeptByBoth(bound_ + "/low", real_ + "/lower/low");
    });
}

// The file of the overlay is another file from then on, so the lower one can be removed.
TEST_F(SafeOverlayTest, AFileOfTheLowerDirectoryMovedOntoItselfInTheMergedOneIsKept)
{
    RunWithPrivateMounts([&] {
        ASSERT_TRUE(MountOverlay()) << std::strerror(errno);

        EXPECT_TRUE(orv_safe::CopyFile(real_ + "/lower/low", bound_ + "/low"));
        EXPECT_EQ("abc", ReadFile(real_ + "/lower/low"));
        EXPECT_EQ("abc", ReadFile(bound_ + "/low"));
        EXPECT_TRUE(orv_safe::MoveFile(real_ + "/lower/low", bound_ + "/low"));

        EXPECT_EQ("abc", ReadFile(bound_ + "/low"));
        EXPECT_EQ("abc", ReadFile(real_ + "/upper/low"));
    });
}

TEST_F(SafeOverlayTest, AMoveWithinAnOverlayAndOutOfItWorks)
{
    RunWithPrivateMounts([&] {
        ASSERT_TRUE(MountOverlay()) << std::strerror(errno);

        EXPECT_TRUE(orv_safe::MoveFile(bound_ + "/low", bound_ + "/moved"));
        EXPECT_TRUE(orv_safe::MoveFile(bound_ + "/moved", dir_ / "file"));

        EXPECT_EQ("abc", dir_.Read("file"));
        EXPECT_THAT(NamesIn(bound_), ElementsAre());
    });
}

TEST_F(SafeMountTest, AFullDestinationLeavesEverythingAsItWas)
{
    const std::string bytes(100000, 'x');
    const std::string source = dir_.Write("source", bytes);

    RunWithPrivateMounts([&] {
        MountTmpfs(bound_, 64 << 10);
        WriteFile(bound_ + "/report", "old");

        for (const Named& function : {Named{"CopyFile", orv_safe::CopyFile}, Named{"MoveFile", orv_safe::MoveFile}}) {
            EXPECT_FALSE(function.call(source, bound_ + "/report", FileOptions()));

            ExpectSafeLines({SafeLine(function.name, "write", bound_ + "/report", ENOSPC)});
            EXPECT_THAT(NamesIn(bound_), ElementsAre("report"));
            EXPECT_EQ("old", ReadFile(bound_ + "/report"));
            EXPECT_EQ(bytes, ReadFile(source));
        }
    });
}

TEST_F(SafeMountTest, AFileOfAReadOnlyFileSystemIsCopiedAndKept)
{
    RunWithPrivateMounts([&] {
        MountTmpfs(bound_, 64 << 10);
        const std::string source = bound_ + "/source";
        WriteFile(source, "abc");
        ASSERT_EQ(0, mount("none", bound_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr));

        EXPECT_FALSE(orv_safe::MoveFile(source, dir_ / "destination"));

        ExpectSafeLines({SafeLine("MoveFile", "unlinkat", source, EROFS, kSourceKept)});
        EXPECT_EQ("abc", dir_.Read("destination"));
        EXPECT_EQ("abc", ReadFile(source));
    });
}

TEST_F(SafeMountTest, WithoutProcAFileWithANameOfItsOwnIsUsed)
{
    const std::string source = dir_.Write("source", "abc");
    dir_.Write("destination", "old");

    RunWithPrivateMounts([&] {
        MountTmpfs("/proc", 64 << 10);

        EXPECT_TRUE(orv_safe::CopyFile(source, dir_ / "destination"));

        EXPECT_EQ("abc", dir_.Read("destination"));
        EXPECT_THAT(dir_.Names(), ElementsAre("bound", "destination", "real", "source"));
    });
}

TEST_P(SafeBothTest, WorksOnAThreadWithASmallStack)
{
    const std::string bytes = BytesOfLength(100000);
    WriteFile(source_, bytes);
    bool done = false;

    RunOnSmallStack([&] { done = Act(With(&FileOptions::verify)); });

    EXPECT_TRUE(done);
    EXPECT_TRUE(bytes == ReadFile(destination_));
}
}  // namespace
