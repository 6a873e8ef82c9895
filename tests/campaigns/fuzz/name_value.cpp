// ReadNameValueFromFile. The input is the delimiter, one byte, the comment prefix up to the first line feed, and the
// file.
#include "LxFileUtils.h"
#include "fuzz.h"

#include <map>

namespace {

using NameValues = std::map<std::string, std::string>;

void ReadByModel(std::string bytes, char delimiter, const std::string& commentPrefix, NameValues& nameValues)
{
    while (!bytes.empty()) {
        std::string value = TrimmedByModel(TakeUpTo('\n', bytes));
        const bool comment = !commentPrefix.empty() && value.find(commentPrefix) == 0;
        if (!value.empty() && !comment) {
            const std::string name = TrimmedByModel(TakeUpTo(delimiter, value));
            nameValues[name] = TrimmedByModel(value);
        }
    }
}

}  // namespace

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
    NameValues nameValues = {{"", "old"}, {"a", "old"}, {"other entry", "old"}};
    NameValues expected = nameValues;
    ReadByModel(bytes, delimiter, commentPrefix, expected);

    const bool read = orv_fileutils::ReadNameValueFromFile(file.Path(), nameValues, delimiter, commentPrefix);

    Require(read, "every file of bytes can be read");
    Require(nameValues == expected, "the entries are those of the model");
    Require(Reports() == 0, "nothing is reported");
    return 0;
}
