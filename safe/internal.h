// Shared by the sources of this folder.
#ifndef ORV_SAFE_INTERNAL_H
#define ORV_SAFE_INTERNAL_H

#include <cerrno>
#include <string>
#include <utility>

namespace orv_safe {
namespace internal {

// An open file, closed by the destructor, which leaves errno alone. -1: none.
class Descriptor {
public:
    explicit Descriptor(int number) : number_(number)
    {
    }
    ~Descriptor();
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    operator int() const
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

}  // namespace internal
}  // namespace orv_safe

#endif  // ORV_SAFE_INTERNAL_H
