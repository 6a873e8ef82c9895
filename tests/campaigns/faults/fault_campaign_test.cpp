// Makes every system call of every function fail, once and from there on, with every error number that its manual page
// lists, and shortens every read and write. The tables of this file contain the expected result, one row for each
// failure of a call. The tests compare everything: result, containers, log lines, files, descriptors.

#include "LxFileUtils.h"
#include "campaigns/faults/tracer.h"
#include "support/cases.h"
#include "support/messages.h"
#include "support/oracle.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

// ---- Files before and after a run

struct FileState {
    mode_t mode = 0;    // type and permissions
    std::string bytes;  // content, or the target of a symbolic link
    nlink_t links = 1;
    uid_t owner = geteuid();
    ino_t inode = 0;  // 0 for a file that the run makes
    std::int64_t modified = 0;
};

using Files = std::map<std::string, FileState>;

FileState StateOf(const std::string& path)
{
    const struct stat status = StatusOf(path);
    FileState state;
    state.mode = status.st_mode;
    state.owner = status.st_uid;
    state.inode = status.st_ino;
    if (S_ISREG(status.st_mode)) {
        state.bytes = ReadFile(path);
    } else if (S_ISLNK(status.st_mode)) {
        state.bytes = std::filesystem::read_symlink(path);
    }
    if (!S_ISDIR(status.st_mode)) {  // links and time of a directory change with its entries, which are compared
        state.links = status.st_nlink;
        state.modified = status.st_mtim.tv_sec * 1000000000LL + status.st_mtim.tv_nsec;
    }
    return state;
}

std::string Shown(const FileState& state)
{
    std::ostringstream text;
    text << std::oct << state.mode << std::dec << ", owner " << state.owner << ", links " << state.links << ", inode "
         << state.inode << ", modified " << state.modified << ", " << state.bytes.size() << " bytes, "
         << state.bytes.substr(0, 60);
    return text.str();
}

bool IsAsExpected(const FileState& expected, const FileState& found)
{
    const bool isNew = expected.inode == 0;
    return expected.mode == found.mode && expected.bytes == found.bytes && expected.links == found.links &&
           expected.owner == found.owner &&
           (isNew || (expected.inode == found.inode && expected.modified == found.modified));
}

FileState NewFile(mode_t permissions, const std::string& bytes)
{
    FileState state;
    state.mode = S_IFREG | permissions;
    state.bytes = bytes;
    return state;
}

mode_t Umask()
{
    const mode_t mask = umask(0);
    (void)umask(mask);
    return mask;
}

// ---- The tables: the results of failed calls

constexpr int kAnyError = 0;

struct Row {
    const char* call;               // name and roles of its paths
    int error;                      // the row is only for this error number; the first row that matches counts
    const char* result;             // of the function, which ends after the failed call; null: it continues
    const messages::Message* line;  // that reports it; null: no line
    const char* arguments;  // of the line: 1 and 2 are paths of the call, e errno, t its text, m mode, asked, got bytes
};

constexpr char kFalse[] = "false";
const std::string kFalseAndErrno = "false, errno ";  // and the error number

const Row kFileExistsRows[] = {
    {"stat(PATH)", kAnyError, kFalseAndErrno.c_str(), nullptr, nullptr},
};

const Row kMoveRows[] = {
    {"stat(SOURCE)", kAnyError, kFalse, &messages::kRenameStat, "1 e"},
    {"rename(SOURCE, DESTINATION)", EXDEV, nullptr, nullptr, nullptr},
    {"rename(SOURCE, DESTINATION)", kAnyError, kFalse, &messages::kRenameRename, "1 2 e"},
    // Checks whether the source may be removed. If the check fails, the source stays.
    {"lstat(SOURCE)", kAnyError, nullptr, &messages::kRenameUnlink, "1 e"},
    {"getrandom()", kAnyError, nullptr, nullptr, nullptr},     // mkstemp then uses the clock
    {"create(TEMPORARY)", EEXIST, nullptr, nullptr, nullptr},  // mkstemp tries another name
    {"create(TEMPORARY)", kAnyError, kFalse, &messages::kRenameMkstemp, "1 e"},
    {"open(SOURCE)", kAnyError, kFalse, &messages::kRenameOpen, "1 e"},
    {"read(SOURCE)", kAnyError, kFalse, nullptr, nullptr},
    {"write(TEMPORARY)", kAnyError, kFalse, &messages::kRenameWrite, "asked got e"},
    {"close(SOURCE)", kAnyError, nullptr, nullptr, nullptr},
    {"close(TEMPORARY)", kAnyError, nullptr, nullptr, nullptr},
    {"chmod(TEMPORARY)", kAnyError, kFalse, &messages::kRenameChmod, "1 m e"},
    {"rename(TEMPORARY, DESTINATION)", kAnyError, kFalse, &messages::kRenameRename, "1 2 e"},
    {"unlink(SOURCE)", kAnyError, nullptr, &messages::kRenameUnlink, "1 e"},
    {"unlink(TEMPORARY)", kAnyError, nullptr, &messages::kRenameUnlink, "1 e"},
};

// The calls of the page. Those of its move, whose source is the temporary page, are in kMoveRows.
const Row kPageRows[] = {
    {"getpid()", kAnyError, nullptr, nullptr, nullptr},       {"open(TEXT)", kAnyError, nullptr, nullptr, nullptr},
    {"create(SOURCE)", kAnyError, nullptr, nullptr, nullptr}, {"read(TEXT)", kAnyError, nullptr, nullptr, nullptr},
    {"write(SOURCE)", kAnyError, nullptr, nullptr, nullptr},  {"writev(SOURCE)", kAnyError, nullptr, nullptr, nullptr},
    {"close(TEXT)", kAnyError, nullptr, nullptr, nullptr},
};

const Row kCopyRows[] = {
    {"stat(SOURCE)", kAnyError, "-1", nullptr, nullptr},
    {"open(SOURCE)", kAnyError, "-2", nullptr, nullptr},
    {"create(DESTINATION)", kAnyError, "-3", nullptr, nullptr},
    {"read(SOURCE)", kAnyError, nullptr, nullptr, nullptr},
    {"write(DESTINATION)", kAnyError, nullptr, nullptr, nullptr},
    {"writev(DESTINATION)", kAnyError, nullptr, nullptr, nullptr},
    {"close(SOURCE)", kAnyError, nullptr, nullptr, nullptr},
    {"close(DESTINATION)", kAnyError, nullptr, nullptr, nullptr},
};

