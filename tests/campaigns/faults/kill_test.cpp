// Sends SIGKILL before and after every system call of a move across file systems and of a page, and at random times.
// The file must then be the old or the new one, never a part, and repeating the call must succeed. The same is done at
// every call of the functions that make directories, copy in place and only read. With ORV_FULL in the environment,
// there are 10,000 random kills, and also a file of 1 MiB.

#include "LxFileUtils.h"
#include "campaigns/faults/tracer.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "support/cases.h"
#include "support/oracle.h"

namespace {

bool IsFull()
{
    return std::getenv("ORV_FULL") != nullptr;
}

class KillTest : public TwoFileSystemsTest {
protected:
    void SetUp() override
    {
        TwoFileSystemsTest::SetUp();
        if (!CanTrace()) {
            ORV_SKIP("a process may not trace its children here");
        }
    }

    // Returns the temporary files of moves. Other tests and users have no such names here.
    std::vector<std::string> Leftovers(const std::string& destination) const
    {
        std::vector<std::string> found;
        for (const std::string& name : other_.Names()) {
            if (oracle::IsTemporaryCopy(name, destination)) {
                found.push_back(name);
            }
        }
        return found;
    }

    void RemoveLeftovers(const std::string& destination) const
    {
        for (const std::string& name : Leftovers(destination)) {
            ASSERT_EQ(0, unlink((other_ / name).c_str()));
        }
    }

    const std::string source_ = dir_ / "source";
    const std::string destination_ = other_ / "destination";
    const std::string text_ = dir_ / "table.txt";
    const std::string page_ = other_ / "page.html";
    int runs_ = 0;
    int kills_ = 0;

