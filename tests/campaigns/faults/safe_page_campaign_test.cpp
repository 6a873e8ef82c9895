// PublishPage of the safe companion, with every system call failing or being the last one.

#include "safe/safe.h"

#include "campaigns/faults/safe_campaign.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "support/oracle.h"

namespace {

using orv_safe::PageOptions;

constexpr char kOld[] = "old";
constexpr mode_t kMask = 0027;

struct PageScenario {
    std::string name;
    bool isAcross;    // the page is on another file system than /var/tmp
    bool isReplaced;  // there is an old page
    bool isDurable;
    bool isLeft;       // an earlier process with this id was killed
    std::size_t rows;  // of the text
};

const PageScenario kScenarios[] = {
    {"new page", false, false, false, false, 3},
    {"over a page", false, true, false, false, 3},
    {"over a page, durable", false, true, true, false, 3},
    {"after a kill", false, true, false, true, 3},
    {"long page", false, true, false, false, 1000},
    {"to another file system", true, false, false, false, 3},
    {"to another file system over a page, durable", true, true, true, false, 3},
};

class SafePageCampaignTest : public TwoFileSystemsTest {
protected:
    void SetUp() override
    {
        TwoFileSystemsTest::SetUp();
        if (!CanTrace()) {
            ORV_SKIP("a process may not trace its children here");
        }
        ASSERT_EQ(0, mkdir((dir_ / "to").c_str(), 0755));
        ASSERT_EQ(0, mkdir((other_ / "to").c_str(), 0755));
    }

    SafeScenario Scenario(const PageScenario& scenario)
    {
        return {scenario.name,
                [&] { Arrange(scenario); },
                [&] {
                    return Answer{Publish(scenario) ? "true" : "false", {}};
                },
                [&](const TracedRun& run) { Check(scenario, run); },
                {}};
    }

    void Arrange(const PageScenario& scenario);
    void Check(const PageScenario& scenario, const TracedRun& run);
    void CheckAnswer(const PageScenario& scenario, const TracedRun& run, bool isNew);

    bool Publish(const PageScenario& scenario) const
    {
        if (scenario.isLeft) {
            std::ofstream(oracle::OwnTemporaryPage()) << "left";  // a fault here only means that nothing is left
        }
        PageOptions options;
        options.durable = scenario.isDurable;
        return orv_safe::PublishPage(text_, page_, options);
    }
    std::vector<std::string> Staged() const
    {
        std::vector<std::string> staged;
        for (const std::string& name : NamesIn(directory_)) {
            if (name != "page") {
                staged.push_back(name);
            }
        }
        return staged;
    }

