#include "campaigns/faults/tracer.h"
#include "campaigns/faults/begin_mark.h"
#include "campaigns/faults/machine.h"
#include "support/oracle.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ios>
#include <map>
#include <sstream>
#include <utility>

namespace {

using SyscallInfo = __ptrace_syscall_info;

using Word = std::uintptr_t;  // the size of a register, which SyscallInfo shows as 64 bits on all machines

// A call that the child is about to make.
struct Entry {
    explicit Entry(const SyscallInfo& info) : number(info.entry.nr)
    {
        std::transform(std::begin(info.entry.args), std::end(info.entry.args), arguments,
                       [](std::uint64_t argument) { return static_cast<Word>(argument); });
    }

    std::uint64_t number;
    Word arguments[std::size(SyscallInfo{}.entry.args)];
};

constexpr int kEndMark = -1001;

constexpr std::size_t kHeapBytes = 8U << 20;      // more than any scenario allocates
constexpr std::size_t kReportBytes = 4U << 20;    // the largest report of a child
constexpr std::size_t kMostCalls = 2000000;       // of one run: with more, it would not end
constexpr std::size_t kMostPathBytes = 4096 + 1;  // the longest that the kernel accepts

// ---- The arguments of the calls

// The calls that all machines have. machine::OwnCalls() has the others.
constexpr CallForm kForms[] = {
    {SYS_openat, "open", 1, -1, -1, -1, 2},
    {SYS_read, "read", -1, -1, 0, -1},
    {SYS_write, "write", -1, -1, 0, -1},
    {SYS_writev, "writev", -1, -1, 0, -1},
    {SYS_close, "close", -1, -1, 0, -1},
    {SYS_chmod, "chmod", 0, -1, -1, 1},
    {SYS_rename, "rename", 0, 1, -1, -1},
    {SYS_unlink, "unlink", 0, -1, -1, -1},
    {SYS_mkdir, "mkdir", 0, -1, -1, 1},
    {SYS_getdents64, "getdents", -1, -1, 0, -1},
    {SYS_getrandom, "getrandom", -1, -1, -1, -1},
    {SYS_getpid, "getpid", -1, -1, -1, -1},
    {SYS_geteuid, "geteuid", -1, -1, -1, -1},
    {SYS_access, "access", 0, -1, -1, -1},
    {SYS_linkat, "linkat", 1, 3, -1, -1},
    {SYS_renameat, "renameat", 1, 3, -1, -1},
    {SYS_renameat2, "renameat2", 1, 3, -1, -1},
    {SYS_unlinkat, "unlinkat", 1, -1, -1, -1},
    {SYS_mkdirat, "mkdirat", 1, -1, -1, 2},
    {SYS_readlinkat, "readlinkat", 1, -1, -1, -1},
    {SYS_copy_file_range, "copy_file_range", -1, -1, 0, -1},
    {SYS_pread64, "pread", -1, -1, 0, -1},
    {SYS_fsync, "fsync", -1, -1, 0, -1},
    {SYS_fdatasync, "fdatasync", -1, -1, 0, -1},
    {SYS_fchmod, "fchmod", -1, -1, 0, 1},
    {SYS_fchown, "fchown", -1, -1, 0, -1},
    {SYS_flistxattr, "flistxattr", -1, -1, 0, -1},
    {SYS_fgetxattr, "fgetxattr", -1, -1, 0, -1},
    {SYS_fsetxattr, "fsetxattr", -1, -1, 0, -1},
    {SYS_brk, "brk", -1, -1, -1, -1},
    {SYS_munmap, "munmap", -1, -1, -1, -1},
    {SYS_ioctl, "ioctl", -1, -1, 0, -1},
    {SYS_rt_sigaction, "sigaction", -1, -1, -1, -1},
    {SYS_rt_sigprocmask, "sigprocmask", -1, -1, -1, -1},
    {SYS_exit_group, "exit", -1, -1, -1, -1},
    {SYS_futex, "futex", -1, -1, -1, -1},
};

using Forms = std::map<std::uint64_t, CallForm>;

const Forms& AllForms()
{
    static const Forms forms = [] {
        Forms all;
        for (const CallForm& form : kForms) {
            all.emplace(form.number, form);
        }
        for (const CallForm& form : machine::OwnCalls()) {
            all.emplace(form.number, form);
        }
        return all;
    }();
    return forms;
}

// ---- The child's report: strings, each after its length

void Append(std::string& report, const std::string& text)
{
    report += std::to_string(text.size()) + ":" + text;
}

void Append(std::string& report, const std::vector<std::string>& texts)
{
    Append(report, std::to_string(texts.size()));
    for (const std::string& text : texts) {
        Append(report, text);
    }
}

class ReportReader {
public:
    explicit ReportReader(std::string report) : in_(std::move(report))
    {
    }

