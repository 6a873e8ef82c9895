// Trim. The input is the text.
#include "LxStringUtils.h"
#include "fuzz.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(data, data + size);
    std::string trimmed = text;

    LxStringUtils::Trim(trimmed);

    Require(trimmed == oracle::Trimmed(text), "the trimmed text is that of the oracle");
    return 0;
}