const Row kMakeDirRows[] = {
    {"stat(PATH)", kAnyError, nullptr, nullptr, nullptr},      // counts as missing
    {"stat(ANCESTOR)", kAnyError, nullptr, nullptr, nullptr},  // counts as missing
    {"mkdir(ANCESTOR)", EEXIST, nullptr, nullptr, nullptr},
    {"mkdir(ANCESTOR)", kAnyError, kFalse, &messages::kWorkerMkdir, "1 t"},
    {"mkdir(PATH)", EEXIST, nullptr, nullptr, nullptr},
    {"mkdir(PATH)", kAnyError, kFalse, &messages::kWorkerMkdir, "1 t"},
    {"chmod(PATH)", kAnyError, nullptr, &messages::kMakeChmod, "1 e"},
};

const Row kListRows[] = {
    {"open(PATH)", kAnyError, kFalse, &messages::kListOpen, "1 e"},
    {"fstat(PATH)", kAnyError, kFalse, &messages::kListOpen, "1 e"},
    {"getdents(PATH)", ENOENT, nullptr, nullptr,
     nullptr},  // readdir: a directory that was removed while it was open has no more entries
    {"getdents(PATH)", kAnyError, kFalse, &messages::kListRead, "1 e"},
    {"close(PATH)", kAnyError, nullptr, nullptr, nullptr},
};

const Row kNameValueRows[] = {
    {"open(PATH)", kAnyError, kFalse, &messages::kNameValueOpen, "1"},
    {"read(PATH)", kAnyError, nullptr, nullptr, nullptr},
    {"close(PATH)", kAnyError, nullptr, nullptr, nullptr},
};

template <std::size_t size>
std::vector<Row> Table(const Row (&rows)[size])
{
    return std::vector<Row>(rows, rows + size);
}

std::vector<Row> PageTable()
{
    std::vector<Row> rows = Table(kPageRows);
    const std::vector<Row> moveRows = Table(kMoveRows);
    rows.insert(rows.end(), moveRows.begin(), moveRows.end());
    return rows;
}

// ---- Scenarios

// The expected state after a run. It begins as the files before the run, and the result and lines of the table.
struct Expectation {
    Answer answer;
    std::vector<Report> lines;
    Files files;
};

struct Scenario {
    std::string name;
    std::vector<Row> rows;
    std::string result;  // if no call fails
    std::function<void()> arrange;
    std::function<Answer()> act;
    std::function<std::string(const std::string& path, pid_t child)> roleOf;
    std::function<void(const TracedRun& run, Expectation& expected)> complete;  // adds what is not in the table
    std::vector<Fault> always;                                                  // injected in every run
};

std::string BoolText(bool value)
{
    return value ? "true" : "false";
}

std::string KeyOf(const TracedCall& call, const Scenario& scenario, pid_t child)
{
    std::string roles;
    for (const std::string& path : call.paths) {
        roles += (roles.empty() ? "" : ", ") + scenario.roleOf(path, child);
    }
    return call.name + "(" + roles + ")";
}

bool WentWrong(const TracedCall& call)
{
    return call.Failed() || (call.name == "write" && call.result != static_cast<long>(call.asked));
}

std::string Octal(unsigned int mode)
{
    char text[16];
    (void)std::snprintf(text, sizeof text, "%03o", mode);
    return text;
}

// Returns the line of the row for a failed call.
Report LineFor(const Row& row, const TracedCall& call, int error)
{
    const std::map<std::string, std::string> values = {
        {"1", call.paths.empty() ? "" : call.paths[0]},
        {"2", call.paths.size() < 2 ? "" : call.paths[1]},
        {"e", std::to_string(error)},
        {"t", std::strerror(error)},
        {"m", Octal(call.mode)},
        {"asked", std::to_string(call.asked)},
        {"got", std::to_string(call.Failed() ? -1 : call.result)},
    };
    std::vector<std::string> arguments;
    std::istringstream names(row.arguments);
    for (std::string name; names >> name;) {
        arguments.push_back(values.at(name));
    }
    return row.line->With(arguments);
}

const Row* RowFor(const Scenario& scenario, const std::string& key, int error)
{
    const auto row = std::find_if(scenario.rows.begin(), scenario.rows.end(), [&](const Row& candidate) {
        return candidate.call == key && (candidate.error == kAnyError || candidate.error == error);
    });
    return row == scenario.rows.end() ? nullptr : &*row;
}

// Applies the table to the calls of a run. The errno of a short write is that of the last call that failed before it.
// Calls inside mkstemp do not count: if mkstemp finds a name, it does not change errno.
Expectation ByTable(const Scenario& scenario, const TracedRun& run, std::vector<std::string>& problems)
{
    Expectation expected;
    expected.answer.result = scenario.result;
    bool gaveUp = false;
    int staleError = 0;
    for (const TracedCall& call : run.calls) {
        const std::string key = KeyOf(call, scenario, run.child);
        const int error = call.Failed() ? call.Error() : staleError;
        const bool isInMkstemp = key == "create(TEMPORARY)" || call.name == "getrandom";
        staleError = isInMkstemp ? staleError : error;
        const Row* const row = RowFor(scenario, key, error);
        if (row == nullptr) {
            problems.push_back("a call that the tables do not list: " + key);
            continue;
        }
        if (gaveUp && call.name != "close" && key != "unlink(TEMPORARY)") {
            problems.push_back("after a failure, more than cleaning up: " + key);
        }
        if (!WentWrong(call)) {
            continue;
        }
        if (row->line != nullptr) {
            expected.lines.push_back(LineFor(*row, call, error));
        }
        if (row->result != nullptr) {
            expected.answer.result =
                row->result == kFalseAndErrno ? kFalseAndErrno + std::to_string(error) : row->result;
            gaveUp = true;
        }
    }
    return expected;
}

const TracedCall* Find(const TracedRun& run, const std::string& name, const std::string& firstPath)
{
    const auto call = std::find_if(run.calls.begin(), run.calls.end(), [&](const TracedCall& candidate) {
        return candidate.name == name && !candidate.paths.empty() && candidate.paths[0] == firstPath;
    });
    return call == run.calls.end() ? nullptr : &*call;
}

bool Succeeded(const TracedCall* call)
{
    return call != nullptr && !call->Failed();
}

// Returns the number of bytes that the successful calls of that name moved.
std::size_t BytesMoved(const TracedRun& run, const std::string& name, const std::string& path)
{
    std::size_t bytes = 0;
    for (const TracedCall& call : run.calls) {
        if (call.name == name && call.paths[0] == path && call.result > 0) {
            bytes += static_cast<std::size_t>(call.result);
        }
    }
    return bytes;
}

bool AnyFailed(const TracedRun& run, const std::string& name, const std::string& path)
{
    return std::any_of(run.calls.begin(), run.calls.end(), [&](const TracedCall& call) {
        return call.name == name && call.paths[0] == path && call.Failed() && call.Error() != EINTR;
    });
}

