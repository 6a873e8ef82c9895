// CopyFile and MoveFile of the safe companion, with every system call failing or being the last one.

#include "safe/safe.h"

#include "campaigns/faults/safe_campaign.h"

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "support/cases.h"

namespace {

using orv_safe::FileOptions;

constexpr char kOld[] = "old";
constexpr mode_t kMode = 0640;

struct FileScenario {
    std::string name;
    bool isMove;
    bool isAcross;      // to another file system
    bool isReplaced;    // a file is at the destination
    std::string means;  // that are missing: n no file without a name, k no copy in the kernel, r no renameat2
    char options;       // d default, - not durable, p preserve, h the same for a file with holes, v verify, n noReplace
};

const FileScenario kScenarios[] = {
    {"copy", false, true, false, "", 'd'},
    {"copy over a file", false, true, true, "", 'd'},
    {"copy by a named file over a file, through this process", false, true, true, "nk", 'd'},
    {"copy, not durable", false, true, false, "", '-'},
    {"copy with preserve", false, true, true, "", 'p'},
    {"copy of a file with holes", false, true, true, "", 'h'},
    {"copy with verify, by a named file", false, true, false, "n", 'v'},
    {"copy to a new name only, by a named file", false, true, false, "n", 'n'},
    {"copy to a new name only, without renameat2", false, true, false, "nr", 'n'},
    {"copy to a new name only", false, true, false, "", 'n'},
    {"rename", true, false, false, "", 'd'},
    {"rename over a file", true, false, true, "", 'd'},
    {"rename to a new name only", true, false, false, "", 'n'},
    {"rename to a new name only, without renameat2", true, false, false, "r", 'n'},
    {"move", true, true, false, "", 'd'},
    {"move over a file", true, true, true, "", 'd'},
    {"move over a file, not durable", true, true, true, "", '-'},
    {"move by a named file over a file, through this process", true, true, true, "nk", 'd'},
    {"move with preserve and verify", true, true, true, "n", 'b'},
};

FileOptions OptionsOf(char letter)
{
    FileOptions options;
    options.durable = letter != '-';
    options.preserve = letter == 'p' || letter == 'b' || letter == 'h';
    options.verify = letter == 'v' || letter == 'b';
    options.noReplace = letter == 'n';
    return options;
}

std::vector<Fault> MissingMeans(const std::string& letters)
{
    constexpr int kAlways = 100000;
    std::vector<Fault> missing;
    for (const char letter : letters) {
        if (letter == 'n') {
            missing.push_back({"tmpfile", 1, Fault::Kind::kError, EOPNOTSUPP, kAlways});
        } else if (letter == 'k') {
            missing.push_back({"copy_file_range", 1, Fault::Kind::kError, EXDEV, kAlways});
            missing.push_back({"sendfile", 1, Fault::Kind::kError, EINVAL, kAlways});
        } else {
            missing.push_back({"renameat2", 1, Fault::Kind::kError, EINVAL, kAlways});
        }
    }
    return missing;
}

class SafeFilesCampaignTest : public TwoFileSystemsTest {
protected:
    void SetUp() override
    {
        TwoFileSystemsTest::SetUp();
        if (!CanTrace()) {
            ORV_SKIP("a process may not trace its children here");
        }
        ASSERT_EQ(0, mkdir((other_ / "from").c_str(), 0755));
        ASSERT_EQ(0, mkdir((other_ / "to").c_str(), 0755));
    }

    SafeScenario Scenario(const FileScenario& scenario);
    void Arrange(const FileScenario& scenario);
    void Check(const FileScenario& scenario, const TracedRun& run);
    void CheckAnswer(const FileScenario& scenario, const TracedRun& run, bool isNew, bool isSourceWhole);
    void CheckRepeated(const FileScenario& scenario, bool isSourceWhole);

