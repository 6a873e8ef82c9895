#include "watch.h"

#include <fcntl.h>
#include <limits.h>
#include <linux/magic.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/inotify.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>

namespace {

// A file can get a name by open, link, symlink and rename, and lose it by unlink and rename.
const std::uint32_t kChangesOfNames =
    IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

// Whether the file is on another machine. There a lease can be refused although nobody has the file open for writing.
bool IsRemote(int file)
{
    const std::uint32_t kCifs = 0xFF534D42;
    const std::uint32_t kSmb2 = 0xFE534D42;
    struct statfs status;
    if (fstatfs(file, &status) != 0) {
        return true;
    }
    const std::uint32_t type = static_cast<std::uint32_t>(status.f_type);  // signed on some machines
    return type == NFS_SUPER_MAGIC || type == kCifs || type == kSmb2;
}

}  // namespace

FileWatch::FileWatch(const std::string& path) : events_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
{
    WatchName(path);
    if (char* const target = realpath(path.c_str(), nullptr)) {  // differs if the path is a link
        WatchName(target);
        std::free(target);
    }
    (void)inotify_add_watch(events_, path.c_str(), IN_CLOSE_WRITE);  // also by another name of the file
}

void FileWatch::WatchName(const std::filesystem::path& path)
{
    names_.insert(path.filename());
    const std::filesystem::path directory = path.parent_path();
    (void)inotify_add_watch(events_, directory.empty() ? "." : directory.c_str(), kChangesOfNames);
}

FileWatch::Result FileWatch::Wait(int stop, std::chrono::milliseconds most) const
{
    typedef std::chrono::steady_clock Clock;
    using std::chrono::milliseconds;
    const Clock::time_point end = Clock::now() + most;
    for (;;) {
        const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
        struct pollfd ready[] = {{stop, POLLIN, 0}, {events_, POLLIN, 0}};
        const int count = poll(ready, 2, static_cast<int>(std::max(left, milliseconds::zero()).count()));
        if (count == -1 && errno != EINTR) {
            throw Failure("cannot wait for changes: " + ErrorText(errno), "start this again");
        }
        if (ready[0].revents != 0) {
            return kStopped;
        }
        if (ready[1].revents != 0 && HasChanged()) {
            return kChanged;
        }
        if (count == 0) {
            return kTimeOver;
        }
    }
}

// Reads all events that are there; returns whether one of them matters. Events without a name are about the file itself
// or its directory, or say that events were lost.
bool FileWatch::HasChanged() const
{
    bool changed = false;
    alignas(struct inotify_event) char block[16384];
    for (ssize_t bytes; (bytes = read(events_, block, sizeof block)) > 0;) {
        const struct inotify_event* event;
        for (const char* at = block; at < block + bytes; at += sizeof *event + event->len) {
            event = reinterpret_cast<const struct inotify_event*>(at);
            changed = changed || event->len == 0 || names_.count(event->name) != 0;
        }
    }
    return changed;
}

ReadLease::ReadLease(int file)
{
    if (fcntl(file, F_SETLEASE, F_RDLCK) == 0) {
        state_ = kHeld;
    } else if (errno == EAGAIN && !IsRemote(file)) {
        state_ = kOpenForWriting;
    }
}
