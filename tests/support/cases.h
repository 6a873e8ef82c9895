// Helpers for tests with many cases.
#ifndef ORV_TESTS_CASES_H
#define ORV_TESTS_CASES_H

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>

#include "gtest/gtest.h"

// Names the tests of a table after the member `name` of its cases.
template <typename Case>
std::string CaseName(const ::testing::TestParamInfo<Case>& info)
{
    return info.param.name;
}

// Returns all byte values in order.
inline std::string AllBytes()
{
    std::string bytes;
    for (int value = 0; value < 256; ++value) {
        bytes += static_cast<char>(value);
    }
    return bytes;
}

// Returns bytes in which adjacent blocks differ.
inline std::string BytesOfLength(std::size_t length)
{
    std::string bytes;
    for (std::size_t i = 0; i < length; ++i) {
        bytes += static_cast<char>((i * 7 + i / 256) % 256);
    }
    return bytes;
}

// Random data that is the same on every machine; the standard distributions do not promise that.
class Random {
public:
    explicit Random(std::uint32_t seed) : engine_(seed)
    {
    }

    std::size_t Below(std::size_t bound)
    {
        return engine_() % bound;
    }

    char ByteOf(const std::string& alphabet)
    {
        return alphabet[Below(alphabet.size())];
    }

    // Up to `maxBytes` bytes, each one of `alphabet`.
    std::string Text(const std::string& alphabet, std::size_t maxBytes)
    {
        std::string text(Below(maxBytes + 1), '\0');
        for (char& byte : text) {
            byte = ByteOf(alphabet);
        }
        return text;
    }

private:
    std::mt19937 engine_;
};

#endif  // ORV_TESTS_CASES_H
