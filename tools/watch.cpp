#include "watch.h"

#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

std::string DirectoryOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

int BlockedSignals()
{
    sigset_t stop;
    (void)sigemptyset(&stop);
    (void)sigaddset(&stop, SIGINT);
    (void)sigaddset(&stop, SIGTERM);
    (void)sigprocmask(SIG_BLOCK, &stop, nullptr);
    return signalfd(-1, &stop, SFD_CLOEXEC);
}

}  // namespace

FileWatch::FileWatch(const std::string& path)
    : directory_(DirectoryOf(path)),
      name_(path.substr(path.rfind('/') + 1)),
      signals_(BlockedSignals()),
      events_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
{
    const std::uint32_t wanted = IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
    if (signals_ == -1 || events_ == -1 || inotify_add_watch(events_, directory_.c_str(), wanted) == -1) {
        const int error = errno;
        throw Failure("cannot watch " + Quoted(directory_) + ": " + ErrorText(error),
                      error == ENOSPC || error == EMFILE
                          ? "raise the limits below /proc/sys/fs/inotify, or watch fewer files"
                          : Remedy(error, directory_));
    }
}

bool FileWatch::Wait()
{
    for (;;) {
        struct pollfd ready[] = {{signals_, POLLIN, 0}, {events_, POLLIN, 0}};
        if (poll(ready, 2, -1) == -1 && errno != EINTR) {
            throw Failure("cannot wait for changes: " + ErrorText(errno), "start this again");
        }
        if (ready[0].revents != 0) {
            return false;
        }
        if (ready[1].revents != 0 && ReadEvents()) {
            return true;
        }
    }
}

// Reads all events that are there; returns true if one of them is about the file.
bool FileWatch::ReadEvents()
{
    bool changed = false;
    alignas(struct inotify_event) char block[16384];
    for (ssize_t bytes; (bytes = read(events_, block, sizeof block)) > 0;) {
        const struct inotify_event* event;
        for (const char* at = block; at < block + bytes; at += sizeof *event + event->len) {
            event = reinterpret_cast<const struct inotify_event*>(at);
            if ((event->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) != 0) {
                throw Failure("the directory " + Quoted(directory_) + " was removed or renamed",
                              "make it again, then start this again");
            }
            changed |= (event->mask & IN_Q_OVERFLOW) != 0 || (event->len != 0 && name_ == event->name);
        }
    }
    return changed;
}
