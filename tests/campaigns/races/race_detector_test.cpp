// Checks that ThreadSanitizer reports a race in the program and in each of the two libraries: see race_program.cpp.
#include "support/orv_test.h"

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

namespace {

struct Ending {
    int status;
    std::string output;
};

Ending RunRaceProgram(const std::string& argument)
{
    Ending ending{-1, ""};
    FILE* const pipe = popen((ORV_RACE_PROGRAM " '" + argument + "' 2>&1").c_str(), "r");  // NOLINT(cert-env33-c)
    if (pipe == nullptr) {
        return ending;
    }
    std::array<char, 4096> piece{};
    while (const std::size_t got = std::fread(piece.data(), 1, piece.size(), pipe)) {
        ending.output.append(piece.data(), got);
    }
    ending.status = pclose(pipe);
    return ending;
}

void ExpectReport(const std::string& argument, const std::string& place)
{
    constexpr int kExitAfterReport = 66;  // the sanitizer's own
    const Ending ending = RunRaceProgram(argument);

    EXPECT_TRUE(WIFEXITED(ending.status));
    EXPECT_EQ(kExitAfterReport, WEXITSTATUS(ending.status));
    EXPECT_THAT(ending.output, ::testing::HasSubstr("WARNING: ThreadSanitizer: data race"));
    EXPECT_THAT(ending.output, ::testing::HasSubstr(place));
}

TEST(RaceDetectorTest, ReportsARaceInTheProgram)
{
    ExpectReport("program", "RaceInTheProgram");
}

TEST(RaceDetectorTest, ReportsARaceInTheFileUtilities)
{
    ExpectReport("file utilities", "orv_fileutils::GetDirFileList");
}

TEST(RaceDetectorTest, ReportsARaceInTheStringOperations)
{
    ExpectReport("string operations", "LxStringUtils::Trim");
}

TEST(RaceDetectorTest, ReportsNothingWithoutARace)
{
    const Ending ending = RunRaceProgram("nowhere");

    EXPECT_EQ(0, ending.status);
    EXPECT_EQ("", ending.output);
}

}  // namespace
