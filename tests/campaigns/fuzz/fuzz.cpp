#include "fuzz.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "dlog.h"

namespace {

int reports = 0;

}  // namespace

void __dlog_printf(int, const char*, const char*, ...)
{
    ++reports;
}

int Reports()
{
    return reports;
}

void Require(bool holds, const char* claim)
{
    if (!holds) {
        std::fprintf(stderr, "not so: %s\n", claim);
        std::abort();
    }
}

std::string TakeUpTo(char end, std::string& bytes)
{
    const std::size_t at = bytes.find(end);
    const std::string taken = bytes.substr(0, at);
    bytes.erase(0, at == std::string::npos ? at : at + 1);
    return taken;
}

MemoryFile::MemoryFile() : descriptor_(memfd_create("fuzz", MFD_CLOEXEC))
{
    Require(descriptor_ != -1, "a file in memory can be created");
    path_ = "/proc/self/fd/" + std::to_string(descriptor_);
}

MemoryFile::~MemoryFile()
{
    (void)close(descriptor_);
}

void MemoryFile::Write(const std::string& bytes) const
{
    Require(ftruncate(descriptor_, 0) == 0, "a file in memory can be emptied");
    const ssize_t written = pwrite(descriptor_, bytes.data(), bytes.size(), 0);
    Require(written == static_cast<ssize_t>(bytes.size()), "a file in memory takes all bytes");
}
