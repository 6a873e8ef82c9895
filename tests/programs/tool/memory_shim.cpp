// Is preloaded into a tested program, too:
//   ORV_SHIM_MEMORY=BYTES  the first allocation of at least so many bytes fails

#include <cstdlib>
#include <new>

namespace {

bool Fails(std::size_t size)
{
    static bool isOver = false;
    const char* const least = std::getenv("ORV_SHIM_MEMORY");
    if (isOver || least == nullptr || size < std::strtoul(least, nullptr, 10)) {
        return false;
    }
    isOver = true;
    return true;
}

}  // namespace

__attribute__((visibility("default"))) void* operator new(std::size_t size)
{
    void* const memory = Fails(size) ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
