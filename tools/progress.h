// Shows the progress of long work in a line on standard error, if that is a terminal.
#ifndef ORV_TOOLS_PROGRESS_H
#define ORV_TOOLS_PROGRESS_H

#include <chrono>
#include <cstdint>

// One piece of work. The destructor removes the line. Nothing here can fail: what cannot be shown is not shown.
class Progress {
public:
    // `what` is such as "copying", and is kept, not copied.
    explicit Progress(const char* what) : what_(what)
    {
    }
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Shows how much is done, unless it was shown just before, or the work is short.
    void Show(std::uint64_t done, std::uint64_t total);

private:
    const char* const what_;
    std::chrono::steady_clock::time_point shownAt_;
};

// What to write before another line, so that it does not share its line with the progress: nothing if none is shown.
const char* EraseProgress();

#endif  // ORV_TOOLS_PROGRESS_H