// Returns the part of `bytes` that was read from `path`: all, unless it was not opened, or a read failed or returned 0
// bytes. An interrupted read does not end the reading of a stream.
std::string Delivered(const TracedRun& run, const std::string& path, const std::string& bytes)
{
    if (!Succeeded(Find(run, "open", path))) {
        return "";
    }
    const bool endedEarly = std::any_of(run.calls.begin(), run.calls.end(), [&path](const TracedCall& call) {
        return call.name == "read" && call.paths[0] == path && call.faults != 0 && call.result == 0;
    });
    return endedEarly || AnyFailed(run, "read", path) ? bytes.substr(0, BytesMoved(run, "read", path)) : bytes;
}

// Returns the part of `text` that a stream read, line by line. After an error, an incomplete line is lost.
std::string LinesDelivered(const TracedRun& run, const std::string& path, const std::string& text)
{
    std::string delivered = Delivered(run, path, text);
    if (AnyFailed(run, "read", path)) {
        delivered.erase(delivered.rfind('\n') + 1);
    }
    return delivered;
}

// Returns the part of `bytes` that a stream wrote to `path`: all, unless a write failed; then the beginning that the
// other writes wrote. (After the failed write, only close writes once more what is still in the buffer.)
std::string Written(const TracedRun& run, const std::string& path, const std::string& bytes)
{
    const bool failed = AnyFailed(run, "write", path) || AnyFailed(run, "writev", path);
    return failed ? bytes.substr(0, BytesMoved(run, "write", path) + BytesMoved(run, "writev", path)) : bytes;
}

// ---- Moves

std::string RoleInMove(const std::string& path, const std::string& source, const std::string& destination)
{
    if (path == source) {
        return "SOURCE";
    }
    if (path == destination) {
        return "DESTINATION";
    }
    return oracle::IsTemporaryCopy(path, destination) ? "TEMPORARY" : path;
}

// The files after a move of `sourceBytes`. A copy gets `copiedMode`, the nine permission bits of the source.
void CompleteMove(const TracedRun& run, Expectation& expected, const std::string& source,
                  const std::string& destination, const std::string& sourceBytes, mode_t copiedMode, bool moved)
{
    Files& files = expected.files;
    if (moved && Succeeded(Find(run, "rename", source))) {
        files[destination] = files[source];
        files.erase(source);
        return;
    }
    const auto created = std::find_if(run.calls.begin(), run.calls.end(), [&](const TracedCall& call) {
        return call.name == "create" && oracle::IsTemporaryCopy(call.paths[0], destination) && !call.Failed();
    });
    if (created == run.calls.end()) {
        return;
    }
    const std::string temporary = created->paths[0];
    if (!moved) {
        const TracedCall* const unlinked = Find(run, "unlink", temporary);
        if (unlinked != nullptr && unlinked->Failed()) {  // the table reports it
            const bool hasMode = Succeeded(Find(run, "chmod", temporary));
            files[temporary] =
                NewFile(hasMode ? copiedMode : 0600, sourceBytes.substr(0, BytesMoved(run, "write", temporary)));
        }
        return;
    }
    FileState& was = files[source];
    if (was.links == 2) {  // the other name was the destination
        was.links = 1;
    }
    // A read of 0 bytes is the end of the file, at any position.
    files[destination] = NewFile(copiedMode, Delivered(run, source, sourceBytes));
    if (Succeeded(Find(run, "unlink", source))) {
        files.erase(source);
    }
}

enum class Destination { kNew, kOld };

const Fault kTakenName{"create", 1, Fault::Kind::kError, EEXIST, 1};

void WriteWithMode(const std::string& path, const std::string& bytes, mode_t mode)
{
    WriteFile(path, bytes);
    ASSERT_EQ(0, chmod(path.c_str(), mode)) << path;
}

Scenario Move(const std::string& name, const std::string& source, const std::string& destination,
              const std::string& sourceBytes, std::function<void()> arrange, const std::string& result = "true",
              mode_t copiedMode = 0640)
{
    Scenario scenario;
    scenario.name = "move: " + name;
    scenario.rows = Table(kMoveRows);
    scenario.result = result;
    scenario.arrange = std::move(arrange);
    scenario.act = [=] { return Answer{BoolText(orv_fileutils::RenameFileAcrossFs(source, destination)), {}}; };
    scenario.roleOf = [=](const std::string& path, pid_t) { return RoleInMove(path, source, destination); };
    scenario.complete = [=](const TracedRun& run, Expectation& expected) {
        CompleteMove(run, expected, source, destination, sourceBytes, copiedMode, expected.answer.result == "true");
    };
    return scenario;
}

void AddMoves(std::vector<Scenario>& scenarios, const TempDir& disk, const TempDir& memory)
{
    const std::string source = disk / "source";
    const std::string target = disk / "target";
    const std::string near = disk / "destination";
    const std::string far = memory / "destination";
    const auto arrange = [=](std::size_t bytes, const std::string& destination, Destination kind) {
        return [=] {
            WriteWithMode(source, BytesOfLength(bytes), 04640);
            if (kind == Destination::kOld) {
                WriteWithMode(destination, "old", 0604);
            }
        };
    };
    for (const std::size_t bytes : {0U, 1U, 4095U, 4096U, 4097U, 10000U}) {
        for (const Destination kind : {Destination::kNew, Destination::kOld}) {
            const std::string tail = std::to_string(bytes) + (kind == Destination::kNew ? ", new" : ", over a file");
            scenarios.push_back(Move("across, " + tail, source, far, BytesOfLength(bytes), arrange(bytes, far, kind)));
        }
    }
    scenarios.push_back(
        Move("one file system, new", source, near, BytesOfLength(10), arrange(10, near, Destination::kNew)));
    scenarios.push_back(
        Move("one file system, over a file", source, near, BytesOfLength(10), arrange(10, near, Destination::kOld)));

    Scenario takenName = Move("across, the first temporary name is taken", source, far, BytesOfLength(1),
                              arrange(1, far, Destination::kOld));
    takenName.always = {kTakenName};
    scenarios.push_back(takenName);

    const auto linkToFile = [=] {
        WriteWithMode(target, "target", 0640);
        ASSERT_EQ(0, symlink("target", source.c_str()));
    };
    scenarios.push_back(Move("one file system, a symbolic link", source, near, "target", linkToFile));
    scenarios.push_back(Move("across, a symbolic link", source, far, "target", linkToFile));
    scenarios.push_back(Move(
        "missing source", source, far, "", [] {}, kFalse));
    scenarios.push_back(Move(
        "into a missing directory", source, memory / "missing/destination", "0123456789",
        [=] { WriteFile(source, "0123456789"); }, kFalse));
    scenarios.push_back(Move(
        "over a directory", source, far, "0123456789",
        [=] {
            WriteWithMode(source, "0123456789", 0640);
            ASSERT_EQ(0, mkdir(far.c_str(), 0755));
        },
        kFalse));

    Scenario directory = Move(
        "a directory", source, near, "", [=] { ASSERT_EQ(0, mkdir(source.c_str(), 0755)); }, kFalse);
    directory.complete = [=](const TracedRun& run, Expectation& expected) {
        if (Succeeded(Find(run, "stat", source))) {
            expected.lines.push_back(messages::kRenameNotRegular(source, "4000"));
        }
    };
    scenarios.push_back(directory);

    // Like two mounts of one file system: EXDEV, but both names are one file.
    Scenario oneFile = Move("two names of one file", source, near, "0123456789", [=] {
        WriteWithMode(source, "0123456789", 0640);
        ASSERT_EQ(0, link(source.c_str(), near.c_str()));
    });
    oneFile.always = {{"rename", 1, Fault::Kind::kError, EXDEV, 1}};
    scenarios.push_back(oneFile);
}

