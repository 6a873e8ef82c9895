// Standard input as text.
#ifndef ORV_TOOLS_UTF8_INPUT_H
#define ORV_TOOLS_UTF8_INPUT_H

#include "support.h"

#include <iconv.h>

#include <cstddef>
#include <optional>
#include <string>

// Reads standard input and converts it to UTF-8, block by block.
class Utf8Input {
public:
    // `encoding` is a name that iconv_open(3) knows; "" is UTF-8. Throws Failure if the C library does not know it.
    explicit Utf8Input(const std::string& encoding);
    ~Utf8Input();
    Utf8Input(const Utf8Input&) = delete;
    Utf8Input& operator=(const Utf8Input&) = delete;

    // Replaces `text` by the next characters. Returns false after the last ones, and after the last ones before a
    // mistake. Throws Failure if standard input cannot be read.
    bool Read(std::string& text);

    // Why the input is not text in its encoding: what is wrong where, and what to do.
    const std::optional<Failure>& Mistake() const
    {
        return mistake_;
    }

private:
    void ReadBlock();
    void Convert(std::string& text);
    void CheckForNul(std::string& text);
    void FindMistake();

    const std::string encoding_;
    iconv_t converter_;
    std::string bytes_;      // that were read and are not converted yet
    std::size_t taken_ = 0;  // number of bytes of the input before them
    bool isAtEnd_ = false;
    std::optional<Failure> mistake_;
};

#endif  // ORV_TOOLS_UTF8_INPUT_H
