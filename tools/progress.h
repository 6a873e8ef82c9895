// Progress of long work on files: a line on standard error, on a terminal only.
#ifndef ORV_TOOLS_PROGRESS_H
#define ORV_TOOLS_PROGRESS_H

#include <sys/types.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

// While it lives, shows how many of `total` bytes this process has written, or read. The functions of the library tell
// nobody how far they are; the kernel counts for each process.
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
    std::thread thread_;  // last, for it uses the others
};

#endif  // ORV_TOOLS_PROGRESS_H
