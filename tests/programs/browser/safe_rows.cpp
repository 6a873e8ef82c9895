// Writes rows of the safe companion for the browser test: each line of standard input is a row, its cells in
// hexadecimal and separated by blanks, "-" for an empty one. Each row becomes a table.
#include "safe/safe.h"

#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "dlog.h"

void __dlog_printf(int, const char*, const char* format, ...)
{
    std::fprintf(stderr, "not expected: %s\n", format);
}

namespace {

std::string FromHexadecimal(const std::string& digits)
{
    std::string bytes;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

}  // namespace

int main()
{
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::vector<std::string> cells;
        for (std::string word; words >> word;) {
            cells.push_back(FromHexadecimal(word == "-" ? "" : word));
        }
        std::cout << orv_safe::SafeRow(cells) << '\n';
    }
}
