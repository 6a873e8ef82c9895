#include "progress.h"

#include "support.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iostream>

namespace {

const off_t kLongBytes = 16 << 20;  // smaller files are done before anybody could read a line
constexpr std::chrono::milliseconds kPeriod(200);

// Returns a counter of this process by its name, such as "wchar"; 0 if the kernel does not count.
off_t Count(const std::string& name)
{
    std::ifstream counters("/proc/self/io");
    std::string key;
    off_t value = 0;
    while (counters >> key >> value) {
        if (key == name + ":") {
            return value;
        }
    }
    return 0;
}

}  // namespace

Progress::Progress(const std::string& what, off_t total, Counted counted)
    : what_(what), total_(total), counter_(counted == Counted::kRead ? "rchar" : "wchar")
{
    if (total >= kLongBytes && !IsQuiet() && isatty(STDERR_FILENO) == 1) {
        thread_ = std::thread(&Progress::Run, this);
    }
}

Progress::~Progress()
{
    if (thread_.joinable()) {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            end_ = true;
        }
        ended_.notify_one();
        thread_.join();
    }
}

void Progress::Run()
{
    const off_t start = Count(counter_);
    std::unique_lock<std::mutex> lock(mutex_);
    do {
        const off_t done = std::min(Count(counter_) - start, total_);
        std::cerr << "\r" + what_ + ": " + std::to_string(done >> 20) + " of " + std::to_string(total_ >> 20) +
                         " MiB (" + std::to_string(done * 100 / total_) + " %)";
    } while (!ended_.wait_for(lock, kPeriod, [this] { return end_; }));
    std::cerr << "\r\033[K";  // leaves an empty line
}