    const ScopedMask mask_{kMask};
    const std::string text_ = dir_ / "text";
    std::string directory_;
    std::string page_;
    std::string bytes_;  // of the new page
    ino_t oldInode_ = 0;
    SafeCounts counts_;
};

void SafePageCampaignTest::Arrange(const PageScenario& scenario)
{
    directory_ = (scenario.isAcross ? other_ : dir_) / "to";
    page_ = directory_ + "/page";
    for (const std::string& name : NamesIn(directory_)) {
        ASSERT_EQ(0, unlink((directory_ + "/" + name).c_str()));
    }
    std::string text;
    for (std::size_t row = 0; row < scenario.rows; ++row) {
        text += "Port " + std::to_string(row) + ":up,100 Mbit/s;" + (row % 3 == 0 ? "\n" : "");
    }
    WriteFile(text_, text);
    bytes_ = oracle::Page(text);
    if (scenario.isReplaced) {
        WriteFile(page_, kOld);
        oldInode_ = StatusOf(page_).st_ino;
    }
}

// Whatever happened: the page is the old one or the whole new one.
void SafePageCampaignTest::Check(const PageScenario& scenario, const TracedRun& run)
{
    const bool isNew = Exists(page_) && ReadFile(page_) == bytes_;
    if (!isNew) {
        EXPECT_EQ(scenario.isReplaced, Exists(page_));
        if (scenario.isReplaced && Exists(page_)) {
            EXPECT_EQ(kOld, ReadFile(page_));
            EXPECT_EQ(oldInode_, StatusOf(page_).st_ino);
        }
    }
    const std::string built = oracle::TemporaryPage(run.child);
    if (!run.killed) {
        CheckAnswer(scenario, run, isNew);
    } else {
        EXPECT_TRUE(!isNew || ModeOf(page_) == (0666U & ~kMask));
        EXPECT_GE(scenario.isAcross ? 1U : 0U, Staged().size());
        EXPECT_TRUE(Publish(scenario));
        EXPECT_EQ(bytes_, ReadFile(page_));
    }
    (void)unlink(built.c_str());
}

void SafePageCampaignTest::CheckAnswer(const PageScenario& scenario, const TracedRun& run, bool isNew)
{
    const std::string built = oracle::TemporaryPage(run.child);
    bool hasOwnLine = false;
    bool isPlacedByLine = false;
    bool isModeLost = false;
    bool isBuiltLeft = false;
    std::size_t staged = 0;
    for (const DlogCall& line : run.lines) {
        const auto has = [&line](const std::string& text) { return line.text.find(text) != std::string::npos; };
        EXPECT_EQ(3, line.severity);
        EXPECT_TRUE(line.sourceTag == "orv_safe" || line.sourceTag == "LxFileUtils.cpp");
        EXPECT_TRUE(has(dir_.Path()) || has(other_.Path()) || has(built) || has("/proc/self/fd/")) << line.text;
        hasOwnLine = hasOwnLine || line.text.find("PublishPage: ") == 0;
        isPlacedByLine = isPlacedByLine || has(" is in place");
        isModeLost = isModeLost || has("the mode is not kept");
        isBuiltLeft = isBuiltLeft || has("PublishPage: unlink(" + built + ")");
        staged += has("unlinkat(") && has("/.orv_") ? 1U : 0U;
    }
    EXPECT_EQ(staged, Staged().size());
    if (run.answer.result == "true") {
        EXPECT_TRUE(isNew);
        EXPECT_EQ(isModeLost ? 0600U : 0666U & ~kMask, ModeOf(page_));
        EXPECT_FALSE(isPlacedByLine);
        EXPECT_EQ(isBuiltLeft, Exists(built));
    } else {
        EXPECT_TRUE(hasOwnLine) << "false without a line";
        EXPECT_EQ(isPlacedByLine, isNew) << "a line must say so";
        EXPECT_TRUE(scenario.isLeft || isBuiltLeft == Exists(built)) << "a file was left";
    }
}

TEST_F(SafePageCampaignTest, EveryCallFailsOnceAndForGoodAndThePageIsOldOrWhole)
{
    for (const PageScenario& scenario : kScenarios) {
        FailEachCall(Scenario(scenario), counts_);
        ASSERT_FALSE(HasFailure());
    }

    EXPECT_LE(500, counts_.runs);
    EXPECT_LE(counts_.runs / 4, counts_.failed);
    std::printf("campaign: safe page, every call: %d runs, %d faults, %d failed\n", counts_.runs, counts_.faults,
                counts_.failed);
}

TEST_F(SafePageCampaignTest, EveryPairOfCallsFailsAndThePageIsOldOrWhole)
{
    for (const PageScenario& scenario : kScenarios) {
        FailEachPair(Scenario(scenario), counts_);
        ASSERT_FALSE(HasFailure());
    }

    EXPECT_LE(500, counts_.runs);
    EXPECT_LE(counts_.runs / 4, counts_.failed);
    std::printf("campaign: safe page, every pair: %d runs, %d faults, %d failed\n", counts_.runs, counts_.faults,
                counts_.failed);
}

TEST_F(SafePageCampaignTest, KilledAtEveryCallThePageIsOldOrWholeAndTheCallCanBeRepeated)
{
    for (const PageScenario& scenario : kScenarios) {
        KillAtEachCall(Scenario(scenario), counts_);
        ASSERT_FALSE(HasFailure());
    }

    EXPECT_LE(100, counts_.kills);
    EXPECT_EQ(counts_.runs, counts_.kills);
    std::printf("campaign: safe page, kills: %d runs, %d faults\n", counts_.runs, counts_.kills);
}

}  // namespace
