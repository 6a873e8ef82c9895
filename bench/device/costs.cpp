// Prints what one call of each function costs on the emulated board: instructions, heap and stack. script/board costs
// starts it on a board whose clock advances one nanosecond with each instruction, the kernel's included.

#include "LxFileUtils.h"
#include "dlog/dlog.h"

#include <malloc.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <iostream>
#include <list>
#include <map>
#include <string>
#include <vector>

// ---- The heap: what is in use, and the most that was

namespace {

std::size_t inUse = 0;
std::size_t most = 0;

void* Counted(void* block)
{
    inUse += malloc_usable_size(block);
    most = std::max(most, inUse);
    return block;
}

void Discount(void* block)
{
    inUse -= malloc_usable_size(block);
}

}  // namespace

extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);

void* malloc(std::size_t size)
{
    return Counted(__libc_malloc(size));
}

void* calloc(std::size_t count, std::size_t size)
{
    return Counted(__libc_calloc(count, size));
}

void* realloc(void* block, std::size_t size)
{
    Discount(block);
    return Counted(__libc_realloc(block, size));
}

void free(void* block)
{
    Discount(block);
    __libc_free(block);
}

void __dlog_printf(int /*severity*/, const char* source, const char* format, ...)
{
    std::fprintf(stderr, "%s reported a failure: %s\n", source, format);
    std::_Exit(1);
}
}

namespace {

struct Work {
    std::string name;
    std::function<void()> prepare;  // before each call, not counted
    std::function<void()> call;
};

// ---- Counting

const int kRounds = 31;
const std::size_t kStackBytes = 1 << 20;
const unsigned char kUntouched = 0xA5;

std::int64_t Nanoseconds()
{
    std::timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

// The median, because interrupts come in between.
std::int64_t Instructions(const Work& work)
{
    std::vector<std::int64_t> counts;
    for (int round = 0; round < kRounds; ++round) {
        work.prepare();
        const std::int64_t start = Nanoseconds();
        work.call();
        counts.push_back(Nanoseconds() - start);
    }
    std::nth_element(counts.begin(), counts.begin() + kRounds / 2, counts.end());
    return counts[kRounds / 2];
}

std::size_t HeapBytes(const Work& work)
{
    work.prepare();
    const std::size_t before = most = inUse;
    work.call();
    return most - before;
}

void* CallInThread(void* call)
{
    (*static_cast<const std::function<void()>*>(call))();
    return nullptr;
}

// What a thread touches of its stack.
std::size_t StackBytes(const Work& work)
{
    work.prepare();
    auto* const stack =
        static_cast<unsigned char*>(aligned_alloc(static_cast<std::size_t>(getpagesize()), kStackBytes));
    std::memset(stack, kUntouched, kStackBytes);
    pthread_attr_t attributes;
    pthread_t thread;
    (void)pthread_attr_init(&attributes);
    (void)pthread_attr_setstack(&attributes, stack, kStackBytes);
    std::function<void()> call = work.call;
    if (pthread_create(&thread, &attributes, CallInThread, &call) != 0) {
        std::abort();
    }
    (void)pthread_join(thread, nullptr);
    const auto* const deepest =
        std::find_if(stack, stack + kStackBytes, [](unsigned char c) { return c != kUntouched; });
    const auto touched = static_cast<std::size_t>(stack + kStackBytes - deepest);
    std::free(stack);
    return touched;
}

// ---- The calls

const std::string kDirectory = "/var/tmp/costs";
const std::string kFile = kDirectory + "/file";
const std::string kMoved = kDirectory + "/moved";
const std::string kElsewhere = "/dev/shm/costs";

void Write(const std::string& path, const std::string& content)
{
    std::ofstream(path) << content;
}

void Require(bool succeeded)
{
    if (!succeeded) {
        std::abort();
    }
}

std::string Repeated(int count, const std::function<std::string(int)>& line)
{
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += line(i);
    }
    return text;
}

Work Move(const std::string& name, std::size_t bytes, const std::string& destination)
{
    return {name, [=] { Write(kFile, std::string(bytes, 'x')); },
            [=] { Require(orv_fileutils::RenameFileAcrossFs(kFile, destination)); }};
}

Work Copy(const std::string& name, std::size_t bytes)
{
    return {name, [=] { Write(kFile, std::string(bytes, 'x')); },
            [=] { Require(orv_fileutils::CopyFile(kFile, kMoved) == 0); }};
}

Work MakePath()
{
    return {"DoMakeDirPath, 4 new levels", [] { (void)std::system("rm -rf /var/tmp/costs/a"); },
            [] { Require(orv_fileutils::DoMakeDirPath("/var/tmp/costs/a/b/c/d", 0755)); }};
}

Work List()
{
    return {"GetDirFileList, 25 of 50 names",
            [] {
                (void)mkdir("/var/tmp/costs/names", 0755);
                for (int i = 0; i < 50; ++i) {
                    Write(kDirectory + "/names/" + std::to_string(i) + (i % 2 == 0 ? ".log" : ".txt"), "");
                }
            },
            [] {
                std::list<std::string> names;
                Require(orv_fileutils::GetDirFileList("/var/tmp/costs/names", "*.log", "", names, false, true, true));
                Require(names.size() == 25);
            }};
}

Work Row()
{
    return {"AddTextFileFormattedRow, 8 cells", [] {},
            [] {
                std::vector<std::string> cells(8, "cell");
                Require(!orv_fileutils::AddTextFileFormattedRow(cells).empty());
            }};
}

Work Page(int rows)
{
    const auto row = [](int i) { return "name " + std::to_string(i) + ":value,second,third;"; };
    return {"GenHtmlPagefromTextFile, " + std::to_string(rows) + " rows",
            [=] { Write(kFile, Repeated(rows, row) + "\n"); },
            [] { orv_fileutils::GenHtmlPagefromTextFile(kFile.c_str(), (kDirectory + "/page.html").c_str()); }};
}

Work Settings(int lines)
{
    const auto line = [](int i) { return "name" + std::to_string(i) + " = value\n"; };
    return {"ReadNameValueFromFile, " + std::to_string(lines) + " settings",
            [=] { Write(kFile, Repeated(lines, line)); },
            [=] {
                std::map<std::string, std::string> settings;
                Require(orv_fileutils::ReadNameValueFromFile(kFile, settings, '=', "#"));
                Require(settings.size() == static_cast<std::size_t>(lines));
            }};
}

std::vector<Work> Works()
{
    return {
        {"FileExists", [] { Write(kFile, ""); }, [] { Require(orv_fileutils::FileExists(kFile.c_str())); }},
        Move("RenameFileAcrossFs, same file system", 4000, kMoved),
        Move("RenameFileAcrossFs, across, 4,000 bytes", 4000, kElsewhere),
        Move("RenameFileAcrossFs, across, 100,000 bytes", 100000, kElsewhere),
        Copy("CopyFile, 4,000 bytes", 4000),
        Copy("CopyFile, 100,000 bytes", 100000),
        MakePath(),
        List(),
        Row(),
        Page(20),
        Settings(3),
        Settings(100),
    };
}

}  // namespace

int main()
{
    const Work nothing = {"nothing", [] {}, [] {}};
    (void)mkdir(kDirectory.c_str(), 0755);
    for (const Work& work : Works()) {
        std::cout << work.name << '\t' << Instructions(work) - Instructions(nothing) << '\t'
                  << HeapBytes(work) - HeapBytes(nothing) << '\t' << StackBytes(work) - StackBytes(nothing)
                  << std::endl;
    }
}
