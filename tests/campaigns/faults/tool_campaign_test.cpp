// orvfile as a program, with every system call failing, also those for memory, or being the last one before a kill.

#include "campaigns/faults/safe_campaign.h"
#include "campaigns/faults/tracer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/cases.h"
#include "support/oracle.h"

namespace {

// In paths, "@" at the beginning is the other file system.
struct ToolScenario {
    std::string name;
    std::vector<std::string> arguments;
    std::map<std::string, std::string> before;  // files and their content
    std::string target;                         // must be as before or as after an undisturbed run
    std::string source;                         // of a move: must be there unless the target is new
    std::string input{};                        // the file that is standard input; empty: no input
};

const std::string& Bytes()
{
    static const std::string bytes = BytesOfLength(20000);
    return bytes;
}

const std::vector<ToolScenario>& Scenarios()
{
    static const std::vector<ToolScenario> scenarios = {
        {"copy", {"copy", "a", "@b"}, {{"a", Bytes()}}, "@b", ""},
        {"copy over a file", {"copy", "a", "b"}, {{"a", Bytes()}, {"b", "old"}}, "b", ""},
        {"copy with preserve, to a directory", {"copy", "--preserve", "-t", "@", "a"}, {{"a", Bytes()}}, "@a", ""},
        {"copy to a new name only", {"copy", "-n", "a", "@b"}, {{"a", Bytes()}}, "@b", ""},
        {"quick copy", {"copy", "--no-durable", "--no-verify", "a", "@b"}, {{"a", Bytes()}, {"@b", "old"}}, "@b", ""},
        {"rename", {"move", "a", "b"}, {{"a", Bytes()}, {"b", "old"}}, "b", "a"},
        {"move", {"move", "a", "@b"}, {{"a", Bytes()}}, "@b", "a"},
        {"move over a file", {"move", "a", "@b"}, {{"a", Bytes()}, {"@b", "old"}}, "@b", "a"},
        {"move, the second of two", {"move", "-t", "@", "gone", "a"}, {{"a", Bytes()}}, "@a", "a"},
        {"plain move", {"move", "--plain", "a", "@b"}, {{"a", Bytes()}, {"@b", "old"}}, "@b", "a"},
        {"page", {"page", "t", "b"}, {{"t", "a:b;\n"}, {"b", "old"}}, "b", ""},
        {"page on another file system", {"page", "t", "@b"}, {{"t", "a:b;\n"}, {"@b", "old"}}, "@b", ""},
        {"page of standard input", {"page", "-", "b"}, {{"t", "a:b;\n"}, {"b", "old"}}, "b", "", "t"},
        {"set", {"set", "f", "a=2"}, {{"f", "a=1\nb=3\n"}}, "f", ""},
        {"unset", {"unset", "f", "a"}, {{"f", "a=1\nb=3\n"}}, "f", ""},
    };
    return scenarios;
}

class ToolCampaignTest : public TwoFileSystemsTest {
protected:
    void SetUp() override
    {
        TwoFileSystemsTest::SetUp();
        if (!CanTrace()) {
            ORV_SKIP("a process may not trace its children here");
        }
    }

    std::string PathOf(const std::string& path) const
    {
        return path[0] == '@' ? other_ / path.substr(1) : dir_ / path;
    }

    // The content of each file of both directories, by its path.
    std::map<std::string, std::string> Files() const
    {
        std::map<std::string, std::string> files;
        for (const std::string& name : NamesIn(dir_ / "")) {
            files[name] = ReadFile(dir_ / name);
        }
        for (const std::string& name : NamesIn(other_ / "")) {
            files["@" + name] = ReadFile(other_ / name);
        }
        files.erase("@" + kOutput_);
        return files;
    }

    TracedRun Run(const ToolScenario& scenario, const std::vector<Fault>& faults, const std::string& memory = "");
    long CountAllocations(const ToolScenario& scenario, const std::vector<Fault>& faults);
    void TakeMemoryAway(const ToolScenario& scenario, const std::vector<Fault>& faults);
    std::vector<TracedCall> Undisturbed(const ToolScenario& scenario);
    void RunAndCheck(const ToolScenario& scenario, const Fault& fault);
    void Check(const ToolScenario& scenario, const TracedRun& run);
    void CheckTemporaryPage(const TracedRun& run);
    void CheckEnd(const ToolScenario& scenario, const TracedRun& run, bool isNew, bool isSourceThere);

