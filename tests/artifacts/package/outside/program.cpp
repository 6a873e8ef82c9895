// A program outside this project. It uses only installed files.
#include <LxFileUtils.h>
#include <LxStringUtils.h>

#include <iostream>

int main(int argc, char** argv)
{
    std::string name(" " + std::string(argv[0]) + " ");
    LxStringUtils::Trim(name);
    std::vector<std::string> cells(2, "cell");
    std::cout << orv_fileutils::FileExists(name.c_str()) << " " << orv_fileutils::AddTextFileFormattedRow(cells)
              << std::endl;
    return orv_fileutils::MakeDirPath("/orv-outside", 0755, false) || argc != 1;  // logs a line and makes nothing
}
