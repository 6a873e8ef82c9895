// Waits for a file to be written or replaced.
#ifndef ORV_TOOLS_WATCH_H
#define ORV_TOOLS_WATCH_H

#include <string>

#include "support.h"

// Watches the directory of the file, so that it notices a file that replaces it too. From its construction on, SIGINT
// and SIGTERM only end the next wait.
class FileWatch {
public:
    explicit FileWatch(const std::string& path);

    // Returns true if the file was written and closed, or replaced; false after a signal. Throws Failure if the
    // directory is gone.
    bool Wait();

private:
    bool ReadEvents();

    const std::string directory_;
    const std::string name_;
    const Descriptor signals_;
    const Descriptor events_;
};

#endif  // ORV_TOOLS_WATCH_H