    bool IsWhole(const std::string& path) const
    {
        return Exists(path) && ReadFile(path) == bytes_;
    }
    std::vector<std::string> Staged() const
    {
        std::vector<std::string> staged;
        for (const std::string& name : NamesIn(other_ / "to")) {
            if (name.find(".orv_") == 0) {
                staged.push_back(name);
            }
        }
        return staged;
    }

    std::string bytes_;
    std::string source_;
    const std::string destination_ = other_ / "to/destination";
    ino_t oldInode_ = 0;
    SafeCounts counts_;
};

void SafeFilesCampaignTest::Arrange(const FileScenario& scenario)
{
    source_ = scenario.isAcross ? dir_ / "source" : other_ / "from/source";
    for (const std::string& name : NamesIn(other_ / "to")) {
        ASSERT_EQ(0, unlink((other_ / "to/" + name).c_str()));
    }
    bytes_ = BytesOfLength(20000);
    WriteFile(source_, bytes_);
    if (scenario.options == 'h') {
        bytes_.resize(60000);
        ASSERT_EQ(0, truncate(source_.c_str(), static_cast<off_t>(bytes_.size())));
    }
    ASSERT_EQ(0, chmod(source_.c_str(), kMode));
    if (scenario.options == 'p') {
        ASSERT_EQ(0, setxattr(source_.c_str(), "user.name", "value", 5, 0));
    }
    if (scenario.isReplaced) {
        WriteFile(destination_, kOld);
        ASSERT_EQ(0, chmod(destination_.c_str(), 0604));
        oldInode_ = StatusOf(destination_).st_ino;
    }
}

SafeScenario SafeFilesCampaignTest::Scenario(const FileScenario& scenario)
{
    return {scenario.name, [&] { Arrange(scenario); },
            [&] {
                const auto call = scenario.isMove ? orv_safe::MoveFile : orv_safe::CopyFile;
                return Answer{call(source_, destination_, OptionsOf(scenario.options)) ? "true" : "false", {}};
            },
            [&](const TracedRun& run) { Check(scenario, run); }, MissingMeans(scenario.means)};
}

// Whatever happened: the destination is the old file or the whole new one, and the content is not lost.
void SafeFilesCampaignTest::Check(const FileScenario& scenario, const TracedRun& run)
{
    const bool isSourceWhole = IsWhole(source_);
    EXPECT_TRUE(isSourceWhole || (scenario.isMove && !Exists(source_))) << "the source is damaged";
    EXPECT_TRUE(!isSourceWhole || ModeOf(source_) == kMode);
    const bool isNew = IsWhole(destination_);
    EXPECT_TRUE(isSourceWhole || isNew) << "the content is lost";
    if (!isNew) {
        EXPECT_EQ(scenario.isReplaced, Exists(destination_));
        if (scenario.isReplaced && Exists(destination_)) {
            EXPECT_EQ(kOld, ReadFile(destination_));
            EXPECT_EQ(oldInode_, StatusOf(destination_).st_ino);
            EXPECT_EQ(0604U, ModeOf(destination_));
        }
    }
    if (run.killed) {
        EXPECT_TRUE(!isNew || ModeOf(destination_) == kMode);
        EXPECT_GE(1U, Staged().size());
        const bool mayBeLeft = scenario.isReplaced || !scenario.means.empty() || scenario.options != '-';
        EXPECT_TRUE(Staged().empty() || (scenario.isAcross && mayBeLeft)) << "a file without a name was left";
        CheckRepeated(scenario, isSourceWhole);
    } else {
        CheckAnswer(scenario, run, isNew, isSourceWhole);
    }
}

void SafeFilesCampaignTest::CheckAnswer(const FileScenario& scenario, const TracedRun& run, bool isNew,
                                        bool isSourceWhole)
{
    const std::string function = scenario.isMove ? "MoveFile: " : "CopyFile: ";
    bool isPlacedByLine = false;
    bool isModeLost = false;
    std::size_t leftByLines = 0;
    for (const DlogCall& line : run.lines) {
        EXPECT_EQ(3, line.severity);
        EXPECT_EQ("orv_safe", line.sourceTag);
        EXPECT_EQ(0U, line.text.find(function)) << line.text;
        EXPECT_TRUE(line.text.find(dir_.Path()) != std::string::npos ||
                    line.text.find(other_.Path()) != std::string::npos)
            << line.text;
        isPlacedByLine = isPlacedByLine || line.text.find(" is in place") != std::string::npos;
        isModeLost = isModeLost || line.text.find("the mode is not kept") != std::string::npos;
        leftByLines +=
            line.text.find("unlinkat(") != std::string::npos && line.text.find("/.orv_") != std::string::npos;
    }
    EXPECT_EQ(leftByLines, Staged().size());
    if (run.answer.result == "true") {
        EXPECT_TRUE(isNew);
        EXPECT_EQ(!scenario.isMove, isSourceWhole);
        EXPECT_EQ(isModeLost ? 0600U : kMode, ModeOf(destination_));
        EXPECT_FALSE(isPlacedByLine);
    } else {
        EXPECT_FALSE(run.lines.empty()) << "false without a line";
        EXPECT_EQ(isPlacedByLine, isNew) << "a line must say so";
        EXPECT_TRUE(isSourceWhole || isPlacedByLine);
    }
}

// After a kill, the same call succeeds, and what was left stays.
void SafeFilesCampaignTest::CheckRepeated(const FileScenario& scenario, bool isSourceWhole)
{
    const std::vector<std::string> left = Staged();
    if (!isSourceWhole) {
        return;
    }
    const auto call = scenario.isMove ? orv_safe::MoveFile : orv_safe::CopyFile;
    FileOptions options = OptionsOf(scenario.options);
    // Killed in between, a move by a link leaves both names of one file.
    const bool isLinked = scenario.isMove && Exists(destination_) && StatusOf(source_).st_nlink == 2;
    if (options.noReplace && Exists(destination_)) {
        EXPECT_FALSE(call(source_, destination_, options));
        options.noReplace = false;
    }
    (void)TakeDlogCalls();

    EXPECT_EQ(!isLinked, call(source_, destination_, options));

    EXPECT_EQ(isLinked ? 1U : 0U, TakeDlogCalls().size());
    EXPECT_TRUE(IsWhole(destination_));
    EXPECT_EQ(left, Staged());
}

TEST_F(SafeFilesCampaignTest, EveryCallFailsOnceAndForGoodAndNothingIsLost)
{
    for (const FileScenario& scenario : kScenarios) {
        FailEachCall(Scenario(scenario), counts_);
        ASSERT_FALSE(HasFailure());
    }

    EXPECT_LE(1000, counts_.runs);
    EXPECT_LE(counts_.runs / 4, counts_.failed);
    std::printf("campaign: safe files, every call: %d runs, %d faults, %d failed\n", counts_.runs, counts_.faults,
                counts_.failed);
}

TEST_F(SafeFilesCampaignTest, EveryPairOfCallsFailsAndNothingIsLost)
{
    for (const FileScenario& scenario : kScenarios) {
        FailEachPair(Scenario(scenario), counts_);
        ASSERT_FALSE(HasFailure());
    }

    EXPECT_LE(1000, counts_.runs);
    EXPECT_LE(counts_.runs / 4, counts_.failed);
    std::printf("campaign: safe files, every pair: %d runs, %d faults, %d failed\n", counts_.runs, counts_.faults,
                counts_.failed);
}

TEST_F(SafeFilesCampaignTest, KilledAtEveryCallNothingIsLostAndTheCallCanBeRepeated)
{
    for (const FileScenario& scenario : kScenarios) {
        KillAtEachCall(Scenario(scenario), counts_);
        ASSERT_FALSE(HasFailure());
    }

    EXPECT_LE(300, counts_.kills);
    EXPECT_EQ(counts_.runs, counts_.kills);
    std::printf("campaign: safe files, kills: %d runs, %d faults\n", counts_.runs, counts_.kills);
}

}  // namespace
