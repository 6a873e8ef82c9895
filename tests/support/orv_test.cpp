#include "support/orv_test.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <utility>

#include "dlog.h"
#include "support/oracle.h"

namespace {

constexpr uid_t kNobody = 65534;

thread_local bool capturing = false;
std::mutex callsMutex;
std::vector<DlogCall>& Calls()
{
    static std::vector<DlogCall> calls;
    return calls;
}

__attribute__((format(printf, 1, 0))) std::string Expand(const char* format, std::va_list arguments)
{
    char* text = nullptr;
    if (vasprintf(&text, format, arguments) < 0) {
        return "<not expanded>";
    }
    const std::unique_ptr<char, void (*)(void*)> owned(text, std::free);
    return owned.get();
}

void WriteWhole(const std::string& path, const std::string& text)
{
    std::ofstream file(path);
    file << text;
    file.close();
    ASSERT_TRUE(file) << path << ": " << std::strerror(errno);
}

// Makes a namespace in which a user without privileges is root and may mount.
bool EnterMountNamespace()
{
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (unshare(user == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) != 0) {
        return false;
    }
    if (user != 0) {
        WriteWhole("/proc/self/setgroups", "deny");
        WriteWhole("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
        WriteWhole("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
    }
    return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

int ExitStatusOfChild(const std::function<void()>& body)
{
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        body();
        std::fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0)) << std::strerror(errno);
    return status;
}

}  // namespace

void __dlog_printf(int severity, const char* sourceTag, const char* format, ...)
{
    capturing = true;
    std::va_list arguments;
    va_start(arguments, format);
    std::va_list again;
    va_copy(again, arguments);
    DlogCall call{severity, sourceTag, format, va_arg(again, const char*), Expand(format, arguments)};
    va_end(again);
    va_end(arguments);
    const std::lock_guard<std::mutex> lock(callsMutex);
    Calls().push_back(std::move(call));
    capturing = false;
}

bool IsCapturingDlogCall()
{
    return capturing;
}

std::vector<DlogCall> TakeDlogCalls()
{
    const std::lock_guard<std::mutex> lock(callsMutex);
    return std::exchange(Calls(), {});
}

void ExpectReports(const std::vector<Report>& expected)
{
    std::vector<std::string> expectedTexts;
    for (const Report& report : expected) {
        expectedTexts.push_back(report.format + " | " + report.text);
    }
    std::vector<std::string> texts;
    for (const DlogCall& call : TakeDlogCalls()) {
        EXPECT_EQ(messages::kSeverity, call.severity) << call.text;
        EXPECT_EQ(messages::kSource, call.sourceTag) << call.text;
        texts.push_back(call.format + " | " + call.text);
        const std::size_t at = texts.size() - 1;
        if (at < expectedTexts.size() && messages::IsLike(expectedTexts[at], texts[at])) {
            texts[at] = expectedTexts[at];
        }
    }
    EXPECT_EQ(expectedTexts, texts);
}

std::string MemoryDirectory()
{
    struct stat disk {};
    EXPECT_EQ(0, stat("/var/tmp", &disk)) << std::strerror(errno);
    for (const char* const directory : {"/dev/shm", "/tmp"}) {
        struct stat status {};
        if (stat(directory, &status) == 0 && status.st_dev != disk.st_dev && access(directory, W_OK | X_OK) == 0) {
            return directory;
        }
    }
    return "/var/tmp";
}

namespace {

// Process ids come again: an earlier process with this one's id may have left its page.
void RemovePageOfAnEarlierProcess()
{
    static pid_t removedFor = 0;
    if (removedFor != getpid()) {
        removedFor = getpid();
        (void)unlink(oracle::OwnTemporaryPage().c_str());
    }
}

}  // namespace

TempDir::TempDir(const std::string& base)
{
    RemovePageOfAnEarlierProcess();
    std::string path = base + "/orv_test.XXXXXX";
    if (mkdtemp(path.data()) == nullptr || chmod(path.c_str(), 0777) != 0) {
        ADD_FAILURE() << path << ": " << std::strerror(errno);
    }
    path_ = path;
}

TempDir::~TempDir()
{
    std::sort(expectedTemporaries_.begin(), expectedTemporaries_.end());
    EXPECT_EQ(expectedTemporaries_, LeftTemporaries()) << "temporary files left in " << path_;
    EXPECT_NE(0, unlink(oracle::OwnTemporaryPage().c_str())) << oracle::OwnTemporaryPage() << " was left";
    std::error_code error;
    std::filesystem::remove_all(path_, error);
    EXPECT_FALSE(error) << path_ << ": " << error.message();
}

void TempDir::Clear() const
{
    for (const std::string& name : Names()) {
        std::filesystem::remove_all(*this / name);
    }
}

void TempDir::ExpectTemporary(const std::string& name)
{
    expectedTemporaries_.push_back(name + messages::kAnySuffix);
}

// Their paths in this directory, with the part that mkstemp makes up replaced; sorted.
std::vector<std::string> TempDir::LeftTemporaries() const
{
    std::vector<std::string> left;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(
             path_, std::filesystem::directory_options::skip_permission_denied)) {
        const std::string name = entry.path().string().substr(path_.size() + 1);
        const std::string destination = name.substr(0, name.rfind('_'));
        if (oracle::IsTemporaryCopy(name, destination)) {
            left.push_back(destination + messages::kAnySuffix);
        }
    }
    std::sort(left.begin(), left.end());
    return left;
}

std::string TempDir::operator/(const std::string& name) const
{
    return path_ + "/" + name;
}

