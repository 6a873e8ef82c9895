// GenHtmlPagefromTextFile. The input is the text table file.
#include "LxFileUtils.h"
#include "fuzz.h"

#include <unistd.h>

#include <fstream>
#include <sstream>

namespace {

std::string Take(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    Require(unlink(path.c_str()) == 0, "there is a page");
    return bytes.str();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const MemoryFile textFile;
    // On the file system of the temporary page, so that the page is renamed.
    static const std::string pagePath = "/var/tmp/orv_fuzz_page_" + std::to_string(getpid());
    static const std::string temporary = oracle::OwnTemporaryPage();
    const std::string bytes(data, data + size);
    textFile.Write(bytes);

    orv_fileutils::GenHtmlPagefromTextFile(textFile.Path().c_str(), pagePath.c_str());

    Require(Take(pagePath) == oracle::Page(bytes), "the page is that of the oracle");
    Require(access(temporary.c_str(), F_OK) != 0, "the temporary page is gone");
    Require(Reports() == 0, "nothing is reported");
    return 0;
}
