// Directories, listings and settings of the safe companion, with every system call failing or being the last one.

#include "safe/safe.h"

#include "campaigns/faults/safe_campaign.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace {

using Names = std::vector<std::string>;
using Settings = std::map<std::string, std::string>;

class SafeListsCampaignTest : public OrvTest {
protected:
    SafeListsCampaignTest() : memory_(MemoryDirectory())
    {
    }

    void SetUp() override
    {
        OrvTest::SetUp();
        if (!CanTrace()) {
            ORV_SKIP("a process may not trace its children here");
        }
    }

    // What holds for the lines of every run: severity, tag, function and a path; false has at least one.
    void CheckLines(const TracedRun& run, const std::string& function) const
    {
        for (const DlogCall& line : run.lines) {
            EXPECT_EQ(3, line.severity);
            EXPECT_EQ("orv_safe", line.sourceTag);
            EXPECT_EQ(0U, line.text.find(function + ": ")) << line.text;
            // MakeDirectory names the directory above ours that it could not open.
            EXPECT_NE(std::string::npos, line.text.find(function == "MakeDirectory" ? "(/" : memory_.Path()))
                << line.text;
        }
        EXPECT_TRUE(run.answer.result == "true" || !run.lines.empty()) << "false without a line";
    }

    // After a reader that was not killed: all items without a line, or the old ones.
    void CheckReader(const TracedRun& run, const std::string& function, const Names& whole, const Names& old) const
    {
        if (!run.killed) {
            CheckLines(run, function);
            EXPECT_EQ(run.answer.result == "true" ? whole : old, run.answer.items);
            EXPECT_TRUE(run.answer.result == "false" || run.lines.empty());
        }
    }

    void FailAndKill(const SafeScenario& scenario, bool pairs)
    {
        FailEachCall(scenario, counts_);
        if (pairs) {
            FailEachPair(scenario, counts_);
        }
        KillAtEachCall(scenario, counts_);
        ASSERT_FALSE(HasFailure());
    }

    void PrintCounts(const char* what) const
    {
        std::printf("campaign: safe %s: %d runs, %d faults, %d failed, %d killed\n", what, counts_.runs, counts_.faults,
                    counts_.failed, counts_.kills);
    }

    const TempDir memory_;
    SafeCounts counts_;
};

Answer BoolAnswer(bool result, const Names& items = {})
{
    return Answer{result ? "true" : "false", items};
}

// ---- MakeDirectory

TEST_F(SafeListsCampaignTest, ADirectoryIsMadeOrTheCallFailsWithALine)
{
    const std::string path = memory_ / "a/b/c";
    for (const bool exists : {false, true}) {
        const SafeScenario scenario = {
            exists ? "an existing directory" : "three missing directories",
            [&] {
                memory_.Clear();
                std::filesystem::create_directories(exists ? path : memory_.Path());
            },
            [&] { return BoolAnswer(orv_safe::MakeDirectory(path, 0755)); },
            [&](const TracedRun& run) {
                EXPECT_THAT(memory_.Names(), ::testing::AnyOf(Names{}, Names{"a"}));
                if (run.killed) {
                    EXPECT_TRUE(orv_safe::MakeDirectory(path, 0755));
                    EXPECT_TRUE(std::filesystem::is_directory(path));
                } else {
                    CheckLines(run, "MakeDirectory");
                    EXPECT_TRUE(run.answer.result == "false" || std::filesystem::is_directory(path));
                    EXPECT_TRUE(run.answer.result == "false" || run.lines.empty());
                }
            },
            {}};
        FailAndKill(scenario, /*pairs=*/true);
    }

    EXPECT_LE(300, counts_.runs);
    EXPECT_LE(50, counts_.failed);
    PrintCounts("directories");
}

// ---- ListFiles

// Whether a fault says that a file is not there, so that it is left out, or that the directory was removed meanwhile.
bool SaysGone(const TracedRun& run, bool followLinks)
{
    return std::any_of(run.calls.begin(), run.calls.end(), [followLinks](const TracedCall& call) {
        const bool isStatus = call.name == "stat" || call.name == "lstat";
        const int error = call.Failed() ? call.Error() : 0;
        return (error == ENOENT && (isStatus || call.name == "getdents")) ||
               (isStatus && followLinks && (error == ENOTDIR || error == ELOOP || error == ENAMETOOLONG));
    });
}

