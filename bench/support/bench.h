/// @file
/// The frame of the benchmarks. A workload ("move/across:4096") is one piece of work; its contenders do it in different
/// ways: this library ("ours"), the least that the work takes ("floor"), and what else a program could call.
#ifndef ORV_BENCH_H
#define ORV_BENCH_H

#include <benchmark/benchmark.h>

#ifdef ORV_BENCH_VALGRIND
#include <valgrind/callgrind.h>
#endif

#include <functional>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace bench {

/// What is measured, whoever does it.
struct Workload {
    std::string name;       // FAMILY/WORK, or FAMILY/WORK:SIZE where sizes are swept
    double units = 1;       // of work in one call
    std::string unit;       // what they are: "call", "byte", "entry", "line"
    long calls = 0;         // fixed number of calls in one measurement; 0 lets the clock decide
    bool heavy = false;     // seconds a call: fewer rounds, and left out of the quick form
    bool inMemory = false;  // its peak of memory is measured, too
};

struct Contender {
    Workload workload;
    std::string name;                                // "ours", "floor", or the peer's
    bool process = false;                            // starts processes: their CPU time counts, not our own
    std::function<std::string()> outcome;            // makes one call and tells what it achieved
    std::function<void(benchmark::State&)> measure;  // the timed loop
    std::function<long()> peak;  // makes one call and tells by how many bytes the peak of memory grew
    std::function<void(const std::string&)> count;  // makes one call under callgrind, whose counts get that name

    [[nodiscard]] std::string FullName() const
    {
        return workload.name + "/" + name;
    }
};

/// All contenders; those of one workload stand together.
std::vector<Contender>& Contenders();

/// What a call achieved, as text to be compared with what the floor achieved.
inline std::string Text(bool result)
{
    return result ? "true\n" : "false\n";
}

/// For calls whose outcome shows in the fixture alone.
struct Done {};

inline std::string Text(Done)
{
    return {};
}

inline std::string Text(const std::string& result)
{
    return result + '\n';
}

template <typename Strings>
std::string TextOfEach(const Strings& strings)
{
    std::string text;
    for (const auto& element : strings) {
        text += element;
        text += '\n';
    }
    return text;
}

inline std::string Text(const std::vector<std::string>& result)
{
    return TextOfEach(result);
}

inline std::string Text(const std::list<std::string>& result)
{
    return TextOfEach(result);
}

inline std::string Text(const std::map<std::string, std::string>& result)
{
    std::string text;
    for (const auto& [name, value] : result) {
        text += name + '=' + value + '\n';
    }
    return text;
}

/// The base of fixtures: what the calls work on, made before the clock starts.
struct Fixture {
    /// What a call left behind besides its result, such as the content of a file.
    [[nodiscard]] static std::string After()
    {
        return {};
    }
};

/// CPU time of all child processes that have ended, in seconds.
double ChildSeconds();

/// Peak of memory of this process, in bytes, since the last call of ForgetPeak.
long Peak();
void ForgetPeak();

/// What callgrind counts lies between these two.
inline void StartCount()
{
#ifdef ORV_BENCH_VALGRIND
    CALLGRIND_START_INSTRUMENTATION;
#endif
}

inline void EndCount([[maybe_unused]] const char* name)
{
#ifdef ORV_BENCH_VALGRIND
    CALLGRIND_DUMP_STATS_AT(name);  // first: stopping forgets the counts
    CALLGRIND_STOP_INSTRUMENTATION;
#endif
}

/// Makes one call as a program would make it: its result is used and destroyed.
template <typename Fixture, typename Run>
void Call(Fixture& fixture, const Run& run)
{
    auto result = run(fixture);
    benchmark::DoNotOptimize(result);
}

/// Adds a contender: `make()` gives its fixture, `run(fixture)` is the call that is measured.
template <typename Make, typename Run>
Contender& Add(const Workload& workload, const std::string& name, Make make, Run run)
{
    Contender contender;
    contender.workload = workload;
    contender.name = name;
    contender.outcome = [make, run] {
        auto fixture = make();
        const std::string text = Text(run(fixture));
        return text + fixture.After();
    };
    contender.measure = [make, run](benchmark::State& state) {
        auto fixture = make();
        for ([[maybe_unused]] auto _ : state) {
            Call(fixture, run);
        }
    };
    contender.peak = [make, run] {
        auto fixture = make();
        ForgetPeak();
        const long before = Peak();
        Call(fixture, run);
        return Peak() - before;
    };
    contender.count = [make, run](const std::string& countName) {
        auto fixture = make();
        Call(fixture, run);  // symbols get resolved, buffers their size
        StartCount();
        Call(fixture, run);
        EndCount(countName.c_str());
    };
    Contenders().push_back(std::move(contender));
    return Contenders().back();
}

/// Adds a contender that is a program of its own: `run(fixture)` starts it and waits for its end.
template <typename Make, typename Run>
void AddProcess(const Workload& workload, const std::string& name, Make make, Run run)
{
    Contender& contender = Add(workload, name, make, run);
    contender.process = true;
    contender.measure = [make, run](benchmark::State& state) {
        auto fixture = make();
        for ([[maybe_unused]] auto _ : state) {
            const double before = ChildSeconds();
            Call(fixture, run);
            state.SetIterationTime(ChildSeconds() - before);
        }
    };
}

/// Adds the contenders of one family.
void AddDirectories();
void AddSettings();
void AddStrings();
void AddTables();
void AddTransfers();

/// Runs a program, found along PATH; false unless it ends well.
bool RunProgram(const std::vector<std::string>& arguments);

}  // namespace bench

#endif  // ORV_BENCH_H
