// Common code of the fuzz targets. A target accepts any bytes, compares the result of the library with the oracle, and
// ends the process if they differ. libFuzzer runs it (script/fuzz), and in every build replay.cpp runs it on kept
// inputs.
#ifndef ORV_TESTS_FUZZ_H
#define ORV_TESTS_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/oracle.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// Ends the process with a message unless `holds` is true.
void Require(bool holds, const char* claim);

// Returns how often the library has called __dlog_printf.
int Reports();

// Removes and returns the bytes before the first `end`, and removes that `end`. Without an `end`, takes all bytes.
std::string TakeUpTo(char end, std::string& bytes);

// A file in memory that has a path.
class MemoryFile {
public:
    MemoryFile();
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    void Write(const std::string& bytes) const;  // replaces its content
    const std::string& Path() const
    {
        return path_;
    }

private:
    int descriptor_;
    std::string path_;
};

#endif  // ORV_TESTS_FUZZ_H
