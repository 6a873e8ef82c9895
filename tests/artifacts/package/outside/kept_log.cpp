// A program that reads the reports of the library.
#include <LxFileUtils.h>
#include <orv/dlog_memory.h>

#include <iostream>

int main()
{
    (void)orv_fileutils::MakeDirPath("/orv-outside", 0755, false);
    for (const std::string& line : dlog_memory::Lines()) {
        std::cout << line << std::endl;
    }
}