std::string TempDir::Write(const std::string& name, const std::string& bytes, mode_t mode) const
{
    const std::string path = *this / name;
    WriteFile(path, bytes);
    EXPECT_EQ(0, chmod(path.c_str(), mode)) << path;
    return path;
}

std::string TempDir::Read(const std::string& name) const
{
    return ReadFile(*this / name);
}

std::vector<std::string> TempDir::Names() const
{
    return NamesIn(path_);
}

std::string ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << path << ": " << std::strerror(errno);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

void WriteFile(const std::string& path, const std::string& bytes)
{
    std::ofstream file(path, std::ios::binary);
    file << bytes;
    file.close();
    EXPECT_TRUE(file) << path << ": " << std::strerror(errno);
}

std::vector<std::string> NamesIn(const std::string& directory)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

struct stat StatusOf(const std::string& path)
{
    struct stat status {};
    EXPECT_EQ(0, lstat(path.c_str(), &status)) << path << ": " << std::strerror(errno);
    return status;
}

bool Exists(const std::string& path)
{
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

mode_t ModeOf(const std::string& path)
{
    return StatusOf(path).st_mode & 07777;
}

std::vector<std::string> OpenDescriptors()
{
    std::vector<std::string> descriptors;
    DIR* const directory = opendir("/proc/self/fd");
    EXPECT_NE(nullptr, directory);
    const std::string own = std::to_string(dirfd(directory));
    while (const dirent* const entry = readdir(directory)) {
        if (entry->d_name != own && entry->d_name[0] != '.') {
            descriptors.emplace_back(entry->d_name);
        }
    }
    closedir(directory);
    std::sort(descriptors.begin(), descriptors.end());
    return descriptors;
}

std::vector<std::string> InheritedDescriptors()
{
    std::vector<std::string> descriptors = OpenDescriptors();
    const auto isClosed = [](const std::string& number) { return fcntl(std::stoi(number), F_GETFD) == FD_CLOEXEC; };
    descriptors.erase(std::remove_if(descriptors.begin(), descriptors.end(), isClosed), descriptors.end());
    return descriptors;
}

OrvTest::OrvTest() : dir_("/var/tmp"), descriptorsBefore_(OpenDescriptors())
{
    (void)TakeDlogCalls();
}

void OrvTest::TearDown()
{
    ExpectReports({});
    EXPECT_EQ(descriptorsBefore_, OpenDescriptors()) << "descriptors left open, or closed";
}

TwoFileSystemsTest::TwoFileSystemsTest() : other_(MemoryDirectory())
{
}

void TwoFileSystemsTest::SetUp()
{
    if (StatusOf(dir_.Path()).st_dev == StatusOf(other_.Path()).st_dev) {
        ORV_SKIP("no file system besides that of /var/tmp is writable");
    }
}

bool CanReadWithoutPermission()
{
    const TempDir dir("/var/tmp");
    return std::ifstream(dir.Write("closed", "", 0)).is_open();
}

void RunInChild(const std::function<void()>& body)
{
    EXPECT_EQ(0, ExitStatusOfChild(body)) << "failed in the child process";
}

void RunAsNobody(const std::function<void()>& body)
{
    RunInChild([&body] {
        if (geteuid() == 0) {
            ASSERT_EQ(0, setgroups(0, nullptr));
            ASSERT_EQ(0, setgid(kNobody));
            ASSERT_EQ(0, setuid(kNobody));
        }
        body();
    });
}

void RunIntoFileSizeLimit(std::size_t bytes, const std::function<void()>& body)
{
    const int status = ExitStatusOfChild([&] {
        const rlimit files{bytes, bytes};
        const rlimit cores{0, 0};
        ASSERT_EQ(0, setrlimit(RLIMIT_CORE, &cores));
        ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &files));
        ASSERT_NE(SIG_ERR, std::signal(SIGXFSZ, SIG_DFL));
        body();
    });
    EXPECT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(SIGXFSZ, WTERMSIG(status));
}

void RunOnSmallStack(const std::function<void()>& body)
{
#if defined(__SANITIZE_ADDRESS__)
    constexpr long kStackBytes = 1L << 20;  // the sanitizer's own frames are larger
#else
    constexpr long kStackBytes = 64L << 10;
#endif
    const long stackBytes = std::max(kStackBytes, sysconf(_SC_THREAD_STACK_MIN));
    pthread_attr_t attributes;
    ASSERT_EQ(0, pthread_attr_init(&attributes));
    ASSERT_EQ(0, pthread_attr_setstacksize(&attributes, static_cast<std::size_t>(stackBytes)));

    const auto run = [](void* argument) -> void* {
        (*static_cast<const std::function<void()>*>(argument))();
        return nullptr;
    };
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(&thread, &attributes, run, const_cast<std::function<void()>*>(&body)));
    ASSERT_EQ(0, pthread_join(thread, nullptr));
    (void)pthread_attr_destroy(&attributes);
}

bool CanMount(const std::function<bool()>& body)
{
    const int status = ExitStatusOfChild([&body] { _exit(EnterMountNamespace() && body() ? 0 : 1); });
    return status == 0;
}

void RunWithPrivateMounts(const std::function<void()>& body)
{
    RunInChild([&body] {
        ASSERT_TRUE(EnterMountNamespace()) << std::strerror(errno);
        body();
    });
}

void MountTmpfs(const std::string& path, std::size_t bytes)
{
    const std::string options = "mode=0777,size=" + std::to_string(bytes);
    ASSERT_EQ(0, mount("none", path.c_str(), "tmpfs", 0, options.c_str())) << path << ": " << std::strerror(errno);
}
