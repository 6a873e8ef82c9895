// What the fuzz targets share. A target takes any bytes, compares what the library makes of them with the oracle, and
// ends the process when the two differ. Run by libFuzzer (script/fuzz), and on the kept inputs
// by replay.cpp in every build.
#ifndef ORV_TESTS_FUZZ_H
#define ORV_TESTS_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/oracle.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// Ends the process, with a message, unless `holds`.
void Require(bool holds, const char* claim);

// How often the library has called __dlog_printf.
int Reports();

// Takes the bytes up to the first `end` off the front of `bytes`, and the `end` too; all of them where there is none.
std::string TakeUpTo(char end, std::string& bytes);

// A file in memory with a path.
class MemoryFile {
public:
    MemoryFile();
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    void Write(const std::string& bytes) const;  // in place of what it held
    const std::string& Path() const
    {
        return path_;
    }

private:
    int descriptor_;
    std::string path_;
};

#endif  // ORV_TESTS_FUZZ_H