    void KillMoves(const std::string& bytes, bool overAFile);
    void KillPages(const std::string& text, bool overAPage);

private:
    void ArrangeMove(const std::string& bytes, bool overAFile) const;
    void CheckKilledMove(const std::string& bytes, bool overAFile) const;
    void CheckRepeatedMove(const std::string& bytes) const;
};

constexpr char kOld[] = "old";

// Runs `body` and kills it before and after every call of `undisturbed`. `check` checks the files after that.
void KillEverywhere(const std::function<void()>& arrange, const std::function<Answer()>& body,
                    const std::function<void(const TracedRun&)>& check, int& runs, int& kills)
{
    arrange();
    const TracedRun undisturbed = RunTraced(body, {});
    ASSERT_EQ("", undisturbed.problem);
    ASSERT_FALSE(undisturbed.calls.empty());
    for (const TracedCall& call : undisturbed.calls) {
        if (call.name == "getrandom") {
            continue;  // changes nothing, and mkstemp makes it only in about one run of twenty
        }
        for (const Fault::Kind kind : {Fault::Kind::kKillBefore, Fault::Kind::kKillAfter}) {
            SCOPED_TRACE((kind == Fault::Kind::kKillBefore ? "killed before " : "killed after ") + call.name + " #" +
                         std::to_string(call.occurrence));
            arrange();

            const TracedRun run = RunTraced(body, {{call.name, call.occurrence, kind, 0, 1}});

            ++runs;
            ASSERT_EQ("", run.problem);
            ASSERT_TRUE(run.killed);
            ++kills;
            EXPECT_EQ(call.name, run.calls.back().name);
            EXPECT_EQ(call.occurrence, run.calls.back().occurrence);
            EXPECT_EQ(1, run.calls.back().faults);
            check(run);
            if (::testing::Test::HasFailure()) {
                return;
            }
        }
    }
}

void KillTest::ArrangeMove(const std::string& bytes, bool overAFile) const
{
    (void)unlink(destination_.c_str());
    RemoveLeftovers("destination");
    WriteFile(source_, bytes);
    ASSERT_EQ(0, chmod(source_.c_str(), 0640));
    if (overAFile) {
        WriteFile(destination_, kOld);
    }
}

void KillTest::CheckKilledMove(const std::string& bytes, bool overAFile) const
{
    const bool sourceStands = Exists(source_);
    const bool moved = Exists(destination_) && ReadFile(destination_) == bytes && ModeOf(destination_) == 0640;
    EXPECT_TRUE(sourceStands || moved) << "the content is lost";
    if (sourceStands) {
        EXPECT_EQ(bytes, ReadFile(source_));
        EXPECT_EQ(0640U, ModeOf(source_));
    }
    if (!moved) {
        EXPECT_EQ(overAFile, Exists(destination_));
        EXPECT_TRUE(!overAFile || ReadFile(destination_) == kOld);
    }
    const std::vector<std::string> leftovers = Leftovers("destination");
    EXPECT_GE(1U, leftovers.size());
    for (const std::string& name : leftovers) {
        const std::string part = other_.Read(name);
        EXPECT_EQ(bytes.substr(0, part.size()), part) << name;
        EXPECT_FALSE(moved) << name;
    }
}

// Repeating the call succeeds, or finds no source because the content is already at the destination.
void KillTest::CheckRepeatedMove(const std::string& bytes) const
{
    const std::vector<std::string> leftovers = Leftovers("destination");
    const bool sourceStands = Exists(source_);

    EXPECT_EQ(sourceStands, orv_fileutils::RenameFileAcrossFs(source_, destination_));

    EXPECT_EQ(sourceStands ? 0U : 1U, TakeDlogCalls().size());
    EXPECT_EQ(bytes, ReadFile(destination_));
    EXPECT_EQ(0640U, ModeOf(destination_));
    EXPECT_FALSE(Exists(source_));
    EXPECT_EQ(leftovers, Leftovers("destination"));  // only those that the kill left
}

void KillTest::KillMoves(const std::string& bytes, bool overAFile)
{
    const int runsBefore = runs_;
    KillEverywhere([&] { ArrangeMove(bytes, overAFile); },
                   [this] {
                       const bool moved = orv_fileutils::RenameFileAcrossFs(source_, destination_);
                       return Answer{moved ? "true" : "false", {}};
                   },
                   [&](const TracedRun&) {
                       CheckKilledMove(bytes, overAFile);
                       CheckRepeatedMove(bytes);
                   },
                   runs_, kills_);
    std::printf("scenario: kill, move of %zu bytes%s: %d runs, %d faults\n", bytes.size(),
                overAFile ? " over a file" : "", runs_ - runsBefore, runs_ - runsBefore);
}

TEST_F(KillTest, AMoveKilledAtAnyCallLosesNothingAndCanBeRepeated)
{
    std::vector<std::size_t> sizes = {0, 1, 4095, 4096, 4097, 10000};
    if (IsFull()) {
        sizes.push_back(1U << 20);
    }

    for (const std::size_t bytes : sizes) {
        for (const bool overAFile : {false, true}) {
            SCOPED_TRACE(std::to_string(bytes) + (overAFile ? " bytes over a file" : " bytes"));
            KillMoves(BytesOfLength(bytes), overAFile);
        }
    }

    EXPECT_LE(300, kills_);
    std::printf("campaign: kill, moves: %d runs, %d faults\n", runs_, kills_);
}

std::string TableOf(int rows)
{
    std::string text;
    for (int row = 0; row < rows; ++row) {
        text += "Port " + std::to_string(row) + ":up,100 Mbit/s;\n";
    }
    return text;
}

void KillTest::KillPages(const std::string& text, bool overAPage)
{
    WriteFile(text_, text);
    orv_fileutils::GenHtmlPagefromTextFile(text_.c_str(), page_.c_str());
    const std::string whole = ReadFile(page_);
    const int runsBefore = runs_;

    KillEverywhere(
        [&] {
            (void)unlink(page_.c_str());
            RemoveLeftovers("page.html");
            if (overAPage) {
                WriteFile(page_, kOld);
            }
        },
        [this] {
            orv_fileutils::GenHtmlPagefromTextFile(text_.c_str(), page_.c_str());
            return Answer{};
        },
        [&](const TracedRun& run) {
            // Each process has a temporary page of its own; the next process with the same id truncates it.
            const std::string temporaryPage = oracle::TemporaryPage(run.child);
            EXPECT_TRUE(!Exists(temporaryPage) || whole.find(ReadFile(temporaryPage)) == 0);
            (void)unlink(temporaryPage.c_str());
            const bool isNew = Exists(page_) && ReadFile(page_) == whole;
            EXPECT_TRUE(isNew || (overAPage ? ReadFile(page_) == kOld : !Exists(page_))) << "neither old nor new";
            EXPECT_GE(isNew ? 0U : 1U, Leftovers("page.html").size());
            EXPECT_EQ(text, ReadFile(text_));

            orv_fileutils::GenHtmlPagefromTextFile(text_.c_str(), page_.c_str());

            EXPECT_EQ(0U, TakeDlogCalls().size());
            EXPECT_EQ(whole, ReadFile(page_));
            EXPECT_FALSE(Exists(oracle::OwnTemporaryPage()));
        },
        runs_, kills_);
    std::printf("scenario: kill, page of %zu bytes%s: %d runs, %d faults\n", whole.size(),
                overAPage ? " over a page" : "", runs_ - runsBefore, runs_ - runsBefore);
}

TEST_F(KillTest, APageKilledAtAnyCallIsOldOrNewAndCanBeRepeated)
{
    for (const int rows : {0, 3, 300}) {
        for (const bool overAPage : {false, true}) {
            SCOPED_TRACE(std::to_string(rows) + (overAPage ? " rows over a page" : " rows"));
            KillPages(TableOf(rows), overAPage);
        }
    }

    EXPECT_LE(100, kills_);
    std::printf("campaign: kill, pages: %d runs, %d faults\n", runs_, kills_);
}

// ---- Making directories

using Modes = std::map<std::string, mode_t>;  // type and mode of each object by path

Modes ModesBelow(const std::string& directory)
{
    Modes modes;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
        modes[entry.path()] = StatusOf(entry.path()).st_mode;
    }
    return modes;
}

