// Runs a function of the safe companion once for each fault: every system call fails with every error number of its
// manual page, once and from there on; every pair of calls fails; every call is the last one before a kill. A scenario
// says what must be true after each run. With ORV_FULL in the environment, nothing is left out.
#ifndef ORV_TESTS_SAFE_CAMPAIGN_H
#define ORV_TESTS_SAFE_CAMPAIGN_H

#include <functional>
#include <string>
#include <vector>

#include "campaigns/faults/tracer.h"

struct SafeScenario {
    std::string name;
    std::function<void()> arrange;                // before each run
    std::function<Answer()> act;                  // in the traced child
    std::function<void(const TracedRun&)> check;  // after each run, also after a kill: `killed` is then true
    std::vector<Fault> always;                    // in each run
};

struct SafeCounts {
    int runs = 0;
    int faults = 0;  // that occurred; at least one in each run
    int failed = 0;  // runs whose result was "false"
    int kills = 0;
};

// Each stops at the first run that fails its check, and adds to the counts. Checks that each fault occurred.
void FailEachCall(const SafeScenario& scenario, SafeCounts& counts);
void FailEachPair(const SafeScenario& scenario, SafeCounts& counts);
void KillAtEachCall(const SafeScenario& scenario, SafeCounts& counts);

bool IsFullCampaign();

#endif  // ORV_TESTS_SAFE_CAMPAIGN_H