// ---- Copies

// Returns the bytes that a copy writes: all, or after an error the beginning that the calls wrote.
void CompleteCopy(const TracedRun& run, Expectation& expected, const std::string& source,
                  const std::string& destination, const std::string& sourceBytes)
{
    if (expected.answer.result != "0") {
        return;
    }
    FileState& copy = expected.files[destination];
    if (copy.inode == 0) {
        copy = NewFile(0666 & ~Umask(), "");
    }
    copy.bytes = Written(run, destination, Delivered(run, source, sourceBytes));
    copy.modified = -1;
}

Scenario Copy(const std::string& name, const std::string& source, const std::string& destination,
              const std::string& sourceBytes, std::function<void()> arrange, const std::string& result = "0")
{
    Scenario scenario;
    scenario.name = "copy: " + name;
    scenario.rows = Table(kCopyRows);
    scenario.result = result;
    scenario.arrange = std::move(arrange);
    scenario.act = [=] { return Answer{std::to_string(orv_fileutils::CopyFile(source, destination)), {}}; };
    scenario.roleOf = [=](const std::string& path, pid_t) { return RoleInMove(path, source, destination); };
    scenario.complete = [=](const TracedRun& run, Expectation& expected) {
        CompleteCopy(run, expected, source, destination, sourceBytes);
    };
    return scenario;
}

void AddCopies(std::vector<Scenario>& scenarios, const TempDir& disk, const TempDir& memory)
{
    const std::string source = disk / "source";
    const std::string target = disk / "target";
    const std::string copy = memory / "copy";
    for (const std::size_t bytes : {0U, 1U, 4096U, 65536U, 65537U, 140000U}) {
        scenarios.push_back(Copy(std::to_string(bytes) + ", new", source, copy, BytesOfLength(bytes),
                                 [=] { WriteFile(source, BytesOfLength(bytes)); }));
        scenarios.push_back(
            Copy(std::to_string(bytes) + ", over a longer file", source, copy, BytesOfLength(bytes), [=] {
                WriteFile(source, BytesOfLength(bytes));
                WriteWithMode(copy, std::string(bytes + 100, 'o'), 0604);
            }));
    }
    scenarios.push_back(Copy("a symbolic link", source, copy, "target", [=] {
        WriteFile(target, "target");
        ASSERT_EQ(0, symlink("target", source.c_str()));
    }));
    scenarios.push_back(Copy(
        "missing source", source, copy, "", [=] { WriteFile(copy, "old"); }, "-1"));
    scenarios.push_back(Copy(
        "a directory", source, copy, "", [=] { ASSERT_EQ(0, mkdir(source.c_str(), 0755)); }, "-1"));
    scenarios.push_back(Copy(
        "into a missing directory", source, memory / "missing/copy", "abc", [=] { WriteFile(source, "abc"); }, "-3"));
    Scenario onItself = Copy("onto itself", source, source, "", [=] { WriteFile(source, "abc"); });
    for (Row& row : onItself.rows) {  // there is only one path
        if (std::string(row.call) == "create(DESTINATION)") {
            row.call = "create(SOURCE)";
        }
    }
    scenarios.push_back(onItself);
}

// ---- Making directories

constexpr mode_t kDirMode = 0777;

std::string ParentOf(const std::string& path)
{
    return std::filesystem::path(path).parent_path();
}

// Returns the first ancestor whose status can be read. Refuses "/", below which nothing is made.
void CompleteRefusal(const TracedRun& run, Expectation& expected, const std::string& path)
{
    std::string parent = ParentOf(path);
    while (parent != "/" && !Succeeded(Find(run, "stat", parent))) {
        parent = ParentOf(parent);
    }
    if (parent == "/") {
        expected.answer.result = kFalse;
        expected.lines.push_back(messages::kWorkerParent("/"));
    }
}

void CompleteMakeDir(const TracedRun& run, Expectation& expected, const std::string& path, bool isEntryPoint,
                     bool applyMode)
{
    const bool found = isEntryPoint && Succeeded(Find(run, "stat", path));
    if (!found && expected.answer.result == "true") {
        CompleteRefusal(run, expected, path);
    }
    if (isEntryPoint && expected.answer.result == kFalse) {
        expected.lines.push_back(messages::kMakeFailed(path));
    }
    for (const TracedCall& call : run.calls) {
        if (call.name == "mkdir" && !call.Failed()) {
            expected.files[call.paths[0]].mode = S_IFDIR | (kDirMode & ~Umask());
        }
    }
    const auto made = expected.files.find(path);
    if (applyMode && made != expected.files.end() && Succeeded(Find(run, "chmod", path))) {
        made->second.mode = (made->second.mode & S_IFMT) | kDirMode;
    }
}

Scenario MakeDir(const std::string& name, const std::string& path, bool isEntryPoint, bool applyMode,
                 std::function<void()> arrange)
{
    Scenario scenario;
    scenario.name =
        std::string(isEntryPoint ? "make path: " : "make path, worker: ") + name + (applyMode ? ", mode applied" : "");
    scenario.rows = Table(kMakeDirRows);
    scenario.result = "true";
    scenario.arrange = std::move(arrange);
    scenario.act = [=] {
        return Answer{BoolText(isEntryPoint ? orv_fileutils::MakeDirPath(path.c_str(), kDirMode, applyMode)
                                            : orv_fileutils::DoMakeDirPath(path.c_str(), kDirMode)),
                      {}};
    };
    scenario.roleOf = [=](const std::string& callPath, pid_t) {
        const bool isAncestor = path.compare(0, callPath.size() + 1, callPath + "/") == 0;
        return callPath == path ? "PATH" : isAncestor ? "ANCESTOR" : callPath;
    };
    scenario.complete = [=](const TracedRun& run, Expectation& expected) {
        CompleteMakeDir(run, expected, path, isEntryPoint, applyMode);
    };
    return scenario;
}

