// mkdir.

#include "commands.h"

#include <orv/safe.h>

#include <cerrno>

namespace {

bool HasMode(const std::string& path, mode_t mode)
{
    const std::optional<struct stat> status = StatusOf(path);
    return status && (status->st_mode & 07777) == mode;
}

// The kernel clears the set-group-id bit without an error if the user is not in the group of the directory.
void SetMode(const std::string& path, mode_t mode)
{
    errno = EPERM;  // the reason if chmod does not fail
    if (chmod(path.c_str(), mode) != 0 || !HasMode(path, mode)) {
        const int error = errno;
        throw Failure(Quoted(path) + " is a directory, but its mode cannot be set: " + ErrorText(error),
                      "set it with chmod(1), as the owner of the directory or as root");
    }
}

void MakeDirectory(const std::string& path, const MkdirOptions& options)
{
    if (!orv_safe::MakeDirectory(path, options.mode)) {
        FailByReports("cannot make " + Quoted(path));
    }
    if (options.exactMode) {
        SetMode(path, options.mode);
    }
}

}  // namespace

ExitStatus MakeDirectories(const MkdirOptions& options)
{
    ExitStatus result = kDone;
    for (const std::string& path : options.paths) {
        try {
            MakeDirectory(path, options);
        } catch (const Failure& failure) {
            PrintProblem(failure.what(), failure.Next());
            result = kFailed;
        }
    }
    return result;
}
