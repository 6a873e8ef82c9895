// Shared by the sources of this folder.
#ifndef ORV_SAFE_INTERNAL_H
#define ORV_SAFE_INTERNAL_H

#include "dlog.h"

#include <cerrno>
#include <string>
#include <utility>

namespace orv_safe {
namespace internal {

const int kSeverityError = 3;  // the only severity of this library
const char kSourceTag[] = "orv_safe";

// Logs a line. The arguments are those of printf.
#define ORV_SAFE_LOG(...) __dlog_printf(orv_safe::internal::kSeverityError, orv_safe::internal::kSourceTag, __VA_ARGS__)

// An open file, closed by the destructor, which leaves errno alone. -1: none.
class Descriptor {
public:
    explicit Descriptor(int number) : number_(number)
    {
    }
    ~Descriptor();
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    operator int() const  // NOLINT(google-explicit-constructor): used like the number
    {
        return number_;
    }

    void Swap(Descriptor& other)
    {
        std::swap(number_, other.number_);
    }

private:
    int number_;
};

// Repeats a system call while a signal interrupts it. Returns its result; -1 is a failure.
template <typename Call>
auto Uninterrupted(Call call) -> decltype(call())
{
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR) {
            return result;
        }
    }
}

// Logs "FUNCTION: CALL(PATH) failed (ERROR, its text).".
void Report(const char* function, const char* call, const std::string& path, int error);

// The same, but the line ends in ": CONSEQUENCE." That says what the caller has now.
void Report(const char* function, const char* call, const std::string& path, int error, const char* consequence);

}  // namespace internal
}  // namespace orv_safe

#endif  // ORV_SAFE_INTERNAL_H