void AddMakeDirs(std::vector<Scenario>& scenarios, const TempDir& disk)
{
    const std::string file = disk / "file";
    const std::string old = disk / "old";
    const auto nothing = [] {};
    const auto oldFile = [=] { WriteWithMode(file, "old", 0600); };
    const auto oldDirectory = [=] { ASSERT_EQ(0, mkdir(old.c_str(), 0700)); };
    for (const bool applyMode : {false, true}) {
        scenarios.push_back(MakeDir("existing", old, true, applyMode, oldDirectory));
        scenarios.push_back(MakeDir("1 level", disk / "a", true, applyMode, nothing));
        scenarios.push_back(MakeDir("3 levels", disk / "a/b/c", true, applyMode, nothing));
        scenarios.push_back(MakeDir("2 levels below an old one", disk / "old/b/c", true, applyMode, oldDirectory));
        scenarios.push_back(MakeDir("a file", file, true, applyMode, oldFile));
    }
    scenarios.push_back(MakeDir("existing", old, false, false, oldDirectory));
    scenarios.push_back(MakeDir("1 level", disk / "a", false, false, nothing));
    scenarios.push_back(MakeDir("3 levels", disk / "a/b/c", false, false, nothing));
    scenarios.push_back(MakeDir("a file", file, false, false, oldFile));

    Scenario belowRoot = MakeDir("below the root", "/orv_test.missing", true, false, nothing);
    belowRoot.result = kFalse;
    belowRoot.complete = [](const TracedRun&, Expectation& expected) {
        expected.lines = {messages::kWorkerParent("/"), messages::kMakeFailed("/orv_test.missing")};
    };
    scenarios.push_back(belowRoot);
    Scenario tooLong = MakeDir("1025 bytes", std::string(1025, 'x'), true, false, nothing);
    tooLong.result = kFalse;
    tooLong.complete = [](const TracedRun& run, Expectation& expected) {
        EXPECT_TRUE(run.calls.empty());
        expected.lines = {messages::kMakeSize(1025)};
    };
    scenarios.push_back(tooLong);
}

// ---- Listings

struct Listing {
    const char* includePattern;
    const char* excludePattern;
    bool withDirPath;
    bool clearList;
    bool logOpenError;
};

const std::vector<std::string> kOldItems = {"z.old", "a.old"};

// In the order of the directory.
std::vector<std::string> NamesAsRead(const std::string& directory)
{
    std::vector<std::string> names;
    DIR* const stream = opendir(directory.c_str());
    while (const dirent* const entry = stream == nullptr ? nullptr : readdir(stream)) {
        names.emplace_back(entry->d_name);
    }
    if (stream != nullptr) {
        closedir(stream);
    }
    return names;
}

void CompleteListing(const TracedRun& run, Expectation& expected, const std::string& path, const Listing& listing,
                     const std::set<std::string>& wanted)
{
    std::vector<std::string> items = listing.clearList ? std::vector<std::string>() : kOldItems;
    const TracedCall* const firstRead = Find(run, "getdents", path);
    if (Succeeded(firstRead)) {  // one read returns the whole directory
        for (const std::string& name : NamesAsRead(path)) {
            if (wanted.count(name) != 0) {
                items.insert(items.begin(), (listing.withDirPath ? path + "/" : "") + name);
            }
        }
    }
    if (expected.answer.result == "true") {
        std::sort(items.begin(), items.end());
    }
    if (firstRead == nullptr && !listing.logOpenError) {
        expected.lines.clear();
    }
    expected.answer.items = items;
}

Scenario List(const std::string& name, const std::string& path, const Listing& listing,
              const std::set<std::string>& wanted, std::function<void()> arrange, const std::string& result = "true")
{
    Scenario scenario;
    scenario.name = "list: " + name;
    scenario.rows = Table(kListRows);
    scenario.result = result;
    scenario.arrange = std::move(arrange);
    scenario.act = [=] {
        std::list<std::string> items(kOldItems.begin(), kOldItems.end());
        const bool listed =
            orv_fileutils::GetDirFileList(path.c_str(), listing.includePattern, listing.excludePattern, items,
                                          listing.withDirPath, listing.clearList, listing.logOpenError);
        return Answer{BoolText(listed), {items.begin(), items.end()}};
    };
    scenario.roleOf = [=](const std::string& callPath, pid_t) { return callPath == path ? "PATH" : callPath; };
    scenario.complete = [=](const TracedRun& run, Expectation& expected) {
        CompleteListing(run, expected, path, listing, wanted);
    };
    return scenario;
}

void AddListings(std::vector<Scenario>& scenarios, const TempDir& disk, const TempDir& memory)
{
    for (const std::string& path : {disk / "list", memory / "list"}) {
        const std::string where = path.find("/dev/shm") == 0 ? "in memory, " : "on disk, ";
        const auto empty = [=] { ASSERT_EQ(0, mkdir(path.c_str(), 0755)); };
        const auto filled = [=] {
            ASSERT_EQ(0, mkdir(path.c_str(), 0755));
            for (const char* const name : {"/b.log", "/a.txt", "/c.log"}) {
                WriteFile(path + name, "x");
            }
            ASSERT_EQ(0, mkdir((path + "/directory").c_str(), 0755));
            ASSERT_EQ(0, symlink("a.txt", (path + "/link").c_str()));
        };
        const std::set<std::string> all = {"a.txt", "b.log", "c.log"};
        scenarios.push_back(List(where + "empty", path, {nullptr, nullptr, false, true, true}, {}, empty));
        scenarios.push_back(List(where + "all, added", path, {nullptr, nullptr, false, false, true}, all, filled));
        scenarios.push_back(List(where + "all, with path", path, {"", "", true, true, true}, all, filled));
        scenarios.push_back(List(where + "patterns", path, {"*.log", "b*", false, false, false}, {"c.log"}, filled));
        scenarios.push_back(List(
            where + "missing", path, {nullptr, nullptr, false, false, true}, {}, [] {}, kFalse));
        scenarios.push_back(List(
            where + "missing, silent", path, {nullptr, nullptr, false, true, false}, {}, [] {}, kFalse));
    }
    Scenario unnamed = List(
        "no directory", "", {nullptr, nullptr, false, true, false}, {}, [] {}, kFalse);
    unnamed.complete = [](const TracedRun& run, Expectation& expected) {
        EXPECT_TRUE(run.calls.empty());
        expected.lines = {messages::kListNoDirectory()};
    };
    scenarios.push_back(unnamed);
}

// ---- Pages

void CompletePage(const TracedRun& run, Expectation& expected, const std::string& text, const std::string& textBytes,
                  const std::string& page)
{
    const std::string temporary = oracle::TemporaryPage(run.child);
    const std::string bytes = Written(run, temporary, oracle::Page(LinesDelivered(run, text, textBytes)));
    if (Succeeded(Find(run, "create", temporary))) {
        expected.files[temporary] = NewFile(0666 & ~Umask(), bytes);
    }
    const bool moved = expected.answer.result != kFalse;
    CompleteMove(run, expected, temporary, page, bytes, 0666 & ~Umask(), moved);
    if (!moved) {
        expected.lines.push_back(messages::kPageMove(temporary, page));
    }
    expected.answer.result = "";
}

