// ReadNameValueFromFile. The input is the delimiter, one byte, the comment prefix up to the first line feed, and the
// file.
#include "LxFileUtils.h"
#include "fuzz.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const MemoryFile file;
    if (size == 0) {
        return 0;
    }
    const char delimiter = static_cast<char>(data[0]);
    std::string bytes(data + 1, data + size);
    const std::string commentPrefix = TakeUpTo('\n', bytes);
    file.Write(bytes);
    oracle::NameValues nameValues = {{"", "old"}, {"a", "old"}, {"other entry", "old"}};
    const oracle::NameValues expected = oracle::Read(bytes, delimiter, commentPrefix, nameValues);

    const bool read = orv_fileutils::ReadNameValueFromFile(file.Path(), nameValues, delimiter, commentPrefix);

    Require(read, "every file of bytes can be read");
    Require(nameValues == expected, "the entries are those of the oracle");
    Require(Reports() == 0, "nothing is reported");
    return 0;
}