    std::string Text()
    {
        std::size_t bytes = 0;
        char colon = '\0';
        in_ >> bytes >> colon;
        std::string text(bytes, '\0');
        in_.read(text.data(), static_cast<std::streamsize>(bytes));
        return text;
    }

    int Number()
    {
        return std::stoi(Text());
    }

    std::vector<std::string> Texts()
    {
        std::vector<std::string> texts(static_cast<std::size_t>(Number()));
        for (std::string& text : texts) {
            text = Text();
        }
        return texts;
    }

private:
    std::istringstream in_;
};

// Memory that parent and child share; reused by all runs.
struct SharedReport {
    std::size_t bytes;
    char text[kReportBytes];
};

SharedReport& Shared()
{
    static void* const memory =
        mmap(nullptr, sizeof(SharedReport), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        std::abort();
    }
    return *static_cast<SharedReport*>(memory);
}

std::string ReportOf(const Answer& answer, const std::vector<std::string>& descriptorsBefore)
{
    std::string report;
    Append(report, answer.result);
    Append(report, answer.items);
    const std::vector<DlogCall> lines = TakeDlogCalls();
    Append(report, std::to_string(lines.size()));
    for (const DlogCall& line : lines) {
        Append(report, {std::to_string(line.severity), line.sourceTag, line.format, line.function, line.text});
    }
    Append(report, descriptorsBefore);
    Append(report, OpenDescriptors());
    return report;
}

void ReadReport(TracedRun& run)
{
    ReportReader report(std::string(Shared().text, Shared().bytes));
    run.answer.result = report.Text();
    run.answer.items = report.Texts();
    run.lines.resize(static_cast<std::size_t>(report.Number()));
    for (DlogCall& line : run.lines) {
        const std::vector<std::string> texts = report.Texts();
        line = DlogCall{std::stoi(texts[0]), texts[1], texts[2], texts[3], texts[4]};
    }
    run.descriptorsBefore = report.Texts();
    run.descriptorsAfter = report.Texts();
}

[[noreturn]] void BeTraced(const std::function<Answer()>& body)
{
    const std::vector<std::string> descriptorsBefore = OpenDescriptors();
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0 || raise(SIGSTOP) != 0) {
        _exit(2);
    }
    (void)close(kBeginMark);
    const Answer answer = body();
    (void)close(kEndMark);
    const std::string report = ReportOf(answer, descriptorsBefore);
    if (report.size() > kReportBytes) {
        _exit(3);
    }
    report.copy(Shared().text, report.size());
    Shared().bytes = report.size();
    _exit(0);
}