constexpr mode_t kMode = 0731;
constexpr mode_t kMask = 0012;
constexpr mode_t kOldMode = 0700;

// The ways to make directories.
struct Maker {
    const char* name;
    bool (*make)(const std::string& path);
    bool setsMode;
    std::size_t linesOfARefusal;
};

const Maker kMakers[] = {
    {"worker", [](const std::string& path) { return orv_fileutils::DoMakeDirPath(path.c_str(), kMode); }, false, 1},
    {"entry point", [](const std::string& path) { return orv_fileutils::MakeDirPath(path.c_str(), kMode, false); },
     false, 2},
    {"entry point with mode",
     [](const std::string& path) { return orv_fileutils::MakeDirPath(path.c_str(), kMode, true); }, true, 2},
};

// A directory with a file that must stay, in which the levels of a path are made.
class KillDirectoriesTest : public KillTest {
protected:
    KillDirectoriesTest()
    {
        for (const char* const name : {"a", "b", "c", "d"}) {
            levels_.push_back((levels_.empty() ? base_ : levels_.back()) + "/" + name);
        }
    }

    void KillDirectories(const Maker& maker, const std::string& path, std::size_t standing);
    void KillRefusals(const Maker& maker, const std::string& path);

    const std::string base_ = dir_ / "base";
    std::vector<std::string> levels_;  // below base_
    int halfway_ = 0;                  // kills that left a part of the path
    int finished_ = 0;                 // kills that left all of it with the mode of chmod

private:
    Modes Arrange(std::size_t standing) const;
    void CheckKilled(const Modes& before, const TracedRun& run);

    const ScopedMask mask_{kMask};
};

// The first `standing` levels exist, and a file that is not part of the path.
Modes KillDirectoriesTest::Arrange(std::size_t standing) const
{
    std::filesystem::remove_all(base_);
    EXPECT_EQ(0, mkdir(base_.c_str(), kOldMode));
    WriteFile(base_ + "/bystander", kOld);
    for (std::size_t level = 0; level < standing; ++level) {
        EXPECT_EQ(0, mkdir(levels_[level].c_str(), kOldMode));
    }
    return ModesBelow(dir_.Path());
}

// New objects since `before` must be a chain of levels without a gap.
void KillDirectoriesTest::CheckKilled(const Modes& before, const TracedRun& run)
{
    const Modes after = ModesBelow(dir_.Path());
    Modes expected = before;
    for (const std::string& level : levels_) {
        if (after.count(level) == 0) {
            break;
        }
        expected.emplace(level, S_IFDIR | (kMode & ~kMask));
    }
    const std::string& path = levels_.back();
    if (run.calls.back().name == "chmod" && after.count(path) != 0 && after.at(path) == (S_IFDIR | kMode)) {
        expected[path] = S_IFDIR | kMode;
        ++finished_;
    }
    EXPECT_EQ(expected, after);
    halfway_ += after.size() > before.size() && after.count(path) == 0 ? 1 : 0;
}

