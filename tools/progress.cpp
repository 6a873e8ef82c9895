#include "progress.h"

#include "log.h"
#include "support.h"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace {

using Clock = std::chrono::steady_clock;

const std::uint64_t kLongBytes = 16 << 20;  // smaller files are done before anybody could read a line
constexpr std::chrono::milliseconds kPeriod(200);
const std::uint64_t kPercent = 100;
const std::size_t kLineBytes = 80;
const char kErase[] = "\r\033[K";  // leaves an empty line

bool isShown = false;

// In one write. The work goes on if the terminal is gone.
void WriteAll(const char* text)
{
    const ssize_t written = write(STDERR_FILENO, text, std::strlen(text));
    (void)written;
}

}  // namespace

Progress::~Progress()
{
    WriteAll(EraseProgress());
}

void Progress::Show(std::uint64_t done, std::uint64_t total)
{
    if (total < kLongBytes || IsQuiet() || UsesSyslog() || isatty(STDERR_FILENO) != 1 ||
        (isShown && Clock::now() - shownAt_ < kPeriod)) {
        return;
    }
    char line[kLineBytes];
    (void)std::snprintf(line, sizeof line, "%s%s: %u %%", kErase, what_,
                        static_cast<unsigned int>(std::min(done, total) * kPercent / total));
    WriteAll(line);
    isShown = true;
    shownAt_ = Clock::now();
}

const char* EraseProgress()
{
    const char* const erase = isShown ? kErase : "";
    isShown = false;
    return erase;
}
