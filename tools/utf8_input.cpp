#include "utf8_input.h"

#include "streams.h"

#include <cerrno>
#include <cstdio>

namespace {

const std::size_t kBlockBytes = 16384;
const char kDefaultEncoding[] = "UTF-8";

bool BeginsWith(const std::string& bytes, const std::string& mark)
{
    return bytes.compare(0, mark.size(), mark) == 0;
}

// The encoding whose byte-order mark this is; empty for all other marks.
std::string EncodingByMark(const std::string& bytes)
{
    using namespace std::string_literals;
    if (BeginsWith(bytes, "\xFF\xFE\0\0"s)) {
        return "UTF-32";
    }
    return BeginsWith(bytes, "\xFF\xFE") || BeginsWith(bytes, "\xFE\xFF") ? "UTF-16" : "";
}

std::string InHexadecimal(char byte)
{
    char text[sizeof "0xFF"];
    (void)std::snprintf(text, sizeof text, "0x%02X", static_cast<unsigned char>(byte));
    return text;
}

}  // namespace

Utf8Input::Utf8Input(const std::string& encoding)
    : encoding_(encoding.empty() ? kDefaultEncoding : encoding),
      converter_(iconv_open(kDefaultEncoding, encoding_.c_str()))
{
    if (converter_ == reinterpret_cast<iconv_t>(-1)) {  // NOLINT(performance-no-int-to-ptr): as iconv_open(3) says
        throw Failure("this system cannot convert from the encoding " + Quoted(encoding_) + ": " + ErrorText(errno),
                      "check its name; iconv -l prints the names that are known, on a device often only a few");
    }
}

Utf8Input::~Utf8Input()
{
    (void)iconv_close(converter_);
}

bool Utf8Input::Read(std::string& text)
{
    text.clear();
    while (text.empty() && !isAtEnd_ && !mistake_) {
        ReadBlock();
        Convert(text);
        CheckForNul(text);
    }
    return !text.empty();
}

void Utf8Input::ReadBlock()
{
    const std::size_t had = bytes_.size();
    bytes_.resize(had + kBlockBytes);
    const std::size_t got = ReadInput(&bytes_[had], kBlockBytes);
    bytes_.resize(had + got);
    isAtEnd_ = got < kBlockBytes;
}

// Keeps the beginning of a character whose end is in the next block.
void Utf8Input::Convert(std::string& text)
{
    char* from = bytes_.data();
    std::size_t left = bytes_.size();
    for (bool isMore = true; isMore;) {
        char block[kBlockBytes];
        char* to = block;
        std::size_t room = sizeof block;
        // Some converters hold a character back that the next one could change. The second call asks for it.
        const bool converted = iconv(converter_, &from, &left, &to, &room) != static_cast<std::size_t>(-1) &&
                               (!isAtEnd_ || iconv(converter_, nullptr, nullptr, &to, &room) == 0);
        isMore = !converted && errno == E2BIG;
        text.append(block, to);
        if (!converted && (errno == EILSEQ || (errno == EINVAL && isAtEnd_))) {
            taken_ += bytes_.size() - left;
            bytes_.erase(0, bytes_.size() - left);
            FindMistake();
            return;
        }
    }
    taken_ += bytes_.size() - left;
    bytes_.erase(0, bytes_.size() - left);
}

// Text does not contain NUL. UTF-16 without a byte-order mark does, and would pass as UTF-8.
void Utf8Input::CheckForNul(std::string& text)
{
    const std::size_t nul = text.find('\0');
    if (nul != std::string::npos) {
        text.erase(nul);
        mistake_.emplace("a NUL, which UTF-16 contains and text does not",
                         "if the input is UTF-16, add --encoding UTF-16LE or --encoding UTF-16BE; otherwise remove it");
    }
}

void Utf8Input::FindMistake()
{
    const std::string marked = taken_ == 0 ? EncodingByMark(bytes_) : "";
    if (!marked.empty()) {
        mistake_.emplace("the input is " + marked + ", not " + encoding_, "add --encoding " + marked);
        return;
    }
    const std::string where = "byte " + std::to_string(taken_ + 1) + " of the input (" + InHexadecimal(bytes_[0]) + ")";
    if (encoding_ == kDefaultEncoding) {
        mistake_.emplace(where + " is not UTF-8; it may be Latin-1",
                         "name the encoding of the input, such as --encoding ISO-8859-1 for Latin-1");
    } else {
        mistake_.emplace(where + " is not " + Quoted(encoding_),
                         "name the encoding of the input; iconv -l prints names");
    }
}
