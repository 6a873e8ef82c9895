#include "internal.h"

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace orv_safe {
namespace internal {

namespace {

const std::size_t kErrorTextBytes = 64;  // for the text of a number that has none of its own

}  // namespace

Descriptor::~Descriptor()
{
    if (number_ != -1) {
        const int error = errno;
        (void)close(number_);
        errno = error;
    }
}

void Report(const char* function, const char* call, const std::string& path, int error)
{
    char buffer[kErrorTextBytes];
    ORV_SAFE_LOG("%s: %s(%s) failed (%d, %s).", function, call, path.c_str(), error,
                 strerror_r(error, buffer, sizeof buffer));
}

void Report(const char* function, const char* call, const std::string& path, int error, const char* consequence)
{
    char buffer[kErrorTextBytes];
    ORV_SAFE_LOG("%s: %s(%s) failed (%d, %s): %s.", function, call, path.c_str(), error,
                 strerror_r(error, buffer, sizeof buffer), consequence);
}

}  // namespace internal
}  // namespace orv_safe
