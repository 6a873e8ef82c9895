// Readers, processes and threads at the same time. With ORV_FULL in the environment, the runs are long. Each prints how
// much it did.
#include "LxFileUtils.h"
#include "LxStringUtils.h"
#include "safe/safe.h"
#include "support/messages.h"
#include "support/orv_test.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <list>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

int Amount(int usual, int full)
{
    return std::getenv("ORV_FULL") != nullptr ? full : usual;
}

void PrintFigure(const std::string& text)
{
    std::cout << "campaign: " << text << std::endl;
}

// Reads a whole file with one open, in pieces that are small enough to show if the file changes meanwhile. Uses no
// stream, because this is the inner loop.
std::string ReadInPieces(const std::string& path)
{
    std::string bytes;
    const int file = open(path.c_str(), O_RDONLY);
    EXPECT_LE(0, file) << path;
    char piece[1000];
    for (ssize_t got; (got = read(file, piece, sizeof piece)) > 0;) {
        bytes.append(piece, static_cast<std::size_t>(got));
    }
    EXPECT_EQ(0, close(file));
    return bytes;
}

// Runs `body` repeatedly on a thread of its own, from the constructor to the destructor.
class Loop {
public:
    explicit Loop(const std::function<void()>& body)
        : thread_([this, body] {
              while (!stop_) {
                  body();
                  ++rounds_;
              }
          })
    {
    }

    ~Loop()
    {
        stop_ = true;
        thread_.join();
    }

    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    int Rounds() const
    {
        return rounds_;
    }

private:
    std::atomic<bool> stop_{false};
    std::atomic<int> rounds_{0};
    std::thread thread_;  // last, because it uses the others
};

// ---- Readers of a page

class PageReaderTest : public TwoFileSystemsTest {
protected:
    // Reads `page` while two pages replace it in turn.
    void ReadWhileReplaced(const std::string& page)
    {
        const std::string oneTable = dir_.Write("one", Table(1, 40));
        const std::string otherTable = dir_.Write("other", Table(2, 300));
        const std::string one = PageOf(oneTable, page);
        const std::string other = PageOf(otherTable, page);
        ASSERT_LT(3 * 4096U, one.size());  // several blocks
        ASSERT_LT(2 * one.size(), other.size());
        const int wanted = Amount(20000, 1000000);
        const int wantedChanges = Amount(100, 1000);
        int reads = 0;
        int changes = 0;
        int torn = 0;
        std::string last = other;

        bool even = false;
        int replaced = 0;
        {
            const Loop writer([&] {
                even = !even;
                orv_fileutils::GenHtmlPagefromTextFile((even ? oneTable : otherTable).c_str(), page.c_str());
            });
            for (; reads < wanted || changes < wantedChanges; ++reads) {
                std::string bytes = ReadInPieces(page);
                torn += bytes != one && bytes != other;
                if (bytes != last) {
                    ++changes;
                    last.swap(bytes);
                }
            }
            replaced = writer.Rounds();
        }

        EXPECT_EQ(0, torn);
        EXPECT_LE(wantedChanges, replaced);
        PrintFigure(std::to_string(reads) + " reads of a page that was replaced " + std::to_string(replaced) +
                    " times: " + std::to_string(torn) + " torn, " + std::to_string(changes) + " changes seen");
    }

private:
    static std::string Table(int number, int rows)
    {
        std::string text;
        for (int row = 0; row < rows; ++row) {
            std::vector<std::string> cells = {"row " + std::to_string(row), std::string(400, 'x'),
                                              std::to_string(number)};
            text += orv_fileutils::AddTextFileFormattedRow(cells);
        }
        return text + orv_fileutils::TextFileTableDelimter();
    }

    static std::string PageOf(const std::string& table, const std::string& page)
    {
        orv_fileutils::GenHtmlPagefromTextFile(table.c_str(), page.c_str());
        return ReadFile(page);
    }
};

TEST_F(PageReaderTest, AReaderSeesOnlyWholePagesOnTheFileSystemWhereTheyAreBuilt)
{
    ReadWhileReplaced(dir_ / "page");

    EXPECT_EQ((std::vector<std::string>{"one", "other", "page"}), dir_.Names());
}

TEST_F(PageReaderTest, AReaderSeesOnlyWholePagesOnAnotherFileSystem)
{
    ReadWhileReplaced(other_ / "page");

    EXPECT_EQ(std::vector<std::string>{"page"}, other_.Names());
}