void KillDirectoriesTest::KillDirectories(const Maker& maker, const std::string& path, std::size_t standing)
{
    const int runsBefore = runs_;
    Modes before;
    KillEverywhere([&] { before = Arrange(standing); },
                   [&] {
                       return Answer{maker.make(path) ? "true" : "false", {}};
                   },
                   [&](const TracedRun& run) {
                       CheckKilled(before, run);

                       EXPECT_TRUE(maker.make(path));

                       EXPECT_EQ(0U, TakeDlogCalls().size());
                       Modes expected = before;
                       for (const std::string& level : levels_) {
                           expected.emplace(level, S_IFDIR | (kMode & ~kMask));
                       }
                       if (maker.setsMode) {
                           expected[levels_.back()] = S_IFDIR | kMode;
                       }
                       EXPECT_EQ(expected, ModesBelow(dir_.Path()));
                   },
                   runs_, kills_);
    std::printf("scenario: kill, %s, %zu directories of %zu: %d runs, %d faults\n", maker.name,
                levels_.size() - standing, levels_.size(), runs_ - runsBefore, runs_ - runsBefore);
}

// A path that may not be made. Neither the killed call nor the next one makes any of its levels.
void KillDirectoriesTest::KillRefusals(const Maker& maker, const std::string& path)
{
    const Modes before = ModesBelow(dir_.Path());
    const std::string top = path.substr(0, path.find('/', 1));
    ASSERT_FALSE(Exists(top)) << top;
    KillEverywhere([] {},
                   [&] {
                       return Answer{maker.make(path) ? "true" : "false", {}};
                   },
                   [&](const TracedRun&) {
                       EXPECT_FALSE(Exists(top));

                       EXPECT_FALSE(maker.make(path));

                       EXPECT_EQ(maker.linesOfARefusal, TakeDlogCalls().size());
                       EXPECT_FALSE(Exists(top));
                       EXPECT_EQ(before, ModesBelow(dir_.Path()));
                   },
                   runs_, kills_);
}

TEST_F(KillDirectoriesTest, APathKilledAtAnyCallIsAChainFromTheTopAndCanBeRepeated)
{
    for (const Maker& maker : kMakers) {
        for (const char* const end : {"", "/"}) {
            for (std::size_t standing = 0; standing <= levels_.size(); ++standing) {
                SCOPED_TRACE(maker.name + (", " + std::to_string(standing)) + " directories stand, the path ends in '" +
                             end + "'");
                KillDirectories(maker, levels_.back() + end, standing);
            }
        }
    }
    const std::string inRoot = "/orv_kill_test." + std::to_string(getpid());
    const std::filesystem::path here = std::filesystem::current_path();
    std::filesystem::current_path(dir_.Path());
    for (const Maker& maker : kMakers) {
        for (const char* const path : {"/x/y", "/x/y/z"}) {
            SCOPED_TRACE(path);
            KillRefusals(maker, inRoot + path);
            KillRefusals(maker, path + 1);
        }
    }
    std::filesystem::current_path(here);

    EXPECT_LE(300, kills_);
    EXPECT_LE(60, halfway_);
    EXPECT_LE(10, finished_);
    std::printf("campaign: kill, directories: %d runs, %d faults, %d halfway\n", runs_, kills_, halfway_);
}

// ---- Copying in place, and only reading

// Everything in a file that a call may change, except the time of its last access.
struct FileState {
    ino_t inode;
    mode_t mode;
    nlink_t links;
    std::string bytes;
    time_t seconds;
    long nanoseconds;

    bool operator==(const FileState& other) const
    {
        return inode == other.inode && mode == other.mode && links == other.links && bytes == other.bytes &&
               seconds == other.seconds && nanoseconds == other.nanoseconds;
    }
};