TEST_F(SafeListsCampaignTest, AListIsWholeOrAsItWas)
{
    memory_.Write("one", "1");
    memory_.Write("two", "22");
    ASSERT_EQ(0, symlink("one", (memory_ / "link").c_str()));
    for (const bool status : {false, true}) {
        for (const bool followLinks : {false, true}) {
            orv_safe::ListOptions options;
            options.status = status;
            options.followLinks = followLinks;
            const Names whole = followLinks ? Names{"link", "one", "two"} : Names{"one", "two"};
            const SafeScenario scenario = {
                "listing" + std::string(status ? " with status" : "") + (followLinks ? " with links" : ""),
                [] {},
                [&] {
                    std::vector<orv_safe::ListedFile> list(1);
                    const bool listed = orv_safe::ListFiles(memory_.Path(), "", "", list, options);
                    Names names;
                    for (const orv_safe::ListedFile& file : list) {
                        names.push_back(file.name);
                    }
                    return BoolAnswer(listed, names);
                },
                [&](const TracedRun& run) {
                    if (run.killed) {
                        return;
                    }
                    CheckLines(run, "ListFiles");
                    if (run.answer.result == "false") {
                        EXPECT_EQ(Names{""}, run.answer.items);
                    } else if (SaysGone(run, followLinks)) {
                        EXPECT_TRUE(std::includes(whole.begin(), whole.end(), run.answer.items.begin(),
                                                  run.answer.items.end()));
                    } else {
                        EXPECT_EQ(whole, run.answer.items);
                        EXPECT_TRUE(run.lines.empty());
                    }
                },
                {}};
            FailAndKill(scenario, /*pairs=*/true);
        }
    }

    EXPECT_LE(200, counts_.runs);
    EXPECT_LE(50, counts_.failed);
    PrintCounts("listings");
}

// ---- Settings

TEST_F(SafeListsCampaignTest, SettingsAreReadWhollyOrNotAtAll)
{
    const std::string file = memory_.Write("file", "a=1\n" + std::string(5000, '\n') + "b=2\n");
    const SafeScenario scenario = {"reading settings",
                                   [] {},
                                   [&] {
                                       Settings settings = {{"a", "old"}};
                                       const bool read = orv_safe::ReadSettings(file, settings);
                                       Names items;
                                       for (const auto& [name, value] : settings) {
                                           items.push_back(name + "=" + value);
                                       }
                                       return BoolAnswer(read, items);
                                   },
                                   [&](const TracedRun& run) {
                                       CheckReader(run, "ReadSettings", Names{"a=1", "b=2"}, Names{"a=old"});
                                   },
                                   {}};
    FailAndKill(scenario, /*pairs=*/true);

    EXPECT_LE(30, counts_.runs);
    EXPECT_LE(10, counts_.failed);
    PrintCounts("readers of settings");
}

TEST_F(SafeListsCampaignTest, FindingsAreWholeOrAsTheyWere)
{
    const std::string file = memory_.Write("file", "[a]\n" + std::string(5000, '\n') + "b\n");
    const SafeScenario scenario = {"checking settings",
                                   [] {},
                                   [&] {
                                       std::vector<orv_safe::SettingsFinding> findings(1);
                                       findings[0].text = "old";
                                       const bool checked = orv_safe::CheckSettings(file, findings);
                                       Names items;
                                       for (const orv_safe::SettingsFinding& finding : findings) {
                                           items.push_back(std::to_string(finding.line) + " " + finding.text);
                                       }
                                       return BoolAnswer(checked, items);
                                   },
                                   [&](const TracedRun& run) {
                                       CheckReader(run, "CheckSettings", Names{"1 [a]", "5002 b"}, Names{"0 old"});
                                   },
                                   {}};
    FailAndKill(scenario, /*pairs=*/true);

    EXPECT_LE(30, counts_.runs);
    EXPECT_LE(10, counts_.failed);
    PrintCounts("findings in settings");
}

struct WriteScenario {
    std::string name;
    std::string before;  // text of the file; "-": it is missing
    std::string after;
    bool isLinked;   // through a symbolic link
    bool hasNoName;  // the file system makes files without a name
    bool durable;
    bool removes = false;  // the entry, instead of changing it
};

const WriteScenario kWriteScenarios[] = {
    {"change", "# note\na=1\n", "# note\na=2\n", false, true, true},
    {"change, not durable", "# note\na=1\n", "# note\na=2\n", false, true, false},
    {"change by a named file", "# note\na=1\n", "# note\na=2\n", false, false, true},
    {"change through a link", "# note\na=1\n", "# note\na=2\n", true, true, true},
    {"no change", "a=2\n", "a=2\n", false, true, true},
    {"new file", "-", "a=2\n", false, true, true},
    {"new file, not durable", "-", "a=2\n", false, true, false},
    {"new file by a named file", "-", "a=2\n", false, false, true},
    {"removal", "# note\na=1\nb=2\na=3\n", "# note\nb=2\n", false, true, true, true},
    {"removal, not durable", "# note\na=1\n", "# note\n", false, true, false, true},
    {"removal by a named file", "a=1\nb=2\n", "b=2\n", false, false, true, true},
    {"removal through a link", "a=1\nb=2\n", "b=2\n", true, true, true, true},
    {"nothing to remove", "b=2\n", "b=2\n", false, true, true, true},
};