Scenario Page(const std::string& name, const std::string& text, const std::string& textBytes, const std::string& page,
              std::function<void()> arrange)
{
    Scenario scenario;
    scenario.name = "page: " + name;
    scenario.rows = PageTable();
    scenario.result = "";
    scenario.arrange = std::move(arrange);
    scenario.act = [=] {
        orv_fileutils::GenHtmlPagefromTextFile(text.c_str(), page.c_str());
        return Answer{};
    };
    scenario.roleOf = [=](const std::string& path, pid_t child) {
        return path == text ? "TEXT" : RoleInMove(path, oracle::TemporaryPage(child), page);
    };
    scenario.complete = [=](const TracedRun& run, Expectation& expected) {
        CompletePage(run, expected, text, textBytes, page);
    };
    return scenario;
}

std::string LargeTable()
{
    std::string text;
    for (int line = 0; line < 300; ++line) {
        text += "Port " + std::to_string(line) + ":up,100 Mbit/s,full duplex;Errors:0,0;\n";
    }
    return text;
}

void AddPages(std::vector<Scenario>& scenarios, const TempDir& disk, const TempDir& memory)
{
    const std::string text = disk / "table.txt";
    struct {
        const char* name;
        std::string bytes;
    } const tables[] = {{"empty", ""}, {"small", "Port:1,up;Port:2,down;\n\nabc\na,b:c:d,e"}, {"large", LargeTable()}};
    for (const auto& [where, page] :
         {std::make_pair("one file system", disk / "page.html"), std::make_pair("across", memory / "page.html")}) {
        const std::string prefix = std::string(where) + ", ";
        scenarios.push_back(Page(prefix + "missing table", text, "", page, [] {}));
        for (const auto& table : tables) {
            const std::string bytes = table.bytes;
            scenarios.push_back(
                Page(prefix + table.name + ", new", text, bytes, page, [=] { WriteFile(text, bytes); }));
            scenarios.push_back(Page(prefix + table.name + ", over a page", text, bytes, page, [=, newPage = page] {
                WriteFile(text, bytes);
                WriteWithMode(newPage, "old page", 0604);
            }));
        }
    }
}

// ---- Name-value files

const oracle::NameValues kOldNameValues = {{"kept", "old"}, {"key 1", "old"}};

Answer AnswerOf(const std::string& result, const oracle::NameValues& nameValues)
{
    Answer answer{result, {}};
    for (const auto& [name, value] : nameValues) {
        answer.items.push_back(name + "=" + value);
    }
    return answer;
}

Scenario NameValue(const std::string& name, const std::string& path, const std::string& bytes,
                   std::function<void()> arrange, const std::string& result = "true")
{
    Scenario scenario;
    scenario.name = "name-value: " + name;
    scenario.rows = Table(kNameValueRows);
    scenario.result = result;
    scenario.arrange = std::move(arrange);
    scenario.act = [=] {
        oracle::NameValues nameValues = kOldNameValues;
        const bool read = orv_fileutils::ReadNameValueFromFile(path, nameValues, '=', "#");
        return AnswerOf(BoolText(read), nameValues);
    };
    scenario.roleOf = [=](const std::string& callPath, pid_t) { return callPath == path ? "PATH" : callPath; };
    scenario.complete = [=](const TracedRun& run, Expectation& expected) {
        const oracle::NameValues read = oracle::Read(LinesDelivered(run, path, bytes), '=', "#", kOldNameValues);
        expected.answer = AnswerOf(expected.answer.result, read);
    };
    return scenario;
}

void AddNameValues(std::vector<Scenario>& scenarios, const TempDir& disk)
{
    const std::string path = disk / "values";
    std::string large = "# many\n\n";
    for (int i = 0; i < 1000; ++i) {
        large += "key " + std::to_string(i) + " = value " + std::to_string(i) + "\n";
    }
    const std::string small = "# few\nkey 1 = a = b\n\n  =empty name\nalone\nlast=no line feed";
    scenarios.push_back(NameValue(
        "missing", path, "", [] {}, kFalse));
    scenarios.push_back(NameValue("a directory", path, "", [=] { ASSERT_EQ(0, mkdir(path.c_str(), 0755)); }));
    for (const std::string& bytes : {std::string(), small, large}) {
        scenarios.push_back(
            NameValue(std::to_string(bytes.size()) + " bytes", path, bytes, [=] { WriteFile(path, bytes); }));
    }
}

// ---- The existence test, and the two functions that make no system call

void AddFileExists(std::vector<Scenario>& scenarios, const TempDir& disk)
{
    const std::string path = disk / "path";
    const std::string target = disk / "target";
    const auto add = [&](const std::string& name, const std::string& result, std::function<void()> arrange) {
        Scenario scenario;
        scenario.name = "exists: " + name;
        scenario.rows = Table(kFileExistsRows);
        scenario.result = result;
        scenario.arrange = std::move(arrange);
        scenario.act = [path] {
            errno = 0;
            const bool exists = orv_fileutils::FileExists(path.c_str());
            const int error = errno;
            return Answer{BoolText(exists) + ", errno " + std::to_string(error), {}};
        };
        scenario.roleOf = [path](const std::string& callPath, pid_t) { return callPath == path ? "PATH" : callPath; };
        scenario.complete = [](const TracedRun&, Expectation&) {};
        scenarios.push_back(scenario);
    };
    add("a file", "true, errno 0", [=] { WriteFile(path, "abc"); });
    add("missing", "false, errno 2", [] {});
    add("a directory", "false, errno 0", [=] { ASSERT_EQ(0, mkdir(path.c_str(), 0755)); });
    add("a link to a file", "true, errno 0", [=] {
        WriteFile(target, "abc");
        ASSERT_EQ(0, symlink("target", path.c_str()));
    });
    add("a dangling link", "false, errno 2", [=] { ASSERT_EQ(0, symlink("nowhere", path.c_str())); });
}

void AddRows(std::vector<Scenario>& scenarios)
{
    const auto add = [&](const std::string& name, const std::string& result, std::function<Answer()> act) {
        Scenario scenario;
        scenario.name = name;
        scenario.result = result;
        scenario.arrange = [] {};
        scenario.act = std::move(act);
        scenario.complete = [](const TracedRun& run, Expectation&) { EXPECT_TRUE(run.calls.empty()); };
        scenarios.push_back(scenario);
    };
    add("row", "A:B,D;", [] {
        std::vector<std::string> cells = {"A", "B", "D"};
        return Answer{orv_fileutils::AddTextFileFormattedRow(cells), {}};
    });
    add("table delimiter", "\n", [] { return Answer{orv_fileutils::TextFileTableDelimter(), {}}; });
}

