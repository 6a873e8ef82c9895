// Processes that publish pages by the safe companion at the same time, as one user and as two. With ORV_FULL in the
// environment, the runs are long.
#include "safe/safe.h"

#include <grp.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "support/oracle.h"
#include "support/orv_test.h"

namespace {

constexpr int kMostRacers = 8;
constexpr uid_t kUsers[] = {65534, 65533};

// What the processes share.
struct Shared {
    pthread_barrier_t barrier;
    std::atomic<bool> isDone;
    std::atomic<int> reads;
    std::atomic<int> torn;         // pages that a reader saw and nobody published
    std::atomic<int> misreported;  // calls that were false without a line, or true with one
    std::atomic<int> ownFailed;    // calls for a page that nobody else publishes
    std::atomic<bool> published[kMostRacers];
};

// The text of one racer in one round. Their lengths differ, so that a torn page cannot look like another one.
std::string TextOf(int racer, int round)
{
    std::string text = "racer:" + std::to_string(racer) + "," + std::to_string(round) + ",;\n";
    for (int row = 0; row < 50 * (racer + 1); ++row) {
        text += "row:" + std::to_string(row) + "," + std::to_string(round) + ";\n";
    }
    return text;
}

constexpr int kAnyRound = -1;
constexpr int kNobody = -1;

// Returns the racer whose whole page of this round it is.
int RacerOf(const std::string& page, int round)
{
    const std::string kBegin = "<tr><td>racer</td><td>";
    const std::string kMiddle = "</td><td>";
    const std::size_t begin = page.find(kBegin);
    const std::size_t middle = page.find(kMiddle, begin + kBegin.size());
    if (begin == std::string::npos || middle == std::string::npos) {
        return kNobody;
    }
    const int racer = std::atoi(page.c_str() + begin + kBegin.size());
    const int found = std::atoi(page.c_str() + middle + kMiddle.size());
    return (round == kAnyRound || found == round) && page == oracle::Page(TextOf(racer, found)) ? racer : kNobody;
}

struct Setting {
    int racers;
    int users;
    mode_t mode;  // of the directory of the page that all publish

    uid_t UserOf(int racer) const
    {
        return users == 1 ? geteuid() : kUsers[racer % users];
    }
};

class PublishRaceTest : public TwoFileSystemsTest {
protected:
    void SetUp() override
    {
        TwoFileSystemsTest::SetUp();
        void* const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(MAP_FAILED, memory);
        shared_ = new (memory) Shared{};
    }

    void TearDown() override
    {
        if (shared_ != nullptr) {
            EXPECT_EQ(0, munmap(shared_, sizeof(Shared)));
        }
        TwoFileSystemsTest::TearDown();
    }

    // Lets the racers of 2 and of 8 processes publish a page where it is made, and one on another file system.
    void RaceEverywhere(Setting setting)
    {
        for (const int racers : {2, kMostRacers}) {
            for (const TempDir* const directory : {&dir_, &other_}) {
                SCOPED_TRACE(std::to_string(racers) + " racers in " + directory->Path());
                setting.racers = racers;
                ASSERT_NO_FATAL_FAILURE(Race(*directory, setting));
                ASSERT_FALSE(HasFailure());
            }
        }
        std::cout << "campaign: pages of processes at once: " << published_ << " published, " << refused_
                  << " refused, " << shared_->reads << " reads, " << shared_->torn << " torn" << std::endl;
    }

    int published_ = 0;
    int refused_ = 0;

private:
    void Race(const TempDir& directory, const Setting& setting);
    void RunRacer(const std::string& directory, int racer) const;
    void ReadUntilDone(const std::string& page) const;
    void CheckRound(const std::string& page, const Setting& setting, int round);
    void Wait() const
    {
        (void)pthread_barrier_wait(&shared_->barrier);
    }

    Shared* shared_ = nullptr;
};

int Rounds()
{
    return std::getenv("ORV_FULL") != nullptr ? 1000 : 10;
}

// Starts a process of this user.
pid_t Start(uid_t user, const std::function<void()>& body)
{
    const pid_t child = fork();
    if (child != 0) {
        return child;
    }
    if (user != geteuid() && (setgroups(0, nullptr) != 0 || setgid(user) != 0 || setuid(user) != 0)) {
        _exit(1);
    }
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);  // so that nobody waits at the barrier if the test ends early
    body();
    _exit(0);
}

void PublishRaceTest::RunRacer(const std::string& directory, int racer) const
{
    const std::string own = directory + "/own" + std::to_string(racer);
    for (int round = 0; round < Rounds(); ++round) {
        const std::string text = own + "/text";
        WriteFile(text, TextOf(racer, round));
        Wait();
        const bool published = orv_safe::PublishPage(text, directory + "/common/page");
        shared_->misreported += published == TakeDlogCalls().empty() ? 0 : 1;
        shared_->published[racer] = published;
        Wait();
        const bool isOwn = orv_safe::PublishPage(text, own + "/page") &&
                           RacerOf(ReadFile(own + "/page"), round) == racer && TakeDlogCalls().empty();
        shared_->ownFailed += isOwn ? 0 : 1;
        Wait();
    }
}

