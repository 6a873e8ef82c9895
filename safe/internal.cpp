#include "internal.h"

#include "dlog.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace orv_safe {
namespace internal {

namespace {

const int kError = 3;
const char kSource[] = "orv_safe";

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
    char buffer[64];
    __dlog_printf(kError, kSource, "%s: %s(%s) failed (%d, %s).", function, call, path.c_str(), error,
                  strerror_r(error, buffer, sizeof buffer));
}

}  // namespace internal
}  // namespace orv_safe
