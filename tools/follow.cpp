// page --watch.

#include "log.h"
#include "publish.h"
#include "signals.h"
#include "watch.h"

#include <signal.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iostream>

namespace {

constexpr std::chrono::milliseconds kInterval(1000);  // between two looks at a table that has not changed
constexpr std::chrono::milliseconds kShortest(10);    // after a change

const struct stat kMissing = {};

bool IsSameTime(const struct timespec& one, const struct timespec& other)
{
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

bool IsUnchanged(const struct stat& before, const struct stat& now)
{
    return IsSameFile(before, now) && before.st_size == now.st_size && IsSameTime(before.st_mtim, now.st_mtim) &&
           IsSameTime(before.st_ctim, now.st_ctim);
}

// Blocks SIGINT and SIGTERM. Returns a descriptor that is readable when one of them waits.
int StopSignals()
{
    sigset_t stop;
    (void)sigemptyset(&stop);
    (void)sigaddset(&stop, SIGINT);
    (void)sigaddset(&stop, SIGTERM);
    (void)sigprocmask(SIG_BLOCK, &stop, nullptr);
    const int signals = signalfd(-1, &stop, SFD_CLOEXEC);
    if (signals == -1) {
        throw Failure("cannot wait for signals: " + ErrorText(errno), "free memory, then start this again");
    }
    return signals;
}

// Publishes the page again and again.
class Follower {
public:
    explicit Follower(const PageOptions& options) : options_(options), stop_(StopSignals())
    {
        (void)signal(SIGIO, SIG_IGN);  // says that somebody waits for a lease, which soon ends anyway
        IgnoreClosedPipes();           // they are ignored already; the second call says that they never end the process
    }

    // Until SIGINT or SIGTERM.
    void Run()
    {
        for (FileWatch::Result result = FileWatch::kChanged; result != FileWatch::kStopped;) {
            const FileWatch watch(options_.table);  // first, so that no change is missed
            if (result == FileWatch::kChanged) {
                isDue_ = true;
                pause_ = kShortest;
            }
            Look();
            result = watch.Wait(stop_, isDue_ ? pause_ : kInterval);
            pause_ = std::min(2 * pause_, kInterval);
        }
    }

private:
    typedef std::chrono::steady_clock Clock;

    // Publishes the page if the table has changed and is whole.
    void Look()
    {
        const struct stat now = StatusOf(options_.table).value_or(kMissing);
        if (!IsUnchanged(seen_, now)) {
            seen_ = now;
            seenSince_ = Clock::now();
        }
        if (!isDue_ && IsUnchanged(published_, now)) {
            return;
        }
        try {
            PublishIfWhole(now);
        } catch (const Failure& failure) {
            WarnOnce(std::string(failure.what()) + "; trying again", failure.Next());
            HoldLines(true);  // each attempt would report the same lines again
            pause_ = kInterval;
        }
    }

    void PublishIfWhole(const struct stat& now)
    {
        const PageText text(options_);
        const ReadLease lease(text.File());
        if (text.IsTable() && lease.IsRefusedToWriter()) {
            if (IsSettled()) {
                WarnOnce(Quoted(options_.table) + " is open for writing; the page waits until it is closed",
                         "close it after each change, or replace it by a rename");
            }
            return;
        }
        if (!text.IsTable() || lease.IsHeld() || IsSettled()) {
            const std::size_t tables = text.Tables();
            Publish(text, options_);
            isDue_ = false;
            published_ = now;
            warned_.clear();
            HoldLines(false);
            AnnounceIfPossible(tables);
        }
    }

    // Whether the table has not changed for some time.
    bool IsSettled() const
    {
        return Clock::now() - seenSince_ >= kInterval;
    }

    void AnnounceIfPossible(std::size_t tables)
    {
        try {
            Announce(tables, options_);
        } catch (const Failure& failure) {
            std::cout.clear();
            Warn(failure.what(), failure.Next());
        }
    }

    void WarnOnce(const std::string& problem, const std::string& next)
    {
        if (problem != warned_) {
            Warn(problem, next);
            warned_ = problem;
        }
    }

    const PageOptions& options_;
    const Descriptor stop_;
    bool isDue_ = true;  // the page must be published
    std::chrono::milliseconds pause_ = kShortest;
    struct stat published_ = kMissing;
    struct stat seen_ = kMissing;
    Clock::time_point seenSince_;
    std::string warned_;  // since the last success
};

}  // namespace

void FollowTable(const PageOptions& options)
{
    Follower(options).Run();
}