// ---- Processes that make one path

constexpr int kProcesses = 8;

// Memory that the processes share.
struct Race {
    pthread_barrier_t barrier;
    std::atomic<int> calls;
    std::atomic<int> failures;
    std::atomic<int> lines;
};

// One process of the race. In each round, all processes make the same new path at once.
void RunRacer(Race& race, const std::string& base, int rounds, bool first)
{
    const std::string top = base + "/top";
    const std::string path = top + "/a/b/c/d";
    for (int round = 0; round < rounds; ++round) {
        pthread_barrier_wait(&race.barrier);
        const bool made = orv_fileutils::MakeDirPath(path.c_str(), 0755, /*applyMode=*/round % 2 != 0);
        race.failures += !made || !std::filesystem::is_directory(path);
        race.lines += static_cast<int>(TakeDlogCalls().size());
        ++race.calls;
        pthread_barrier_wait(&race.barrier);
        if (first) {
            std::filesystem::remove_all(top);
        }
    }
}

TEST(MakeDirPathRaceTest, ProcessesThatRaceForOnePathAllSucceedAndLogNothing)
{
    const TempDir dir(MemoryDirectory());  // in memory, for more rounds
    const int rounds = Amount(300, 10000);
    void* const memory = mmap(nullptr, sizeof(Race), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, memory);
    Race& race = *new (memory) Race{};
    pthread_barrierattr_t attributes;
    ASSERT_EQ(0, pthread_barrierattr_init(&attributes));
    ASSERT_EQ(0, pthread_barrierattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED));
    ASSERT_EQ(0, pthread_barrier_init(&race.barrier, &attributes, kProcesses));

    std::vector<pid_t> racers;
    for (int i = 0; i < kProcesses; ++i) {
        const pid_t racer = fork();
        if (racer == 0) {
            RunRacer(race, dir.Path(), rounds, i == 0);
            _exit(0);
        }
        racers.push_back(racer);
    }
    for (const pid_t racer : racers) {
        int status = -1;
        EXPECT_EQ(racer, waitpid(racer, &status, 0));
        EXPECT_EQ(0, status);
    }

    EXPECT_EQ(kProcesses * rounds, race.calls);
    EXPECT_EQ(0, race.failures);
    EXPECT_EQ(0, race.lines);
    EXPECT_EQ(std::vector<std::string>{}, dir.Names());
    PrintFigure(std::to_string(kProcesses) + " processes raced " + std::to_string(rounds) + " times for one path: " +
                std::to_string(race.failures) + " failures, " + std::to_string(race.lines) + " lines");
    (void)pthread_barrier_destroy(&race.barrier);
    (void)pthread_barrierattr_destroy(&attributes);
    EXPECT_EQ(0, munmap(memory, sizeof(Race)));
}

// ---- Threads

class ThreadsTest : public TwoFileSystemsTest {
protected:
    // Runs `body` `rounds` times on each of `threads` threads, with the number of the thread. All start together.
    static void RunThreads(int threads, int rounds, const std::function<void(int thread, int round)>& body)
    {
        std::atomic<int> waiting{threads};
        std::vector<std::thread> running;
        for (int thread = 0; thread < threads; ++thread) {
            running.emplace_back([&waiting, &body, thread, rounds] {
                --waiting;
                while (waiting > 0) {
                    std::this_thread::yield();
                }
                for (int round = 0; round < rounds; ++round) {
                    body(thread, round);
                }
            });
        }
        for (std::thread& thread : running) {
            thread.join();
        }
    }
};

// Moves and copies files of one thread, and fails to move one.
void MoveAndCopy(const TempDir& here, const TempDir& there, const std::string& own)
{
    const std::string bytes(10000, own.back());
    const std::string file = here / ("file " + own);
    const std::string copy = here / ("copy " + own);
    const std::string moved = there / ("moved " + own);

    WriteFile(file, bytes);
    EXPECT_TRUE(orv_fileutils::FileExists(file.c_str()));
    EXPECT_EQ(0, orv_fileutils::CopyFile(file, copy));
    EXPECT_EQ(bytes, ReadFile(copy));
    EXPECT_TRUE(orv_fileutils::RenameFileAcrossFs(file, moved));
    EXPECT_EQ(bytes, ReadFile(moved));
    EXPECT_FALSE(orv_fileutils::FileExists(file.c_str()));
    EXPECT_FALSE(orv_fileutils::RenameFileAcrossFs(file, moved));
    EXPECT_TRUE(orv_fileutils::RenameFileAcrossFs(copy, file));
    EXPECT_EQ(0, unlink(moved.c_str()));
    EXPECT_EQ(0, unlink(file.c_str()));
}

