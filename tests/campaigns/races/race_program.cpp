// Makes a harmless race on purpose, in the program or in one of the two libraries; the argument chooses. A test checks
// that ThreadSanitizer reports it. Otherwise it would mean nothing that the other tests have no report.
#include "LxFileUtils.h"
#include "LxStringUtils.h"

#include <list>
#include <string>
#include <thread>

namespace {

template <typename Body>
void RunOnTwoThreads(const Body& body)
{
    std::thread other(body);
    body();
    other.join();
}

void RaceInTheProgram()
{
    int counter = 0;
    RunOnTwoThreads([&counter] { ++counter; });
}

// Both threads clear the same empty list.
void RaceInTheFileUtilities()
{
    std::list<std::string> names;
    RunOnTwoThreads([&names] {
        (void)orv_fileutils::GetDirFileList("/missing", nullptr, nullptr, names, /*withDirPath=*/false,
                                            /*clearList=*/true, /*logOpenError=*/false);
    });
}

// One thread looks for blanks at the ends of a text while the other changes a letter there.
void RaceInTheStringOperations()
{
    std::string text = "x";
    char& letter = text[0];
    std::thread other([&text] { LxStringUtils::Trim(text); });
    letter = 'y';
    other.join();
}

// Each thread uses its own text.
void NoRace()
{
    RunOnTwoThreads([] {
        std::string text = " x ";
        LxStringUtils::Trim(text);
    });
}

}  // namespace

int main(int, char** arguments)
{
    const std::string where = arguments[1];
    if (where == "program") {
        RaceInTheProgram();
    } else if (where == "file utilities") {
        RaceInTheFileUtilities();
    } else if (where == "string operations") {
        RaceInTheStringOperations();
    } else if (where == "nowhere") {
        NoRace();
    } else {
        return 2;
    }
    return 0;
}