FileState StateOf(const std::string& path)
{
    const struct stat status = StatusOf(path);
    return {status.st_ino,  status.st_mode,        status.st_nlink,
            ReadFile(path), status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

class KillCopyTest : public KillTest {
protected:
    void KillCopies(const std::string& bytes, const std::string* old);
    void CheckKilledCopy(const std::string& bytes, const std::string* old, ino_t inode);

    int touched_ = 0;  // kills that left the destination incomplete
};

// The destination is unchanged, or it contains the beginning of the source: in the old file or in a new one.
void KillCopyTest::CheckKilledCopy(const std::string& bytes, const std::string* old, ino_t inode)
{
    if (!Exists(destination_)) {
        EXPECT_EQ(nullptr, old);
        return;
    }
    const std::string copied = ReadFile(destination_);
    const bool isOld = old != nullptr && copied == *old;
    EXPECT_TRUE(isOld || copied == bytes.substr(0, copied.size())) << copied.size() << " bytes";
    EXPECT_EQ(old != nullptr ? kOldMode : 0666U & ~kMask, ModeOf(destination_));
    EXPECT_TRUE(old == nullptr || StatusOf(destination_).st_ino == inode);
    touched_ += !isOld && copied != bytes ? 1 : 0;
}

void KillCopyTest::KillCopies(const std::string& bytes, const std::string* old)
{
    const int runsBefore = runs_;
    WriteFile(source_, bytes);
    const FileState source = StateOf(source_);
    ino_t inode = 0;
    KillEverywhere(
        [&] {
            (void)unlink(destination_.c_str());
            if (old != nullptr) {
                inode = StatusOf(other_.Write("destination", *old, kOldMode)).st_ino;
            }
        },
        [&] {
            return Answer{std::to_string(orv_fileutils::CopyFile(source_, destination_)), {}};
        },
        [&](const TracedRun&) {
            CheckKilledCopy(bytes, old, inode);
            EXPECT_TRUE(source == StateOf(source_));

            EXPECT_EQ(0, orv_fileutils::CopyFile(source_, destination_));

            EXPECT_EQ(0U, TakeDlogCalls().size());
            EXPECT_EQ(bytes, ReadFile(destination_));
            EXPECT_EQ(old != nullptr ? kOldMode : 0666U & ~kMask, ModeOf(destination_));
            EXPECT_TRUE(source == StateOf(source_));
            EXPECT_EQ(std::vector<std::string>{"source"}, dir_.Names());
            EXPECT_EQ(std::vector<std::string>{"destination"}, other_.Names());
        },
        runs_, kills_);
    std::printf("scenario: kill, copy of %zu bytes over %s: %d runs, %d faults\n", bytes.size(),
                old == nullptr ? "nothing" : (std::to_string(old->size()) + " bytes").c_str(), runs_ - runsBefore,
                runs_ - runsBefore);
}

TEST_F(KillCopyTest, ACopyKilledAtAnyCallLeavesPartOfTheFileAndTheSourceAndCanBeRepeated)
{
    const ScopedMask mask(kMask);
    const std::string shortOne = kOld;
    const std::string longOne(100000, 'o');
    for (const std::size_t bytes : {0U, 1U, 4096U, 65536U, 65537U, 300000U}) {
        for (const std::string* const old : {static_cast<const std::string*>(nullptr), &shortOne, &longOne}) {
            SCOPED_TRACE(bytes);
            KillCopies(BytesOfLength(bytes), old);
        }
    }

    EXPECT_LE(300, kills_);
    EXPECT_LE(60, touched_);
    std::printf("campaign: kill, copies: %d runs, %d faults, %d halfway\n", runs_, kills_, touched_);
}

TEST_F(KillTest, AFunctionThatOnlyReadsChangesNothingWhereverItIsKilled)
{
    WriteFile(source_, "name = value\n" + std::string(20000, 'x') + " = y\n");
    ASSERT_EQ(0, mkdir((dir_ / "directory").c_str(), kOldMode));
    const FileState file = StateOf(source_);
    const Modes before = ModesBelow(dir_.Path());
    const auto exists = [this] { return orv_fileutils::FileExists(source_.c_str()); };
    const auto lists = [this] {
        std::list<std::string> names;
        return orv_fileutils::GetDirFileList(dir_.Path().c_str(), "s*", nullptr, names, false, true, true) &&
               names == std::list<std::string>{"source"};
    };
    const auto reads = [this] {
        std::map<std::string, std::string> values;
        return orv_fileutils::ReadNameValueFromFile(source_, values, '=', "#") && values.size() == 2;
    };

    for (const std::function<bool()>& call :
         {std::function<bool()>(exists), std::function<bool()>(lists), std::function<bool()>(reads)}) {
        KillEverywhere([] {},
                       [&] {
                           return Answer{call() ? "true" : "false", {}};
                       },
                       [&](const TracedRun&) {
                           EXPECT_TRUE(file == StateOf(source_));
                           EXPECT_EQ(before, ModesBelow(dir_.Path()));

                           EXPECT_TRUE(call());

                           EXPECT_EQ(0U, TakeDlogCalls().size());
                           EXPECT_TRUE(file == StateOf(source_));
                           EXPECT_EQ(before, ModesBelow(dir_.Path()));
                       },
                       runs_, kills_);
    }

    EXPECT_LE(20, kills_);
    std::printf("campaign: kill, readers: %d runs, %d faults\n", runs_, kills_);
}

// ---- Kills at random times

// A child that calls `round` repeatedly until it is killed.
class Worker {
public:
    explicit Worker(const std::function<void()>& round)
    {
        void* const shared = mmap(nullptr, sizeof(*rounds_), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (shared == MAP_FAILED) {
            std::abort();
        }
        rounds_ = new (shared) std::atomic<int>(0);
        child_ = fork();
        if (child_ == 0) {
            for (;;) {
                round();
                rounds_->fetch_add(1);
            }
        }
    }

    ~Worker()
    {
        Kill();
        (void)munmap(rounds_, sizeof(*rounds_));
    }

    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    pid_t Child() const
    {
        return child_;
    }

    void WaitForARound() const
    {
        while (rounds_->load() == 0 && waitpid(child_, nullptr, WNOHANG) == 0) {
        }
    }

    void Kill()
    {
        if (!killed_) {
            int status = 0;
            EXPECT_EQ(0, kill(child_, SIGKILL));
            EXPECT_EQ(child_, waitpid(child_, &status, 0));
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
            killed_ = true;
        }
    }

private:
    std::atomic<int>* rounds_ = nullptr;
    pid_t child_ = 0;
    bool killed_ = false;
};

void KillAtARandomTime(Worker& worker, Random& random)
{
    constexpr std::size_t kMostMicroseconds = 400;  // a few rounds
    worker.WaitForARound();
    const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(random.Below(kMostMicroseconds));
    while (std::chrono::steady_clock::now() < end) {
    }
    worker.Kill();
}

int RandomKills()
{
    return IsFull() ? 5000 : 100;  // for each of the two tests
}

TEST_F(KillTest, AFileMovedToAndFroAndKilledAtRandomTimesIsNeverLost)
{
    const std::string bytes = BytesOfLength(10000);
    Random random(1);
    int halfway = 0;
    for (int i = 0; i < RandomKills() && !HasFailure(); ++i) {
        SCOPED_TRACE(i);
        WriteFile(source_, bytes);
        Worker worker([this] {
            if (!orv_fileutils::RenameFileAcrossFs(source_, destination_) ||
                !orv_fileutils::RenameFileAcrossFs(destination_, source_)) {
                _exit(1);
            }
        });

        KillAtARandomTime(worker, random);

        const bool atSource = Exists(source_);
        const bool atDestination = Exists(destination_);
        EXPECT_TRUE(atSource || atDestination) << "the file is lost";
        EXPECT_TRUE(!atSource || ReadFile(source_) == bytes);
        EXPECT_TRUE(!atDestination || ReadFile(destination_) == bytes);
        const std::size_t files = dir_.Names().size() + other_.Names().size();
        EXPECT_GE(2U, files) << "more than one temporary file";
        halfway += files == 2 ? 1 : 0;
        EXPECT_TRUE(atSource ? orv_fileutils::RenameFileAcrossFs(source_, destination_) : atDestination);
        EXPECT_EQ(bytes, ReadFile(destination_));
        EXPECT_FALSE(Exists(source_));
        dir_.Clear();
        other_.Clear();
    }

    EXPECT_LT(0, halfway) << "no kill hit a move halfway";
    std::printf("campaign: random kills, moves: %d runs, %d faults, %d halfway\n", RandomKills(), RandomKills(),
                halfway);
}

TEST_F(KillTest, APageMadeAgainAndAgainAndKilledAtRandomTimesIsAlwaysWhole)
{
    WriteFile(text_, TableOf(50));
    orv_fileutils::GenHtmlPagefromTextFile(text_.c_str(), page_.c_str());
    const std::string whole = ReadFile(page_);
    Random random(2);
    int halfway = 0;
    for (int i = 0; i < RandomKills() && !HasFailure(); ++i) {
        SCOPED_TRACE(i);
        Worker worker([this] { orv_fileutils::GenHtmlPagefromTextFile(text_.c_str(), page_.c_str()); });

        KillAtARandomTime(worker, random);

        EXPECT_EQ(whole, ReadFile(page_));
        EXPECT_GE(1U, Leftovers("page.html").size());
        const bool leftAPage = Exists(oracle::TemporaryPage(worker.Child()));
        halfway += leftAPage || !Leftovers("page.html").empty() ? 1 : 0;
        (void)unlink(oracle::TemporaryPage(worker.Child()).c_str());
        RemoveLeftovers("page.html");
    }

    EXPECT_LT(0, halfway) << "no kill hit a page halfway";
    std::printf("campaign: random kills, pages: %d runs, %d faults, %d halfway\n", RandomKills(), RandomKills(),
                halfway);
}

}  // namespace