// Makes a path that all threads make, and one of its own below it.
void MakeDirectories(const TempDir& here, const std::string& own)
{
    const std::string path = here / ("made/by/all/" + own);
    EXPECT_TRUE(orv_fileutils::MakeDirPath(path.c_str(), 0755, /*applyMode=*/true));
    EXPECT_EQ(0, rmdir(path.c_str()));
    EXPECT_TRUE(orv_fileutils::DoMakeDirPath(path.c_str(), 0700));
    EXPECT_EQ(0700U, ModeOf(path));
    EXPECT_EQ(0, rmdir(path.c_str()));
}

// Reads files that all threads read.
void ReadShared(const std::string& listed, const std::string& settings)
{
    std::list<std::string> names;
    EXPECT_TRUE(orv_fileutils::GetDirFileList(listed.c_str(), "*.log", "debug*", names, false, true, true));
    EXPECT_EQ((std::list<std::string>{"a.log", "b.log"}), names);
    std::map<std::string, std::string> values;
    EXPECT_TRUE(orv_fileutils::ReadNameValueFromFile(settings, values, '=', "#"));
    EXPECT_EQ((std::map<std::string, std::string>{{"name", "value"}, {"other", ""}}), values);
}

void FormatTexts(const std::string& own)
{
    std::vector<std::string> cells = {own, "a", std::string(100, 'b')};
    EXPECT_EQ(own + ":a," + cells[2] + ";", orv_fileutils::AddTextFileFormattedRow(cells));
    EXPECT_EQ("\n", orv_fileutils::TextFileTableDelimter());
    std::vector<std::string> pieces;
    LxStringUtils::Split("a;" + own + ";", ';', pieces);
    EXPECT_EQ((std::vector<std::string>{"a", own}), pieces);
    std::string text = " \t" + own + "\r\n";
    LxStringUtils::Trim(text);
    EXPECT_EQ(own, text);
    EXPECT_TRUE(LxStringUtils::StartsWith(own + "x", own));
    EXPECT_TRUE(LxStringUtils::WildcardedStringMatch("a" + own + "b", "a*b"));
}

TEST_F(ThreadsTest, AllFunctionsWorkAtOnceOnAllThreadsAndThePageOnOne)
{
    const int threads = 6;
    const int rounds = Amount(50, 2000);
    const std::string listed = dir_ / "listed";
    ASSERT_EQ(0, mkdir(listed.c_str(), 0755));
    for (const char* const name : {"/a.log", "/b.log", "/debug.log", "/text"}) {
        WriteFile(listed + name, "");
    }
    const std::string settings = dir_.Write("settings", "# comment\nname = value\nother\n");
    const std::string table = dir_.Write("table", "head:cell;\n");
    const std::string page = other_ / "page";
    orv_fileutils::GenHtmlPagefromTextFile(table.c_str(), page.c_str());
    const std::string expectedPage = ReadFile(page);

    RunThreads(threads, rounds, [&](int thread, int) {
        const std::string own = std::to_string(thread);
        MoveAndCopy(dir_, other_, own);
        MakeDirectories(dir_, own);
        ReadShared(listed, settings);
        FormatTexts(own);
        if (thread == 0) {
            orv_fileutils::GenHtmlPagefromTextFile(table.c_str(), page.c_str());
        }
        EXPECT_EQ(expectedPage, ReadFile(page));
    });

    std::map<std::string, int> lines;
    for (const DlogCall& call : TakeDlogCalls()) {
        EXPECT_EQ(messages::kRenameStat.format, call.format);
        ++lines[call.text];
    }
    std::map<std::string, int> expectedLines;
    for (int thread = 0; thread < threads; ++thread) {
        const std::string file = dir_ / ("file " + std::to_string(thread));
        expectedLines[messages::kRenameStat(file, 2).text] = rounds;
    }
    EXPECT_EQ(expectedLines, lines);
    EXPECT_EQ((std::vector<std::string>{"listed", "made", "settings", "table"}), dir_.Names());
    EXPECT_EQ(std::vector<std::string>{}, NamesIn(dir_ / "made/by/all"));
    EXPECT_EQ(std::vector<std::string>{"page"}, other_.Names());
    PrintFigure(std::to_string(threads) + " threads did " + std::to_string(rounds) + " rounds of all functions each");
}

