// Runs a fuzz target without a fuzzer, on every file of the directory that is the argument of the program.
#include "fuzz.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

int main(int argc, char** argv)
{
    Require(argc == 2, "the one argument is a directory");
    std::vector<std::filesystem::path> paths;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        paths.push_back(entry.path());
    }
    std::sort(paths.begin(), paths.end());
    for (const std::filesystem::path& path : paths) {
        std::printf("%s\n", path.filename().c_str());
        std::fflush(stdout);  // so that the last line names the input that failed
        std::ifstream file(path, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        Require(!file.bad() && file.is_open(), "the file can be read");
        (void)LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    Require(!paths.empty(), "there are inputs");
    std::printf("%zu inputs\n", paths.size());
    return 0;
}
