#include "dlog_memory.h"
#include "dlog.h"
#include "dlog_text.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <deque>
#include <mutex>
#include <new>
#include <utility>

namespace dlog_memory {

namespace {

std::atomic<unsigned long> total(0);  // not in Memory: a report is counted even if memory runs out

struct Memory {
    std::mutex mutex;
    std::deque<std::string> lines;
    std::size_t limit = kDefaultLimit;

    void DropOld()
    {
        while (lines.size() > limit) {
            lines.pop_front();
        }
    }
};

// Never destroyed, because destructors of static objects may report too.
Memory& TheMemory()
{
    static Memory& memory = *new Memory;
    return memory;
}

void Keep(std::string line)
{
    static const char kCut[] = "...";
    if (line.size() > kMaxLineBytes) {
        line.resize(kMaxLineBytes - (sizeof kCut - 1));
        line += kCut;
    }
    if (line.capacity() > kMaxLineBytes) {  // it grew by doubling
        line.shrink_to_fit();
    }
    Memory& memory = TheMemory();
    const std::lock_guard<std::mutex> lock(memory.mutex);
    memory.lines.push_back(std::move(line));
    memory.DropOld();
}

}  // namespace

std::vector<std::string> Lines()
{
    Memory& memory = TheMemory();
    const std::lock_guard<std::mutex> lock(memory.mutex);
    return std::vector<std::string>(memory.lines.begin(), memory.lines.end());
}

unsigned long Total()
{
    return total;
}

void Clear()
{
    Memory& memory = TheMemory();
    const std::lock_guard<std::mutex> lock(memory.mutex);
    memory.lines.clear();
    total = 0;
}

void SetLimit(std::size_t lines)
{
    Memory& memory = TheMemory();
    const std::lock_guard<std::mutex> lock(memory.mutex);
    memory.limit = lines;
    memory.DropOld();
}

}  // namespace dlog_memory

void __dlog_printf(int severity, const char* sourceTag, const char* format, ...)
{
    const int callersErrno = errno;
    std::va_list arguments;
    va_start(arguments, format);
    ++dlog_memory::total;
    try {
        std::string line = "[" + std::to_string(severity) + "] ";
        dlog_text::AppendReport(line, sourceTag, format, arguments);
        dlog_memory::Keep(std::move(line));
    } catch (const std::bad_alloc&) {
        // Total() shows the loss.
    }
    va_end(arguments);
    errno = callersErrno;
}