// ---- The campaign

std::map<std::string, std::vector<int>> ReadErrorLists()
{
    std::map<std::string, std::vector<int>> lists;
    std::ifstream file(ORV_ERROR_LISTS);
    for (std::string line; std::getline(file, line);) {
        std::istringstream in(line);
        std::string call;
        in >> call;
        for (int error = 0; in >> error;) {
            lists[call].push_back(error);
        }
    }
    // The forms of one call, with the names of the tracer.
    lists["create"] = lists["open"];
    lists["lstat"] = lists["fstat"] = lists["stat"];
    std::vector<int>& writev = lists["writev"];
    std::set<int> both(writev.begin(), writev.end());
    both.insert(lists["write"].begin(), lists["write"].end());
    writev.assign(both.begin(), both.end());
    return lists;
}

std::string Shown(const Fault& fault)
{
    const char* const kinds[] = {"fails with errno ", "cut to bytes: ", "killed before ", "killed after "};
    return fault.call + " #" + std::to_string(fault.occurrence) + " " + kinds[static_cast<int>(fault.kind)] +
           std::to_string(fault.value) + (fault.times > 1 ? " from here on" : "");
}

class FaultCampaignTest : public TwoFileSystemsTest {
protected:
    void SetUp() override
    {
        TwoFileSystemsTest::SetUp();
        if (!CanTrace()) {
            ORV_SKIP("a process may not trace its children here");
        }
    }

    std::vector<Scenario> Scenarios() const
    {
        std::vector<Scenario> scenarios;
        AddFileExists(scenarios, dir_);
        AddMoves(scenarios, dir_, other_);
        AddCopies(scenarios, dir_, other_);
        AddMakeDirs(scenarios, dir_);
        AddListings(scenarios, dir_, other_);
        AddRows(scenarios);
        AddPages(scenarios, dir_, other_);
        AddNameValues(scenarios, dir_);
        return scenarios;
    }

    // Runs the scenario on new files with its own faults and `faults`, and compares everything.
    TracedRun Check(const Scenario& scenario, const std::vector<Fault>& faults);
    void SingleFaults(const Scenario& scenario);
    void DoubleFaults(const Scenario& scenario);

    std::map<std::string, std::vector<int>> errorLists_ = ReadErrorLists();
    int runs_ = 0;
    int firedFaults_ = 0;

private:
    Files FilesNow(pid_t child) const;
    void CompareFiles(const Files& expected, const Files& found, std::vector<std::string>& problems) const;
};

Files FaultCampaignTest::FilesNow(pid_t child) const
{
    Files files;
    for (const TempDir* const directory : {&dir_, &other_}) {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(directory->Path())) {
            files[entry.path()] = StateOf(entry.path());
        }
    }
    if (Exists(oracle::TemporaryPage(child))) {
        files[oracle::TemporaryPage(child)] = StateOf(oracle::TemporaryPage(child));
        (void)unlink(oracle::TemporaryPage(child).c_str());
    }
    return files;
}

void FaultCampaignTest::CompareFiles(const Files& expected, const Files& found,
                                     std::vector<std::string>& problems) const
{
    for (const auto& [path, state] : expected) {
        const auto now = found.find(path);
        if (now == found.end()) {
            problems.push_back(path + " is missing; expected: " + Shown(state));
            continue;
        }
        FileState wanted = state;
        if (wanted.modified == -1) {  // written in place
            wanted.modified = now->second.modified;
        }
        if (!IsAsExpected(wanted, now->second)) {
            problems.push_back(path + "\n  expected: " + Shown(wanted) + "\n  found:    " + Shown(now->second));
        }
    }
    for (const auto& [path, state] : found) {
        if (expected.count(path) == 0) {
            problems.push_back(path + " should not be there: " + Shown(state));
        }
    }
}

std::vector<std::string> ShownLines(const TracedRun& run, std::vector<std::string>& problems)
{
    std::vector<std::string> shown;
    for (const DlogCall& line : run.lines) {
        if (line.severity != 3 || line.sourceTag != "LxFileUtils.cpp" || line.text.find(line.function + ": ") != 0) {
            problems.push_back("severity, tag or function of: " + line.text);
        }
        shown.push_back(line.format + " | " + line.text);
    }
    return shown;
}

std::vector<std::string> ShownReports(const std::vector<Report>& reports)
{
    std::vector<std::string> shown;
    for (const Report& report : reports) {
        shown.push_back(report.format + " | " + report.text);
    }
    return shown;
}

TracedRun FaultCampaignTest::Check(const Scenario& scenario, const std::vector<Fault>& faults)
{
    dir_.Clear();
    other_.Clear();
    scenario.arrange();
    const Files before = FilesNow(/*child=*/0);
    std::vector<Fault> all = scenario.always;
    all.insert(all.end(), faults.begin(), faults.end());

    const TracedRun run = RunTraced(scenario.act, all);

    ++runs_;
    std::vector<std::string> problems;
    Expectation expected = ByTable(scenario, run, problems);
    expected.files = before;
    scenario.complete(run, expected);
    CompareFiles(expected.files, FilesNow(run.child), problems);
    if (!run.problem.empty()) {
        problems.push_back(run.problem);
    }
    if (!(expected.answer == run.answer)) {
        problems.push_back("result: expected " + ::testing::PrintToString(expected.answer.result) + " " +
                           ::testing::PrintToString(expected.answer.items) + "\n  found " +
                           ::testing::PrintToString(run.answer.result) + " " +
                           ::testing::PrintToString(run.answer.items));
    }
    const std::vector<std::string> lines = ShownLines(run, problems);
    if (ShownReports(expected.lines) != lines) {
        problems.push_back("lines: expected " + ::testing::PrintToString(ShownReports(expected.lines)) + "\n  found " +
                           ::testing::PrintToString(lines));
    }
    if (run.descriptorsBefore != run.descriptorsAfter) {
        problems.push_back("descriptors " + ::testing::PrintToString(run.descriptorsBefore) + " became " +
                           ::testing::PrintToString(run.descriptorsAfter));
    }
    for (const TracedCall& call : run.calls) {
        firedFaults_ += call.faults;
    }
    std::string title = scenario.name;
    for (const Fault& fault : faults) {
        title += "; " + Shown(fault);
    }
    for (const std::string& problem : problems) {
        ADD_FAILURE() << title << ": " << problem;
    }
    return run;
}

// Whether every run of the scenario makes the call. For its first name, mkstemp asks the kernel for random bytes only
// in about one run of twenty; for its second name, always.
bool IsCertain(const Scenario& scenario, const TracedCall& call)
{
    const bool secondName = !scenario.always.empty() && scenario.always[0].call == kTakenName.call;
    return call.name != "getrandom" || (secondName && call.occurrence == 1);
}