class WriteCampaign {
public:
    WriteCampaign(const TempDir& directory, const WriteScenario& scenario)
        : directory_(directory), scenario_(scenario), file_(directory / "file"), link_(directory / "link")
    {
        options_.durable = scenario.durable;
    }

    void Arrange()
    {
        directory_.Clear();
        if (Existed()) {
            directory_.Write("file", scenario_.before, kMode);
            if (geteuid() == 0) {
                ASSERT_EQ(0, chown(file_.c_str(), kOwner, kOwner));
            }
            inode_ = StatusOf(file_).st_ino;
        }
        if (scenario_.isLinked) {
            ASSERT_EQ(0, symlink("file", link_.c_str()));
        }
    }

    bool Write() const
    {
        const std::string& path = scenario_.isLinked ? link_ : file_;
        return scenario_.removes ? orv_safe::RemoveSettings(path, {"a"}, '=', "#", options_)
                                 : orv_safe::WriteSettings(path, {{"a", "2"}}, '=', "#", options_);
    }

    void Check(const TracedRun& run) const
    {
        const bool isNew = Exists(file_) && ReadFile(file_) == scenario_.after;
        if (!isNew) {
            EXPECT_EQ(Existed(), Exists(file_));
            EXPECT_TRUE(!Existed() || (ReadFile(file_) == scenario_.before && StatusOf(file_).st_ino == inode_));
        }
        if (Exists(file_) && !Says(run, "fchown")) {
            EXPECT_EQ(Existed() ? kMode : 0666 & ~Mask(), ModeOf(file_));
            EXPECT_EQ(Existed() && geteuid() == 0 ? kOwner : geteuid(), StatusOf(file_).st_uid);
        }
        EXPECT_EQ(scenario_.isLinked, Exists(link_) && S_ISLNK(StatusOf(link_).st_mode));
        if (run.killed) {
            EXPECT_GE(1U, Staged().size());
            const bool mayBeLeft = Existed() || !scenario_.hasNoName || scenario_.durable;
            EXPECT_TRUE(Staged().empty() || mayBeLeft) << "a file without a name was left";
            const Names left = Staged();
            EXPECT_TRUE(Write());
            EXPECT_EQ(scenario_.after, ReadFile(file_));
            EXPECT_EQ(left, Staged());
            return;
        }
        EXPECT_EQ(Says(run, "unlinkat") ? 1U : 0U, Staged().size());
        if (run.answer.result == "true") {
            EXPECT_TRUE(isNew);
            EXPECT_TRUE(run.lines.empty() || Says(run, "fchown") || Says(run, "unlinkat"));
        } else if (scenario_.before != scenario_.after) {
            EXPECT_EQ(Says(run, "the file is in place"), isNew);
        }
    }

private:
    static constexpr mode_t kMode = 0604;
    static constexpr uid_t kOwner = 1234;

    static mode_t Mask()
    {
        const mode_t mask = umask(0);
        (void)umask(mask);
        return mask;
    }

    static bool Says(const TracedRun& run, const std::string& text)
    {
        return std::any_of(run.lines.begin(), run.lines.end(),
                           [&text](const DlogCall& line) { return line.text.find(text) != std::string::npos; });
    }

    bool Existed() const
    {
        return scenario_.before != "-";
    }

    Names Staged() const
    {
        Names staged = directory_.Names();
        staged.erase(std::remove_if(staged.begin(), staged.end(),
                                    [](const std::string& name) { return name.find(".orv_") != 0; }),
                     staged.end());
        return staged;
    }

    const TempDir& directory_;
    const WriteScenario& scenario_;
    std::string file_;
    std::string link_;
    orv_safe::SettingsOptions options_;
    ino_t inode_ = 0;
};

TEST_F(SafeListsCampaignTest, AFileOfSettingsIsTheOldOrTheNewOne)
{
    constexpr int kAlways = 100000;
    for (const WriteScenario& scenario : kWriteScenarios) {
        WriteCampaign campaign(memory_, scenario);
        FailAndKill({scenario.name, [&] { campaign.Arrange(); }, [&] { return BoolAnswer(campaign.Write()); },
                     [&](const TracedRun& run) {
                         if (!run.killed) {
                             CheckLines(run, scenario.removes ? "RemoveSettings" : "WriteSettings");
                         }
                         campaign.Check(run);
                     },
                     scenario.hasNoName ? std::vector<Fault>{}
                                        : std::vector<Fault>{{"tmpfile", 1, Fault::Kind::kError, EOPNOTSUPP, kAlways}}},
                    /*pairs=*/true);
    }

    EXPECT_LE(1000, counts_.runs);
    EXPECT_LE(250, counts_.failed);
    EXPECT_LE(100, counts_.kills);
    PrintCounts("writers of settings");
}

}  // namespace
