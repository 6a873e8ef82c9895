#include "campaigns/faults/safe_campaign.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

namespace {

using Lists = std::map<std::string, std::vector<int>>;

const Lists& ErrorLists()
{
    static const Lists lists = [] {
        Lists read;
        std::ifstream file(ORV_ERROR_LISTS);
        for (std::string line; std::getline(file, line);) {
            std::istringstream in(line);
            std::string call;
            in >> call;
            for (int error = 0; in >> error;) {
                read[call].push_back(error);
            }
        }
        // The forms of one call, with the names of the tracer.
        read["create"] = read["tmpfile"] = read["open"];
        read["pread"] = read["read"];
        read["lstat"] = read["fstat"] = read["stat"];
        return read;
    }();
    return lists;
}

std::string Shown(const Fault& fault)
{
    const char* const kinds[] = {"fails with errno ", "cut to bytes: ", "killed before ", "killed after "};
    return fault.call + " #" + std::to_string(fault.occurrence) + " " + kinds[static_cast<int>(fault.kind)] +
           std::to_string(fault.value) + (fault.times > 1 ? " from here on" : "");
}

bool CannotFail(const TracedCall& call)
{
    return call.name == "getpid" || call.name == "geteuid";
}

// Runs with the faults, and checks. Returns the calls of the run.
std::vector<TracedCall> RunAndCheck(const SafeScenario& scenario, const std::vector<Fault>& faults, SafeCounts& counts)
{
    std::string trace = scenario.name;
    for (const Fault& fault : faults) {
        trace += ", " + Shown(fault);
    }
    SCOPED_TRACE(trace);
    scenario.arrange();
    std::vector<Fault> all = scenario.always;
    all.insert(all.end(), faults.begin(), faults.end());
    const TracedRun run = RunTraced(scenario.act, all);
    EXPECT_EQ("", run.problem);
    for (const Fault& fault : faults) {
        EXPECT_TRUE(std::any_of(run.calls.begin(), run.calls.end(), [&](const TracedCall& call) {
            return call.name == fault.call && call.occurrence == fault.occurrence && call.faults > 0;
        })) << "did not occur";
    }
    for (const TracedCall& call : run.calls) {
        EXPECT_TRUE(ErrorLists().count(call.name) != 0 || CannotFail(call)) << "unknown call: " << call.name;
    }
    EXPECT_TRUE(run.killed || run.descriptorsBefore == run.descriptorsAfter) << "descriptors left open";
    scenario.check(run);
    ++counts.runs;
    counts.faults += static_cast<int>(faults.size());
    counts.failed += run.answer.result == "false" ? 1 : 0;
    counts.kills += run.killed ? 1 : 0;
    return run.calls;
}

std::vector<TracedCall> Undisturbed(const SafeScenario& scenario)
{
    SafeCounts ignored;
    return RunAndCheck(scenario, {}, ignored);
}

bool IsAlwaysFaulty(const SafeScenario& scenario, const TracedCall& call)
{
    return std::any_of(scenario.always.begin(), scenario.always.end(),
                       [&](const Fault& fault) { return fault.call == call.name; });
}

// In the short form, each call fails with every fifth number of its list, from one that changes from call to call.
bool IsLeftOut(std::size_t call, std::size_t error)
{
    constexpr std::size_t kStep = 5;
    return !IsFullCampaign() && (call + error) % kStep != 0;
}

}  // namespace

bool IsFullCampaign()
{
    return std::getenv("ORV_FULL") != nullptr;
}

void FailEachCall(const SafeScenario& scenario, SafeCounts& counts)
{
    const std::vector<TracedCall> calls = Undisturbed(scenario);
    for (std::size_t i = 0; i < calls.size() && !::testing::Test::HasFailure(); ++i) {
        if (IsAlwaysFaulty(scenario, calls[i]) || CannotFail(calls[i])) {
            continue;
        }
        const std::vector<int>& errors = ErrorLists().at(calls[i].name);
        for (std::size_t e = 0; e < errors.size(); ++e) {
            if (IsLeftOut(i, e)) {
                continue;
            }
            for (const int times : {1, kFromHereOn}) {
                (void)RunAndCheck(
                    scenario, {{calls[i].name, calls[i].occurrence, Fault::Kind::kError, errors[e], times}}, counts);
            }
        }
        if (calls[i].asked > 1 && calls[i].result > 1) {
            for (const long bytes : {1L, calls[i].result - 1}) {
                (void)RunAndCheck(scenario, {{calls[i].name, calls[i].occurrence, Fault::Kind::kShort, bytes, 1}},
                                  counts);
            }
        }
    }
}

void FailEachPair(const SafeScenario& scenario, SafeCounts& counts)
{
    const std::vector<int> firstErrors =
        IsFullCampaign() ? std::vector<int>{EIO, EEXIST, EPERM} : std::vector<int>{EIO};
    const std::vector<TracedCall> calls = Undisturbed(scenario);
    for (const TracedCall& call : calls) {
        if (IsAlwaysFaulty(scenario, call) || CannotFail(call)) {
            continue;
        }
        for (const int error : firstErrors) {
            const Fault first{call.name, call.occurrence, Fault::Kind::kError, error, 1};
            // The calls that follow, also those that the first failure causes.
            const std::vector<TracedCall> after = RunAndCheck(scenario, {first}, counts);
            bool isAfter = false;
            for (const TracedCall& second : after) {
                if (isAfter && !IsAlwaysFaulty(scenario, second) && !CannotFail(second)) {
                    (void)RunAndCheck(scenario, {first, {second.name, second.occurrence, Fault::Kind::kError, EIO, 1}},
                                      counts);
                }
                isAfter = isAfter || (second.name == call.name && second.occurrence == call.occurrence);
                if (::testing::Test::HasFailure()) {
                    return;
                }
            }
        }
    }
}

void KillAtEachCall(const SafeScenario& scenario, SafeCounts& counts)
{
    for (const TracedCall& call : Undisturbed(scenario)) {
        for (const Fault::Kind kind : {Fault::Kind::kKillBefore, Fault::Kind::kKillAfter}) {
            (void)RunAndCheck(scenario, {{call.name, call.occurrence, kind, 0, 1}}, counts);
            if (::testing::Test::HasFailure()) {
                return;
            }
        }
    }
}
