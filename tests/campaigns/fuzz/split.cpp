// Split. The input is the delimiter, one byte, and the text.
#include "LxStringUtils.h"
#include "fuzz.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0) {
        return 0;
    }
    const std::string text(data + 1, data + size);
    const char delimiter = static_cast<char>(data[0]);
    std::vector<std::string> pieces = {"before"};

    LxStringUtils::Split(text, delimiter, pieces);

    std::vector<std::string> expected = oracle::Pieces(text, delimiter);
    expected.insert(expected.begin(), "before");
    Require(pieces == expected, "the pieces are those of the oracle, after what the vector held");
    return 0;
}
