// The benchmark program, which uses Google Benchmark.

#include "support/bench.h"

#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>

namespace bench {

std::vector<Contender>& Contenders()
{
    static std::vector<Contender> contenders;
    return contenders;
}

double ChildSeconds()
{
    struct rusage usage = {};
    (void)getrusage(RUSAGE_CHILDREN, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           1e-6 * static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

long Peak()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 6, "VmHWM:") == 0) {
            return 1024 * std::atol(line.c_str() + 6);
        }
    }
    return 0;
}

void ForgetPeak()
{
    std::ofstream("/proc/self/clear_refs") << '5';
}

bool RunProgram(const std::vector<std::string>& arguments)
{
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    pid_t child = 0;
    int status = 0;
    return posix_spawnp(&child, argv[0], nullptr, nullptr, argv.data(), environ) == 0 &&
           waitpid(child, &status, 0) == child && status == 0;
}

namespace {

const char kUsage[] =
    "Usage: orv_bench [MODE] [--filter=REGEX | --only=NAME] [--benchmark_...]\n"
    "  (no mode)          compares the outcomes of the contenders of each workload, then measures CPU time\n"
    "  --list             prints the contenders: name, unit, units, heavy, in memory, process\n"
    "  --check            only compares the outcomes\n"
    "  --unchecked        only measures\n"
    "  --peak             prints by how many bytes one call lets the peak of memory grow\n"
    "  --count            makes one call of ours and of the floor, unless heavy, for callgrind --instr-atstart=no\n"
    "  --filter=REGEX     only names WORKLOAD/CONTENDER that it is found in\n"
    "  --only=NAME        only that one\n";

struct Options {
    std::string mode;
    std::regex filter{""};
    std::string only;
};

// Removes our own options from the arguments.
Options ParseOptions(int& argc, char** argv)
{
    Options options;
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument.compare(0, 9, "--filter=") == 0) {
            options.filter = std::regex(argument.substr(9));
        } else if (argument.compare(0, 7, "--only=") == 0) {
            options.only = argument.substr(7);
        } else if (argument.compare(0, 12, "--benchmark_") == 0) {
            argv[kept++] = argv[i];
        } else if (argument == "--help") {
            (void)std::fputs(kUsage, stdout);
            std::exit(0);
        } else {
            options.mode = argument;
        }
    }
    argc = kept;
    return options;
}

std::vector<const Contender*> Chosen(const Options& options)
{
    std::vector<const Contender*> chosen;
    for (const Contender& contender : Contenders()) {
        const std::string name = contender.FullName();
        if (options.only.empty() ? std::regex_search(name, options.filter) : name == options.only) {
            chosen.push_back(&contender);
        }
    }
    return chosen;
}

void List(const std::vector<const Contender*>& chosen)
{
    for (const Contender* contender : chosen) {
        const Workload& workload = contender->workload;
        (void)std::printf("%s\t%s\t%.0f\t%d\t%d\t%d\n", contender->FullName().c_str(), workload.unit.c_str(),
                          workload.units, workload.heavy ? 1 : 0, workload.inMemory ? 1 : 0,
                          contender->process ? 1 : 0);
    }
}

// Returns the floor of a workload, or the first other contender that is not this library.
const Contender& ReferenceOf(const Workload& workload)
{
    const Contender* reference = nullptr;
    for (const Contender& contender : Contenders()) {
        if (contender.workload.name == workload.name && contender.name != "ours" &&
            (reference == nullptr || contender.name == "floor")) {
            reference = &contender;
        }
    }
    if (reference == nullptr) {
        (void)std::fprintf(stderr, "orv_bench: %s has no other contender\n", workload.name.c_str());
        std::exit(1);
    }
    return *reference;
}

// Checks that all contenders have the same result as the reference of their workload.
bool Check(const std::vector<const Contender*>& chosen)
{
    bool same = true;
    std::string workload;
    std::string expected;
    for (const Contender* contender : chosen) {
        if (workload != contender->workload.name) {
            workload = contender->workload.name;
            expected = ReferenceOf(contender->workload).outcome();
        }
        if (contender->name != "floor" && contender->outcome() != expected) {
            (void)std::fprintf(stderr, "orv_bench: %s differs from %s\n", contender->FullName().c_str(),
                               ReferenceOf(contender->workload).name.c_str());
            same = false;
        }
    }
    return same;
}

void Count(const std::vector<const Contender*>& chosen)
{
    for (const Contender* contender : chosen) {
        if ((contender->name == "ours" || contender->name == "floor") && !contender->workload.heavy) {
            contender->count(contender->FullName());
        }
    }
}

void Measure(const std::vector<const Contender*>& chosen, int argc, char** argv)
{
    for (const Contender* contender : chosen) {
        benchmark::internal::Benchmark* const registered =
            benchmark::RegisterBenchmark(contender->FullName().c_str(), contender->measure);
        if (contender->process) {
            registered->UseManualTime();
        } else {
            registered->MeasureProcessCPUTime();
        }
        if (contender->workload.calls != 0) {
            registered->Iterations(contender->workload.calls);
        }
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}

int Run(int argc, char** argv)
{
    (void)setenv("GIO_USE_VFS", "local", 1);  // keeps GLib from starting threads and processes
    AddTransfers();
    AddDirectories();
    AddStrings();
    AddTables();
    AddSettings();
    const Options options = ParseOptions(argc, argv);
    const std::vector<const Contender*> chosen = Chosen(options);
    if (chosen.empty()) {
        (void)std::fprintf(stderr, "orv_bench: nothing has such a name\n");
        return 1;
    }
    if (options.mode == "--list") {
        List(chosen);
    } else if (options.mode == "--check") {
        return Check(chosen) ? 0 : 1;
    } else if (options.mode == "--peak") {
        for (const Contender* contender : chosen) {
            (void)std::printf("%s\t%ld\n", contender->FullName().c_str(), contender->peak());
        }
    } else if (options.mode == "--count") {
        Count(chosen);
    } else if (options.mode.empty() || options.mode == "--unchecked") {
        if (options.mode.empty() && !Check(chosen)) {
            return 1;
        }
        Measure(chosen, argc, argv);
    } else {
        (void)std::fputs(kUsage, stderr);
        return 2;
    }
    return 0;
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv)
{
    return bench::Run(argc, argv);
}