// Copies, moves, lists and changes files of one thread, and publishes a page that all threads publish.
void CallTheCompanion(const TempDir& here, const TempDir& there, const std::string& own, const std::string& page)
{
    orv_safe::FileOptions fast;
    fast.durable = false;
    orv_safe::SettingsOptions fastSettings;
    fastSettings.durable = false;
    const std::string directory = here / ("safe/" + own);
    const std::string table = directory + "/table";
    EXPECT_TRUE(orv_safe::MakeDirectory(directory, 0755));
    WriteFile(table, orv_safe::SafeRow({"<" + own + ">", ""}));
    EXPECT_TRUE(orv_safe::CopyFile(table, directory + "/copy", fast));
    EXPECT_TRUE(orv_safe::MoveFile(directory + "/copy", there / ("safe " + own), fast));
    EXPECT_FALSE(orv_safe::MoveFile(directory + "/copy", there / ("safe " + own), fast));
    EXPECT_EQ(ReadFile(table), ReadFile(there / ("safe " + own)));
    std::vector<orv_safe::ListedFile> files;
    EXPECT_TRUE(orv_safe::ListFiles(directory, "t*", "", files));
    EXPECT_EQ(1U, files.size());
    EXPECT_TRUE(orv_safe::WriteSettings(directory + "/settings", {{"name", own}}, '=', "#", fastSettings));
    std::map<std::string, std::string> settings;
    EXPECT_TRUE(orv_safe::ReadSettings(directory + "/settings", settings));
    EXPECT_EQ(own, settings["name"]);
    std::vector<orv_safe::SettingsFinding> findings;
    EXPECT_TRUE(orv_safe::CheckSettings(directory + "/settings", findings));
    EXPECT_TRUE(orv_safe::PublishPage(table, page));
    EXPECT_NE(std::string::npos, ReadFile(page).find("&#62</td>"));
}

TEST_F(ThreadsTest, AllFunctionsOfTheCompanionWorkAtOnceOnAllThreads)
{
    const int threads = 6;
    const int rounds = Amount(20, 1000);
    const std::string page = other_ / "page";

    RunThreads(threads, rounds, [&](int thread, int) { CallTheCompanion(dir_, other_, std::to_string(thread), page); });

    const std::vector<DlogCall> lines = TakeDlogCalls();
    EXPECT_EQ(static_cast<std::size_t>(threads * rounds), lines.size());
    for (const DlogCall& line : lines) {
        EXPECT_EQ(0U, line.text.find("MoveFile: fstatat(")) << line.text;
    }
    EXPECT_EQ((std::vector<std::string>{"page", "safe 0", "safe 1", "safe 2", "safe 3", "safe 4", "safe 5"}),
              other_.Names());
    PrintFigure(std::to_string(threads) + " threads did " + std::to_string(rounds) +
                " rounds of all functions of the companion each");
}

TEST_F(ThreadsTest, MovesFromAnotherFileSystemOntoOneDestinationDoNotDisturbEachOther)
{
    const int threads = 4;
    const int rounds = Amount(100, 5000);
    const std::string destination = other_.Write("destination", std::string(20000, '0'));
    std::atomic<int> torn{0};

    RunThreads(threads, rounds, [&](int thread, int) {
        const std::string own = std::to_string(thread);
        const std::string source = dir_ / ("source " + own);
        WriteFile(source, std::string(20000, own[0]));
        EXPECT_TRUE(orv_fileutils::RenameFileAcrossFs(source, destination));
        const std::string seen = ReadInPieces(destination);
        torn += seen.size() != 20000 || seen != std::string(20000, seen[0]);
    });

    EXPECT_EQ(0, torn);
    EXPECT_EQ(std::vector<std::string>{"destination"}, other_.Names());
    EXPECT_EQ(std::vector<std::string>{}, dir_.Names());
    PrintFigure(std::to_string(threads * rounds) + " moves onto one destination at once: " + std::to_string(torn) +
                " torn reads");
}

}  // namespace