[[noreturn]] void BeProgram(const TracedProgram& program)
{
    std::vector<char*> arguments;
    for (const std::string& argument : program.command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    const int output = open(program.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const int input = open(program.input.c_str(), O_RDONLY | O_CLOEXEC);
    if (chdir(program.directory.c_str()) != 0 || dup2(input, STDIN_FILENO) == -1 || dup2(output, STDOUT_FILENO) == -1 ||
        dup2(output, STDERR_FILENO) == -1 || setenv("LD_PRELOAD", program.mark.c_str(), 1) != 0 ||
        setenv("ORV_NEW_FAILS", program.memory.c_str(), 1) != 0 || setenv("LC_ALL", "C", 1) != 0 ||
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0 || raise(SIGSTOP) != 0) {
        _exit(2);
    }
    (void)execv(arguments[0], arguments.data());
    _exit(3);
}

// Runs once, before the first child, because the C and C++ libraries make some system calls only once. The heap gets
// its memory and keeps it. An exception is thrown, because streams throw one internally after a failed read.
void WarmUp()
{
    static const bool warm = [] {
        mallopt(M_MMAP_THRESHOLD, static_cast<int>(kHeapBytes) * 2);
        mallopt(M_TRIM_THRESHOLD, static_cast<int>(kHeapBytes) * 2);
        std::free(std::malloc(kHeapBytes));
        try {
            throw std::ios_base::failure("warm-up");
        } catch (const std::ios_base::failure&) {
        }
        return true;
    }();
    (void)warm;
}

// ---- The tracer

class Tracer {
public:
    Tracer(pid_t child, const std::vector<Fault>& faults) : child_(child), faults_(faults)
    {
        run_.child = child;
    }

    TracedRun Run();

private:
    bool WaitForStop();
    void OnStop();
    void OnEntry(const Entry& entry);
    void OnExit(long result);
    TracedCall Describe(const Entry& entry);
    void Inject(TracedCall& call, const Fault& fault, const Entry& entry);
    void Shorten(const TracedCall& call, std::size_t bytes, const Entry& entry);
    void FollowDescriptors(const TracedCall& call);
    void Kill();

    std::string TextAt(Word address) const;
    template <typename Item>
    std::vector<Item> ItemsAt(Word address, std::size_t count) const;
    void PutBytes(Word address, const std::vector<char>& bytes) const;

    pid_t child_;
    const std::vector<Fault>& faults_;
    TracedRun run_;
    bool inWindow_ = false;
    bool leaving_ = false;
    int status_ = 0;
    std::map<std::string, int> occurrences_;
    std::map<int, std::string> descriptorPaths_;

    // For the current call:
    const Fault* killAfter_ = nullptr;
    int forcedError_ = 0;             // 0: none
    std::size_t countToRestore_ = 0;  // what the program passed, if a read or write was shortened
    bool restoreCount_ = false;
    Word vectorAddress_ = 0;  // where the program has it, if a writev was shortened
    std::vector<char> vectorToRestore_;
};

template <typename Item>
std::vector<Item> Tracer::ItemsAt(Word address, std::size_t count) const
{
    std::vector<Item> items(count);
    iovec local{items.data(), count * sizeof(Item)};
    iovec remote{reinterpret_cast<void*>(address), count * sizeof(Item)};
    const ssize_t got = process_vm_readv(child_, &local, 1, &remote, 1, 0);
    items.resize(got < 0 ? 0 : static_cast<std::size_t>(got) / sizeof(Item));
    return items;
}

std::string Tracer::TextAt(Word address) const
{
    // Reads page by page, because the memory after the text may not exist.
    constexpr Word kPageBytes = 4096;
    std::string text;
    while (text.size() < kMostPathBytes) {
        const Word at = address + text.size();
        const std::vector<char> bytes = ItemsAt<char>(at, kPageBytes - at % kPageBytes);
        const auto end = std::find(bytes.begin(), bytes.end(), '\0');
        text.append(bytes.begin(), end);
        if (bytes.empty() || end != bytes.end()) {
            break;
        }
    }
    return text;
}

void Tracer::PutBytes(Word address, const std::vector<char>& bytes) const
{
    std::vector<char> copy = bytes;
    iovec local{copy.data(), copy.size()};
    iovec remote{reinterpret_cast<void*>(address), copy.size()};
    (void)process_vm_writev(child_, &local, 1, &remote, 1, 0);
}

TracedCall Tracer::Describe(const Entry& entry)
{
    const auto& args = entry.arguments;
    TracedCall call;
    const auto found = AllForms().find(entry.number);
    if (found == AllForms().end()) {
        call.name = "system call " + std::to_string(entry.number);
        return call;
    }
    const CallForm& form = found->second;
    call.name = form.name;
    int descriptor = form.descriptor == -1 ? -1 : static_cast<int>(args[form.descriptor]);
    const Word flags = form.flags == -1 ? 0 : args[form.flags];
    if (call.name == "stat" && (flags & AT_EMPTY_PATH) != 0) {
        call.name = "fstat";
        descriptor = static_cast<int>(args[0]);
    } else if (call.name == "stat" && (flags & AT_SYMLINK_NOFOLLOW) != 0) {
        call.name = "lstat";
    } else if (call.name == "open" && (flags & O_TMPFILE) == O_TMPFILE) {
        call.name = "tmpfile";
    } else if (call.name == "open" && (flags & O_CREAT) != 0) {
        call.name = "create";
    }
    if (descriptor != -1) {
        call.paths.push_back(descriptorPaths_[descriptor]);
    } else {
        for (const int path : {form.firstPath, form.secondPath}) {
            if (path != -1) {
                call.paths.push_back(TextAt(args[path]));
            }
        }
    }
    if (form.mode != -1) {
        call.mode = static_cast<unsigned int>(args[form.mode]);
    }
    if (form.number == SYS_read || form.number == SYS_write || form.number == SYS_pread64) {
        call.asked = args[2];
    } else if (form.number == SYS_writev) {
        for (const iovec& part : ItemsAt<iovec>(args[1], args[2])) {
            call.asked += part.iov_len;
        }
    }
    return call;
}

void Tracer::Kill()
{
    run_.killed = true;
    (void)kill(child_, SIGKILL);
}

void Tracer::Shorten(const TracedCall& call, std::size_t bytes, const Entry& entry)
{
    const auto& args = entry.arguments;
    if (call.name != "writev") {
        countToRestore_ = args[2];
        restoreCount_ = true;
        machine::SetThirdArgument(child_, bytes);
        return;
    }
    vectorAddress_ = args[1];
    vectorToRestore_ = ItemsAt<char>(args[1], args[2] * sizeof(iovec));
    std::vector<iovec> parts = ItemsAt<iovec>(args[1], args[2]);
    for (iovec& part : parts) {
        part.iov_len = std::min(part.iov_len, bytes);
        bytes -= part.iov_len;
    }
    const char* const shortened = reinterpret_cast<const char*>(parts.data());
    PutBytes(vectorAddress_, std::vector<char>(shortened, shortened + vectorToRestore_.size()));
}

void Tracer::Inject(TracedCall& call, const Fault& fault, const Entry& entry)
{
    ++call.faults;
    switch (fault.kind) {
        case Fault::Kind::kError:
            forcedError_ = static_cast<int>(fault.value);
            if (call.name != "close") {
                machine::SkipCall(child_);
            }
            break;
        case Fault::Kind::kShort:
            Shorten(call, static_cast<std::size_t>(fault.value), entry);
            break;
        case Fault::Kind::kKillBefore:
            machine::SkipCall(child_);
            Kill();
            break;
        case Fault::Kind::kKillAfter:
            killAfter_ = &fault;
            break;
    }
}

void Tracer::OnEntry(const Entry& entry)
{
    const bool isClose = entry.number == SYS_close;
    if (isClose && static_cast<int>(entry.arguments[0]) == kBeginMark) {
        inWindow_ = true;
        leaving_ = true;  // the exit of the mark itself does not count
        return;
    }
    if (!inWindow_) {
        return;
    }
    if (isClose && static_cast<int>(entry.arguments[0]) == kEndMark) {
        inWindow_ = false;
        return;
    }
    TracedCall call = Describe(entry);
    call.occurrence = ++occurrences_[call.name];
    for (const Fault& fault : faults_) {
        const int after = call.occurrence - fault.occurrence;
        if (call.name == fault.call && after >= 0 && after < fault.times) {
            Inject(call, fault, entry);
        }
    }
    run_.calls.push_back(std::move(call));
}

void Tracer::FollowDescriptors(const TracedCall& call)
{
    if ((call.name == "open" || call.name == "create" || call.name == "tmpfile") && call.result >= 0) {
        descriptorPaths_[static_cast<int>(call.result)] = call.paths[0];
    }
}

void Tracer::OnExit(long result)
{
    if (leaving_) {
        leaving_ = false;
        return;
    }
    if (!inWindow_) {
        return;
    }
    TracedCall& call = run_.calls.back();
    call.result = result;
    if (killAfter_ != nullptr) {
        Kill();
        return;
    }
    if (forcedError_ != 0) {
        machine::SetError(child_, forcedError_);
        call.result = -std::exchange(forcedError_, 0);
    }
    if (std::exchange(restoreCount_, false)) {
        machine::SetThirdArgument(child_, countToRestore_);
    }
    if (!vectorToRestore_.empty()) {
        PutBytes(vectorAddress_, std::exchange(vectorToRestore_, {}));
    }
    call.finished = true;
    FollowDescriptors(call);
}

bool Tracer::WaitForStop()
{
    if (waitpid(child_, &status_, __WALL) != child_) {
        run_.problem = std::string("waitpid: ") + std::strerror(errno);
        return false;
    }
    return WIFSTOPPED(status_);
}

void Tracer::OnStop()
{
    SyscallInfo info{};
    if (ptrace(PTRACE_GET_SYSCALL_INFO, child_, sizeof info, &info) <= 0) {
        run_.problem = std::string("PTRACE_GET_SYSCALL_INFO: ") + std::strerror(errno);
        Kill();
    } else if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
        OnEntry(Entry(info));
    } else if (info.op == PTRACE_SYSCALL_INFO_EXIT) {
        OnExit(static_cast<long>(info.exit.rval));
    }
    if (run_.calls.size() > kMostCalls) {
        run_.problem = "does not end";
        Kill();
    }
}

TracedRun Tracer::Run()
{
    constexpr int kSyscallStop = SIGTRAP | 0x80;
    if (!WaitForStop()) {
        run_.problem = "cannot be traced";
        return run_;
    }
    (void)ptrace(PTRACE_SETOPTIONS, child_, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL | PTRACE_O_TRACEEXEC);
    int signal = 0;  // the first stop is not passed to the child
    while (ptrace(PTRACE_SYSCALL, child_, nullptr, signal) == 0 && WaitForStop()) {
        const bool isCall = WSTOPSIG(status_) == kSyscallStop;
        const bool isEvent = static_cast<unsigned int>(status_) >> 16U != 0;  // such as the start of a program
        signal = isCall || isEvent ? 0 : WSTOPSIG(status_);
        if (isCall) {
            OnStop();
        }
    }
    if (WIFSTOPPED(status_)) {  // killed while it was stopped: wait for its end
        (void)waitpid(child_, &status_, __WALL);
    }
    if (run_.problem.empty() && !run_.killed && !WIFEXITED(status_)) {
        run_.problem = "the child ended with status " + std::to_string(status_);
    }
    run_.status = WEXITSTATUS(status_);
    if (run_.killed && !(WIFSIGNALED(status_) && WTERMSIG(status_) == SIGKILL)) {
        run_.problem = "the child outlived SIGKILL, status " + std::to_string(status_);
    }
    return run_;
}

}  // namespace

TracedRun RunTraced(const std::function<Answer()>& body, const std::vector<Fault>& faults)
{
    WarmUp();
    Shared().bytes = 0;
    (void)TakeDlogCalls();
    const pid_t child = fork();
    if (child == 0) {
        (void)unlink(oracle::OwnTemporaryPage().c_str());
        BeTraced(body);
    }
    TracedRun run = Tracer(child, faults).Run();
    if (run.problem.empty() && !run.killed && run.status != 0) {
        run.problem = "the child ended with exit status " + std::to_string(run.status);
    }
    if (run.problem.empty() && !run.killed) {
        ReadReport(run);
    }
    return run;
}

TracedRun RunTraced(const TracedProgram& program, const std::vector<Fault>& faults)
{
    const pid_t child = fork();
    if (child == 0) {
        BeProgram(program);
    }
    return Tracer(child, faults).Run();
}

bool CanTrace()
{
    return RunTraced([] { return Answer{"traced", {}}; }, {}).answer.result == "traced";
}
