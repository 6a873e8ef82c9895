/// @file
/// The common code of the benchmarks. A workload ("move/across:4096") is one piece of work. Its contenders do it in
/// different ways: this library ("ours"), the least possible cost ("floor"), and what a program could call instead. A
/// workload may have no floor.
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

/// A piece of work, for all contenders.
struct Workload {
    std::string name;       // FAMILY/WORK, or FAMILY/WORK:SIZE if there are several sizes; growth/FAMILY:SIZE
    double units = 1;       // of work in one call
    std::string unit;       // "call", "byte", "entry" or "line"
    long calls = 0;         // number of calls in one measurement; 0: as many as fit into the time
    bool heavy = false;     // a call takes seconds: fewer rounds, and not in the quick form
    bool inMemory = false;  // its peak memory is measured too
};

struct Contender {
    Workload workload;
    std::string name;                                // "ours", "floor", or the name of another library
    bool process = false;                            // starts processes, whose CPU time is measured
    std::function<std::string()> outcome;            // makes one call and returns its result as text
    std::function<void(benchmark::State&)> measure;  // the timed loop
    std::function<long()> peak;                      // makes one call and returns the growth of peak memory in bytes
    std::function<void(const std::string&)> count;   // makes one call under callgrind and gives the counts this name

    [[nodiscard]] std::string FullName() const
    {
        return workload.name + "/" + name;
    }
};

/// All contenders; those of one workload are adjacent.
std::vector<Contender>& Contenders();

/// Converts the result of a call to text, which is compared with that of the floor.
inline std::string Text(bool result)
{
    return result ? "true\n" : "false\n";
}

/// For calls whose result is only in the fixture.
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

/// The base class of fixtures. A fixture contains the data of the calls and is made before the clock starts.
struct Fixture {
    /// Returns what a call changed besides its result, such as the content of a file.
    [[nodiscard]] static std::string After()
    {
        return {};
    }
};

/// Returns the CPU time of all child processes that have ended, in seconds.
double ChildSeconds();

/// Returns the peak memory of this process since the last call of ForgetPeak, in bytes.
long Peak();
void ForgetPeak();

/// callgrind counts between these two calls.
inline void StartCount()
{
#ifdef ORV_BENCH_VALGRIND
    CALLGRIND_START_INSTRUMENTATION;
#endif
}

inline void EndCount([[maybe_unused]] const char* name)
{
#ifdef ORV_BENCH_VALGRIND
    CALLGRIND_DUMP_STATS_AT(name);  // first, because stopping clears the counts
    CALLGRIND_STOP_INSTRUMENTATION;
#endif
}

/// Makes one call as a program would: uses the result and destroys it.
template <typename Fixture, typename Run>
void Call(Fixture& fixture, const Run& run)
{
    auto result = run(fixture);
    benchmark::DoNotOptimize(result);
}

/// Adds a contender: `make()` returns its fixture, `run(fixture)` is the call that is measured.
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
        Call(fixture, run);  // resolves symbols and lets buffers grow
        StartCount();
        Call(fixture, run);
        EndCount(countName.c_str());
    };
    Contenders().push_back(std::move(contender));
    return Contenders().back();
}

/// Adds a contender that is a program: `run(fixture)` starts it and waits until it ends.
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

/// Calls `add(size)` for each power of ten up to `most`: the sizes of the workloads growth/FAMILY:SIZE, which show how
/// the cost of a call grows.
template <typename AddSize>
void ForEachSize(std::size_t most, const AddSize& add)
{
    for (std::size_t size = 1; size <= most; size *= 10) {
        add(size);
    }
}

/// Adds the contenders of one family.
void AddDirectories();
void AddSettings();
void AddStrings();
void AddTables();
void AddTransfers();

/// Runs a program, which is searched for in PATH. Returns true if its exit status is 0.
bool RunProgram(const std::vector<std::string>& arguments);

}  // namespace bench

#endif  // ORV_BENCH_H
