// Waiting for a file to be written or replaced.
#ifndef ORV_TOOLS_WATCH_H
#define ORV_TOOLS_WATCH_H

#include <string>

#include "support.h"

// Watches the file from its construction on, through its directory, so that a file that takes its place is seen too.
// SIGINT and SIGTERM then end the next wait and nothing else.
class FileWatch {
public:
    explicit FileWatch(const std::string& path);

    // Returns true when the file was written and closed, or replaced; false at a signal. Throws Failure when the
    // directory is gone.
    bool Wait();

private:
    bool TakeEvents();

    const std::string directory_;
    const std::string name_;
    const Descriptor signals_;
    const Descriptor events_;
};

#endif  // ORV_TOOLS_WATCH_H