    const std::string kOutput_ = "output";
    std::map<std::string, std::string> after_;  // of an undisturbed run
    int undisturbedStatus_ = 0;
    int runs_ = 0;
    int failed_ = 0;
};

TracedRun ToolCampaignTest::Run(const ToolScenario& scenario, const std::vector<Fault>& faults,
                                const std::string& memory)
{
    dir_.Clear();
    other_.Clear();
    for (const auto& [path, content] : scenario.before) {
        WriteFile(PathOf(path), content);
    }
    std::vector<std::string> command = {ORV_TOOL};
    for (const std::string& argument : scenario.arguments) {
        command.push_back(argument[0] == '@' ? PathOf(argument) : argument);
    }
    const std::string input = scenario.input.empty() ? "/dev/null" : PathOf(scenario.input);
    return RunTraced({command, ORV_BEGIN_MARK, dir_ / "", other_ / kOutput_, memory, input}, faults);
}

std::vector<TracedCall> ToolCampaignTest::Undisturbed(const ToolScenario& scenario)
{
    const TracedRun run = Run(scenario, {});
    EXPECT_EQ("", run.problem);
    undisturbedStatus_ = run.status;
    after_ = Files();
    EXPECT_NE(after_, scenario.before) << scenario.name << ": " << ReadFile(other_ / kOutput_);
    EXPECT_LT(10U, run.calls.size());
    return run.calls;
}

void ToolCampaignTest::RunAndCheck(const ToolScenario& scenario, const Fault& fault)
{
    SCOPED_TRACE(scenario.name + ", " + fault.call + " #" + std::to_string(fault.occurrence) + ", errno or bytes " +
                 std::to_string(fault.value) + (fault.times > 1 ? " from here on" : ""));
    const TracedRun run = Run(scenario, {fault});
    EXPECT_EQ("", run.problem);
    EXPECT_TRUE(std::any_of(run.calls.begin(), run.calls.end(), [](const TracedCall& call) { return call.faults > 0; }))
        << "the fault did not occur";
    Check(scenario, run);
    ++runs_;
    failed_ += run.status != undisturbedStatus_ ? 1 : 0;
}

// Whatever happened: the target is the old or the new one, whole, and the content of the source is not lost.
void ToolCampaignTest::Check(const ToolScenario& scenario, const TracedRun& run)
{
    std::map<std::string, std::string> files = Files();
    const auto target = files.find(scenario.target);
    const bool isNew = target != files.end() && target->second == after_.at(scenario.target);
    if (!isNew) {
        const auto before = scenario.before.find(scenario.target);
        EXPECT_EQ(before != scenario.before.end(), target != files.end());
        EXPECT_TRUE(target == files.end() || target->second == before->second) << "the target is damaged";
    }
    const bool isSourceThere = !scenario.source.empty() && files.count(scenario.source) != 0;
    EXPECT_TRUE(scenario.source.empty() || isNew || isSourceThere) << "the content is lost";
    for (const auto& [path, content] : scenario.before) {
        EXPECT_TRUE(path == scenario.target || (path == scenario.source && !isSourceThere) || files[path] == content)
            << path << " was changed";
    }
    CheckTemporaryPage(run);
    if (!run.killed) {
        CheckEnd(scenario, run, isNew, isSourceThere);
    }
}

// Whether the program could print its messages.
bool CouldPrint(const TracedRun& run)
{
    return std::none_of(run.calls.begin(), run.calls.end(), [](const TracedCall& call) {
        return call.name == "write" && call.faults > 0 && call.paths == std::vector<std::string>{""};
    });
}

// Only a kill leaves it silently.
void ToolCampaignTest::CheckTemporaryPage(const TracedRun& run)
{
    const std::string page = oracle::TemporaryPage(run.child);
    if (unlink(page.c_str()) == 0 && !run.killed) {
        EXPECT_NE(std::string::npos, ReadFile(other_ / kOutput_).find("unlink(" + page)) << page << " was left";
    }
}

// The exit status and the messages tell the truth.
void ToolCampaignTest::CheckEnd(const ToolScenario& scenario, const TracedRun& run, bool isNew, bool isSourceThere)
{
    const std::string output = ReadFile(other_ / kOutput_);
    const auto says = [&output](const std::string& text) { return output.find(text) != std::string::npos; };
    const bool isDone = isNew && !isSourceThere;
    if (run.status == 0) {
        EXPECT_TRUE(isDone) << output;
        EXPECT_FALSE(says("orvfile: ")) << output;
    } else {
        EXPECT_EQ(1, run.status);
        if (CouldPrint(run)) {
            EXPECT_TRUE(says("orvfile: ") && says("\n  Next: ")) << "failed without a message: " << output;
            // page needs memory to say what it has published.
            const bool mayNotSay = scenario.arguments[0] == "page" && says("std::bad_alloc");
            EXPECT_TRUE(!isNew || undisturbedStatus_ == 1 || says("in place") || says("the content is at ") ||
                        says("unlink(") || says("a report was lost") || mayNotSay)
                << output;
        }
    }
    for (const auto& [path, content] : Files()) {
        const bool isLeft = scenario.before.count(path) == 0 && path != scenario.target;
        EXPECT_TRUE(!isLeft || !CouldPrint(run) || says("unlink(" + PathOf(path)) || says("unlinkat(" + PathOf(path)) ||
                    says("unlinkat(" + path))
            << path << " was left";
    }
}

// If brk fails, it returns the old limit, and no error number. A failed mmap is the lack of memory. The C library calls
// getrandom for a temporary name in some runs only.
bool CannotFail(const TracedCall& call)
{
    static const std::set<std::string> names = {"brk", "exit", "futex", "getpid", "geteuid", "getrandom"};
    return names.count(call.name) != 0;
}

// How calls fail: with an error number, once or from there on.
std::vector<std::pair<int, int>> Failures()
{
    if (!IsFullCampaign()) {
        return {{EIO, 1}};
    }
    std::vector<std::pair<int, int>> failures;
    for (const int error : {EIO, ENOSPC, EACCES, EINTR}) {
        failures.emplace_back(error, 1);
        failures.emplace_back(error, kFromHereOn);
    }
    return failures;
}

TEST_F(ToolCampaignTest, EveryCallFailsAndNothingIsLost)
{
    for (const ToolScenario& scenario : Scenarios()) {
        for (const TracedCall& call : Undisturbed(scenario)) {
            if (CannotFail(call)) {
                continue;
            }
            for (const auto& [error, times] : Failures()) {
                RunAndCheck(scenario, {call.name, call.occurrence, Fault::Kind::kError, error, times});
                ASSERT_FALSE(HasFailure());
            }
            if (call.asked > 1 && call.result > 1) {
                RunAndCheck(scenario, {call.name, call.occurrence, Fault::Kind::kShort, call.result - 1, 1});
                ASSERT_FALSE(HasFailure());
            }
        }
    }

    EXPECT_LE(500, runs_);
    EXPECT_LE(runs_ / 4, failed_);
    std::printf("campaign: tool, every call: %d runs, %d with another exit status\n", runs_, failed_);
}

TEST_F(ToolCampaignTest, KilledAtEveryCallNothingIsLost)
{
    for (const ToolScenario& scenario : Scenarios()) {
        for (const TracedCall& call : Undisturbed(scenario)) {
            for (const Fault::Kind kind : {Fault::Kind::kKillBefore, Fault::Kind::kKillAfter}) {
                if (call.name != "exit" || kind == Fault::Kind::kKillBefore) {
                    RunAndCheck(scenario, {call.name, call.occurrence, kind, 0, 1});
                    ASSERT_FALSE(HasFailure());
                }
            }
        }
    }

    EXPECT_LE(500, runs_);
    std::printf("campaign: tool, kills: %d runs\n", runs_);
}

// The output is whole, or the program fails with a message.
void CheckReader(const TracedRun& run, const std::string& output, const std::string& whole)
{
    EXPECT_EQ("", run.problem);
    EXPECT_TRUE(std::any_of(run.calls.begin(), run.calls.end(), [](const TracedCall& call) { return call.faults > 0; }))
        << "the fault did not occur";
    if (run.status == 0) {
        EXPECT_EQ(whole, output);
    } else {
        EXPECT_EQ(1, run.status);
        EXPECT_TRUE(!CouldPrint(run) || output.find("\n  Next: ") != std::string::npos) << output;
    }
}

TEST_F(ToolCampaignTest, EveryCallFailsAndNoOutputIsIncomplete)
{
    const std::map<std::string, std::string> files = {{"f", "a=1\nb=3\nb=4\n"},
                                                      {"g", "1"},
                                                      {"table", std::string(70000, 'x') + "\ny\n"},  // needs a file
                                                      {"log", "CopyFile: open(/a) failed (2, x).\n"}};
    const std::vector<ToolScenario> scenarios = {
        {"list", {"list", ".", "--recursive", "--sort", "size"}, files, "", ""},
        {"list as JSON", {"list", ".", "--larger-than", "1", "--json"}, files, "", ""},
        {"row", {"row", "--table-end", "a", "b", "<c>"}, files, "", ""},
        {"row of standard input", {"row", "--csv"}, files, "", "", "table"},
        {"explain", {"explain"}, files, "", "", "log"},
        {"get", {"get", "f"}, files, "", ""},
        {"get for a shell", {"get", "f", "--shell", "b", "a"}, files, "", ""},
        {"get as JSON", {"get", "f", "--json"}, files, "", ""},
    };
    for (const ToolScenario& scenario : scenarios) {
        const TracedRun undisturbed = Run(scenario, {});
        const std::string whole = ReadFile(other_ / kOutput_);
        ASSERT_EQ(0, undisturbed.status) << whole;
        ASSERT_NE("", whole);
        for (const TracedCall& call : undisturbed.calls) {
            if (CannotFail(call)) {
                continue;
            }
            for (const auto& [error, times] : Failures()) {
                SCOPED_TRACE(scenario.name + ", " + call.name + " #" + std::to_string(call.occurrence) + ", errno " +
                             std::to_string(error) + (times > 1 ? " from here on" : ""));
                const TracedRun run = Run(scenario, {{call.name, call.occurrence, Fault::Kind::kError, error, times}});
                CheckReader(run, ReadFile(other_ / kOutput_), whole);
                ASSERT_FALSE(HasFailure());
                ++runs_;
                failed_ += run.status;
            }
        }
    }

    EXPECT_LE(50, runs_);
    EXPECT_LE(10, failed_);
    std::printf("campaign: tool, every call of a reader: %d runs, %d failed\n", runs_, failed_);
}

// The number of allocations of a run.
long ToolCampaignTest::CountAllocations(const ToolScenario& scenario, const std::vector<Fault>& faults)
{
    (void)Run(scenario, faults, "count");
    const std::string output = ReadFile(other_ / kOutput_);
    const std::size_t line = output.rfind('\n', output.size() - 2);
    return std::stol(output.substr(line == std::string::npos ? 0 : line + 1));
}

// The memory ends at each of the allocations with which the work is done, which an undisturbed run makes last, and at
// some of the others: those of the command line, and of a message.
void ToolCampaignTest::TakeMemoryAway(const ToolScenario& scenario, const std::vector<Fault>& faults)
{
    constexpr long kFirst = 100;  // before main, only the runtime system can end the program
    constexpr long kAround = 100;
    constexpr long kStep = 50;
    (void)Undisturbed(scenario);
    const long end = CountAllocations(scenario, {});
    const long count = CountAllocations(scenario, faults);
    ASSERT_LT(kFirst + kAround, end);
    for (long nth = kFirst; nth <= count; nth += std::abs(nth - end) > kAround ? kStep : 1) {
        SCOPED_TRACE(scenario.name + ", new #" + std::to_string(nth) + " of " + std::to_string(count));
        const TracedRun run = Run(scenario, faults, std::to_string(nth));
        EXPECT_TRUE(std::any_of(run.calls.begin(), run.calls.end(), [](const TracedCall& call) {
            return call.name == "close" && call.Error() == EBADF;
        })) << "the memory was not taken away";
        if (run.problem.empty()) {
            Check(scenario, run);
        } else {  // the parser of the command line ends the program
            EXPECT_EQ("the child ended with status " + std::to_string(SIGABRT), run.problem);
            EXPECT_EQ(scenario.before, Files());
        }
        ASSERT_FALSE(HasFailure());
        ++runs_;
    }
}

TEST_F(ToolCampaignTest, WithoutMemoryNothingIsLostAndTheExitStatusSaysSo)
{
    for (const ToolScenario& scenario : Scenarios()) {
        TakeMemoryAway(scenario, {});
        ASSERT_FALSE(HasFailure());
        if (scenario.name == "plain move") {  // whose function is true, though the source is kept
            TakeMemoryAway(scenario, {{"unlink", 1, Fault::Kind::kError, EIO, 1}});
            ASSERT_FALSE(HasFailure());
        }
    }

    EXPECT_LE(1000, runs_);
    std::printf("campaign: tool, memory: %d runs\n", runs_);
}

}  // namespace