const TracedCall* CallOf(const TracedRun& run, const Fault& fault)
{
    const auto call = std::find_if(run.calls.begin(), run.calls.end(), [&fault](const TracedCall& candidate) {
        return candidate.name == fault.call && candidate.occurrence == fault.occurrence;
    });
    return call == run.calls.end() ? nullptr : &*call;
}

std::vector<Fault> FaultsAt(const TracedCall& call, const std::map<std::string, std::vector<int>>& errorLists)
{
    std::vector<Fault> faults;
    const auto errors = errorLists.find(call.name);
    if (errors != errorLists.end()) {
        for (const int error : errors->second) {
            for (const int times : {1, kFromHereOn}) {
                faults.push_back({call.name, call.occurrence, Fault::Kind::kError, error, times});
            }
        }
    }
    const bool transfers = call.name == "read" || call.name == "write" || call.name == "writev";
    if (transfers && call.result > 0) {
        for (const long bytes : std::set<long>{0, 1, call.result - 1}) {
            if (bytes < call.result) {
                faults.push_back({call.name, call.occurrence, Fault::Kind::kShort, bytes, 1});
            }
        }
    }
    return faults;
}

void FaultCampaignTest::SingleFaults(const Scenario& scenario)
{
    const int runsBefore = runs_;
    const int faultsBefore = firedFaults_;
    const TracedRun undisturbed = Check(scenario, {});
    EXPECT_EQ(scenario.result, undisturbed.answer.result) << scenario.name;
    for (const TracedCall& call : undisturbed.calls) {
        EXPECT_TRUE(call.name == "getpid" || errorLists_.count(call.name) == 1) << call.name << " has no error list";
        if (call.faults != 0 || !IsCertain(scenario, call)) {
            continue;  // fails in every run anyway, or is not made in every run
        }
        for (const Fault& fault : FaultsAt(call, errorLists_)) {
            const TracedRun run = Check(scenario, {fault});
            const TracedCall* const hit = CallOf(run, fault);
            ASSERT_NE(nullptr, hit) << scenario.name << ": did not fire: " << Shown(fault);
            EXPECT_EQ(1, hit->faults) << scenario.name << ": did not fire: " << Shown(fault);
            EXPECT_EQ(KeyOf(call, scenario, undisturbed.child), KeyOf(*hit, scenario, run.child)) << Shown(fault);
            if (HasFailure()) {
                return;
            }
        }
    }
    std::printf("scenario: %s: %d runs, %d faults\n", scenario.name.c_str(), runs_ - runsBefore,
                firedFaults_ - faultsBefore);
}

// Each run with one fault shows where a second fault can occur: at every later call, even during cleaning up.
void FaultCampaignTest::DoubleFaults(const Scenario& scenario)
{
    const int runsBefore = runs_;
    const int faultsBefore = firedFaults_;
    const TracedRun undisturbed = Check(scenario, {});
    for (const TracedCall& call : undisturbed.calls) {
        if (call.faults != 0 || errorLists_.count(call.name) == 0 || !IsCertain(scenario, call)) {
            continue;
        }
        for (const int error : {EIO, ENOSPC}) {
            const Fault first{call.name, call.occurrence, Fault::Kind::kError, error, 1};
            const TracedRun run = Check(scenario, {first});
            const TracedCall* const hit = CallOf(run, first);
            ASSERT_NE(nullptr, hit) << Shown(first);
            for (const TracedCall* later = hit + 1; later < run.calls.data() + run.calls.size(); ++later) {
                if (later->faults != 0 || errorLists_.count(later->name) == 0 || !IsCertain(scenario, *later)) {
                    continue;
                }
                for (const int laterError : {EIO, ENOSPC}) {
                    const Fault second{later->name, later->occurrence, Fault::Kind::kError, laterError, 1};
                    const TracedRun both = Check(scenario, {first, second});
                    const TracedCall* const hitToo = CallOf(both, second);
                    ASSERT_NE(nullptr, hitToo) << Shown(first) << "; did not fire: " << Shown(second);
                    EXPECT_EQ(1, hitToo->faults) << Shown(first) << "; did not fire: " << Shown(second);
                    EXPECT_EQ(KeyOf(*later, scenario, run.child), KeyOf(*hitToo, scenario, both.child));
                    if (HasFailure()) {
                        return;
                    }
                }
            }
        }
    }
    std::printf("scenario: pairs, %s: %d runs, %d faults\n", scenario.name.c_str(), runs_ - runsBefore,
                firedFaults_ - faultsBefore);
}

TEST_F(FaultCampaignTest, EveryCallFailsOnceAndForGood)
{
    const std::vector<Scenario> scenarios = Scenarios();

    for (const Scenario& scenario : scenarios) {
        SingleFaults(scenario);
    }

    EXPECT_LE(60U, scenarios.size());
    EXPECT_LE(5000, runs_);
    std::printf("campaign: single faults, %zu scenarios: %d runs, %d faults\n", scenarios.size(), runs_, firedFaults_);
}

TEST_F(FaultCampaignTest, EveryPairOfCallsFailsInTheMoveAcrossFileSystemsAndInThePage)
{
    int scenarios = 0;
    for (const Scenario& scenario : Scenarios()) {
        if (scenario.name.find("move: across, ") == 0 || scenario.name.find("page: ") == 0) {
            DoubleFaults(scenario);
            ++scenarios;
        }
    }

    EXPECT_LE(20, scenarios);
    EXPECT_LE(5000, runs_);
    std::printf("campaign: double faults, %d scenarios: %d runs, %d faults\n", scenarios, runs_, firedFaults_);
}

// mkstemp tries 62 * 62 * 62 names.
TEST_F(FaultCampaignTest, AMoveGivesUpWhenEveryTemporaryNameIsTaken)
{
    constexpr int kTries = 62 * 62 * 62;
    const std::vector<Scenario> scenarios = Scenarios();
    const auto move = std::find_if(scenarios.begin(), scenarios.end(), [](const Scenario& scenario) {
        return scenario.name == "move: across, 1, over a file";
    });
    ASSERT_NE(scenarios.end(), move);
    Scenario crowded = *move;
    crowded.result = kFalse;
    std::string lastTry;
    crowded.complete = [&lastTry](const TracedRun& run, Expectation& expected) {
        lastTry = run.calls.back().paths.at(0);
        expected.lines = {messages::kRenameMkstemp(lastTry, 17)};
    };

    const TracedRun run = Check(crowded, {{"create", 1, Fault::Kind::kError, EEXIST, 2 * kTries}});

    EXPECT_EQ(kTries, run.calls.back().occurrence);
    EXPECT_EQ("create", run.calls.back().name);
}

}  // namespace