void PublishRaceTest::ReadUntilDone(const std::string& page) const
{
    while (!shared_->isDone) {
        std::ifstream file(page, std::ios::binary);
        if (file.is_open()) {  // otherwise it has just been removed
            const std::string seen{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
            shared_->torn += RacerOf(seen, kAnyRound) == kNobody ? 1 : 0;
            ++shared_->reads;
        }
    }
}

// After all have published: the page is that of one whose call was true, in this round. Every call was true, but in a
// sticky directory only those of the user who owns the page.
void PublishRaceTest::CheckRound(const std::string& page, const Setting& setting, int round)
{
    const int last = RacerOf(ReadFile(page), round);
    EXPECT_NE(kNobody, last) << "the page is torn or old";
    const bool isSticky = (setting.mode & S_ISVTX) != 0;
    for (int racer = 0; racer < setting.racers; ++racer) {
        const bool mayReplace = !isSticky || setting.UserOf(racer) == StatusOf(page).st_uid;
        EXPECT_EQ(mayReplace, shared_->published[racer]) << "racer " << racer << ", round " << round;
        ++(shared_->published[racer] ? published_ : refused_);
    }
    EXPECT_TRUE(last == kNobody || shared_->published[last]) << "the page of a call that was false";
}

void PublishRaceTest::Race(const TempDir& directory, const Setting& setting)
{
    directory.Clear();
    ASSERT_EQ(0, mkdir((directory / "common").c_str(), 0777));
    ASSERT_EQ(0, chmod((directory / "common").c_str(), setting.mode));
    const std::string page = directory / "common/page";
    for (int racer = 0; racer < setting.racers; ++racer) {
        const std::string own = directory / ("own" + std::to_string(racer));
        ASSERT_EQ(0, mkdir(own.c_str(), 0777));
        ASSERT_EQ(0, chmod(own.c_str(), 0777));
    }
    pthread_barrierattr_t attributes;
    ASSERT_EQ(0, pthread_barrierattr_init(&attributes));
    ASSERT_EQ(0, pthread_barrierattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED));
    ASSERT_EQ(0, pthread_barrier_init(&shared_->barrier, &attributes, static_cast<unsigned int>(setting.racers) + 1));
    shared_->isDone = false;

    std::vector<pid_t> processes = {Start(geteuid(), [&] { ReadUntilDone(page); })};
    for (int racer = 0; racer < setting.racers; ++racer) {
        processes.push_back(Start(setting.UserOf(racer), [&] { RunRacer(directory.Path(), racer); }));
    }
    for (int round = 0; round < Rounds(); ++round) {
        Wait();
        Wait();
        CheckRound(page, setting, round);
        if (round % 2 == 0) {
            EXPECT_EQ(0, unlink(page.c_str()));
        }
        Wait();
    }
    shared_->isDone = true;
    for (const pid_t process : processes) {
        int status = -1;
        EXPECT_EQ(process, waitpid(process, &status, 0));
        EXPECT_EQ(0, status);
    }
    (void)pthread_barrier_destroy(&shared_->barrier);
    (void)pthread_barrierattr_destroy(&attributes);

    EXPECT_EQ(0, shared_->torn);
    EXPECT_EQ(0, shared_->misreported);
    EXPECT_EQ(0, shared_->ownFailed);
    EXPECT_GE(1U, NamesIn(directory / "common").size());
    for (int racer = 0; racer < setting.racers; ++racer) {
        EXPECT_EQ((std::vector<std::string>{"page", "text"}), NamesIn(directory / ("own" + std::to_string(racer))));
        EXPECT_FALSE(Exists(oracle::TemporaryPage(processes[static_cast<std::size_t>(racer) + 1])));
    }
}

TEST_F(PublishRaceTest, ProcessesOfOneUserAllPublish)
{
    RaceEverywhere({0, 1, 0777});

    EXPECT_EQ(0, refused_);
}

TEST_F(PublishRaceTest, ProcessesOfTwoUsersAllPublish)
{
    if (geteuid() != 0) {
        ORV_SKIP("only root can start processes of other users");
    }

    RaceEverywhere({0, 2, 0777});

    EXPECT_EQ(0, refused_);
}

TEST_F(PublishRaceTest, InAStickyDirectoryOnlyTheUserPublishesWhoIsFirst)
{
    if (geteuid() != 0) {
        ORV_SKIP("only root can start processes of other users");
    }

    RaceEverywhere({0, 2, 01777});

    EXPECT_LT(0, refused_);
}

}  // namespace
