// Shows the progress of long operations on standard error, if that is a terminal.
#ifndef ORV_TOOLS_PROGRESS_H
#define ORV_TOOLS_PROGRESS_H

#include <sys/types.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

// While it exists, shows how many of `total` bytes this process has written or read. The functions of the library do
// not report their progress, but the kernel counts the bytes of each process.
class Progress {
public:
    enum class Counted { kRead, kWritten };

    Progress(const std::string& what, off_t total, Counted counted);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

private:
    void Run();

    const std::string what_;
    const off_t total_;
    const char* const counter_;
    std::mutex mutex_;
    std::condition_variable ended_;
    bool end_ = false;
    std::thread thread_;  // last, because it uses the others
};

#endif  // ORV_TOOLS_PROGRESS_H
