// Waits for changes of a file, and finds out whether it is whole.
#ifndef ORV_TOOLS_WATCH_H
#define ORV_TOOLS_WATCH_H

#include <chrono>
#include <filesystem>
#include <set>
#include <string>

#include "support.h"

// Watches a path, from the construction on, for one change.
class FileWatch {
public:
    // The path need not exist. What the kernel does not report, or not now, is not noticed: changes of other machines,
    // directories that were replaced by a link, or everything if there are too many watches.
    explicit FileWatch(const std::string& path);

    enum Result { kChanged, kTimeOver, kStopped };

    // Waits until the path may lead to another file, or until the file was written and closed; but no longer than this
    // time, and not after `stop` has become readable.
    Result Wait(int stop, std::chrono::milliseconds most) const;

private:
    void WatchName(const std::filesystem::path& path);
    bool HasChanged() const;

    const Descriptor events_;
    std::set<std::string> names_;
};

// Keeps others from writing to the file: who opens it for writing has to wait until it is closed here.
class ReadLease {
public:
    explicit ReadLease(int file);

    bool IsHeld() const
    {
        return state_ == kHeld;
    }

    // If neither is true, the kernel does not tell whether the file is open for writing: it belongs to another user, or
    // is on another machine.
    bool IsRefusedToWriter() const
    {
        return state_ == kOpenForWriting;
    }

private:
    enum State { kHeld, kOpenForWriting, kUnknown };
    State state_ = kUnknown;
};

#endif  // ORV_TOOLS_WATCH_H
