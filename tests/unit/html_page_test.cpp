#include "LxFileUtils.h"
#include "support/cases.h"
#include "support/faults.h"
#include "support/messages.h"
#include "support/oracle.h"
#include "support/orv_test.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

using oracle::OwnTemporaryPage;
using oracle::Page;
using orv_fileutils::AddTextFileFormattedRow;
using orv_fileutils::GenHtmlPagefromTextFile;
using orv_fileutils::TextFileTableDelimter;
using ::testing::PrintToString;
using namespace std::string_literals;

namespace {

void Generate(const std::string& text, const std::string& page)
{
    GenHtmlPagefromTextFile(text.c_str(), page.c_str());
}

// Returns the line of a move that failed and the line of the page.
void ExpectFailedMove(const Report& line, const std::string& page)
{
    ExpectReports({line, messages::kPageMove(OwnTemporaryPage(), page)});
}

using Names = std::vector<std::string>;

class HtmlPageTest : public TwoFileSystemsTest {
protected:
    // For tests whose page stays in the temporary file: removes it.
    static std::string TakeTemporaryPage()
    {
        const std::string page = ReadFile(OwnTemporaryPage());
        EXPECT_EQ(0, unlink(OwnTemporaryPage().c_str()));
        return page;
    }
};

// ---- Content of the page

class GoldenPageTest : public HtmlPageTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(GoldenPageTest, IsTheExpectedOne)
{
    const std::string golden = std::string(ORV_TEST_DATA "/pages/") + GetParam();
    const std::string page = dir_ / "page";

    Generate(golden + ".txt", page);

    EXPECT_EQ(ReadFile(golden + ".html"), ReadFile(page));
    EXPECT_EQ(Names{"page"}, dir_.Names());
}

INSTANTIATE_TEST_SUITE_P(Pages, GoldenPageTest,
                         ::testing::Values("blanks", "colon_alone", "cr_lf", "empty", "empty_cells", "final_line_feed",
                                           "marks_inside_cells", "markup", "no_final_line_feed", "nul", "one_cell_row",
                                           "one_cell_row_before_another", "row_terminator_twice",
                                           "row_terminators_alone", "row_without_colon", "row_without_colon_but_commas",
                                           "spacer", "spacer_between_tables", "spacers_around_a_table",
                                           "tables_without_spacer", "terminator_in_a_cell", "two_rows", "two_spacers",
                                           "utf8"),
                         [](const auto& golden) { return std::string(golden.param); });

TEST_F(HtmlPageTest, ContainsEveryByteValueExceptTheSeparators)
{
    std::string bytes;
    for (const char byte : AllBytes()) {
        if ("\n:,;"s.find(byte) == std::string::npos) {
            bytes += byte;
        }
    }
    const std::string text = dir_.Write("text", bytes + ":" + bytes + ";\n");

    Generate(text, dir_ / "page");

    EXPECT_EQ(252U, bytes.size());
    EXPECT_EQ(Page(bytes + ":" + bytes + ";\n"), dir_.Read("page"));
}

TEST_F(HtmlPageTest, ReadsALineOfMegabytes)
{
    const std::string cell(3 << 20, 'x');
    const std::string text = dir_.Write("text", "A:" + cell + ";\nB:2;\n");

    Generate(text, dir_ / "page");

    EXPECT_EQ(Page("A:" + cell + ";\nB:2;\n"), dir_.Read("page"));
}

// Returns text for a page of two megabytes.
std::string ManyLines()
{
    std::string text;
    for (int i = 0; i < 40000; ++i) {
        text += std::to_string(i) + ":x;\n";
    }
    return text;
}

TEST_F(HtmlPageTest, ReadsManyLines)
{
    const std::string text = dir_.Write("text", ManyLines());

    Generate(text, dir_ / "page");

    EXPECT_EQ(Page(ManyLines()), dir_.Read("page"));
}

// Expects an incomplete page, which ends somewhere after its header.
void ExpectBeginning(const std::string& whole, const std::string& page)
{
    EXPECT_LT(kStreamsUseStdio ? 0 : oracle::kPageHeaderBytes, page.size());
    EXPECT_GT(whole.size(), page.size());
    EXPECT_TRUE(whole.compare(0, page.size(), page) == 0) << "not the beginning of the page";
}

TEST_F(HtmlPageTest, AgreesWithAModelForAnyTextAndContainsNoLineFeed)
{
    const std::string page = dir_ / "page";
    Random random(1);
    std::size_t lines = 0;
    for (int i = 0; i < 1000; ++i) {
        const std::string text = random.Text("ab<:::,,;;\n\n\r\0\xFF"s, 600);
        for (const char byte : text) {
            lines += byte == '\n';
        }
        other_.Write("text", text);

        Generate(other_ / "text", page);

        const std::string generated = ReadFile(page);
        ASSERT_EQ(Page(text), generated) << PrintToString(text);
        ASSERT_EQ(std::string::npos, generated.find('\n')) << PrintToString(text);
    }
    EXPECT_LT(20000U, lines);
}

// ---- The text file

TEST_F(HtmlPageTest, LeavesTheTextFileAlone)
{
    const std::string text = dir_.Write("text", "A:1;\n", 0640);
    const struct stat before = StatusOf(text);

    Generate(text, dir_ / "page");

    const struct stat after = StatusOf(text);
    EXPECT_EQ("A:1;\n", dir_.Read("text"));
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(before.st_mode, after.st_mode);
    EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
    EXPECT_EQ((Names{"page", "text"}), dir_.Names());
}

TEST_F(HtmlPageTest, ReadsATextFileThatMayOnlyBeRead)
{
    const std::string text = dir_.Write("text", "A:1;\n", 0444);

    RunAsNobody([&] {
        Generate(text, dir_ / "page");

        EXPECT_EQ(Page("A:1;\n"), dir_.Read("page"));
        EXPECT_FALSE(Exists(OwnTemporaryPage()));
        ExpectReports({});
    });
}

TEST_F(HtmlPageTest, AMissingTextFileMakesAnEmptyPage)
{
    dir_.Write("page", "old");

    Generate(dir_ / "missing", dir_ / "page");

    EXPECT_EQ(Page(""), dir_.Read("page"));
    EXPECT_EQ(Names{"page"}, dir_.Names());
}

TEST_F(HtmlPageTest, AnEmptyTextFilePathMakesAnEmptyPage)
{
    dir_.Write("page", "old");

    Generate("", dir_ / "page");

    EXPECT_EQ(Page(""), dir_.Read("page"));
}

TEST_F(HtmlPageTest, AnEmptyTextFileMakesAnEmptyPage)
{
    dir_.Write("page", "old");
    const std::string text = dir_.Write("text", "");

    Generate(text, dir_ / "page");

    EXPECT_EQ(Page(""), dir_.Read("page"));
}

TEST_F(HtmlPageTest, ADirectoryAsTextFileMakesAnEmptyPage)
{
    dir_.Write("page", "old");

    Generate(dir_.Path(), dir_ / "page");

    EXPECT_EQ(Page(""), dir_.Read("page"));
}

TEST_F(HtmlPageTest, AnUnreadableTextFileMakesAnEmptyPage)
{
    dir_.Write("page", "old", 0666);
    const std::string text = dir_.Write("text", "A:1;\n", 0);

    RunAsNobody([&] {
        Generate(text, dir_ / "page");

        EXPECT_EQ(Page(""), dir_.Read("page"));
        EXPECT_FALSE(Exists(OwnTemporaryPage()));
        ExpectReports({});
    });
}

TEST_F(HtmlPageTest, AReadErrorEndsThePageAfterTheLastCompleteLine)
{
    const std::string text = dir_.Write("text", "A:1;\nB:" + std::string(1 << 20, 'x') + ";\nC:3;\n");
    const ScopedFault fault(Call::kRead, /*nth=*/2, EIO);

    Generate(text, dir_ / "page");

    std::string read = "A:1;\n";
    if (kStreamsUseStdio) {  // whose first part of a line that cannot be read counts as a line
        const std::size_t part = dir_.Read("page").size() - Page(read + "B:;\n").size();
        EXPECT_GT(std::size_t{1} << 20, part);
        read += "B:" + std::string(part, 'x') + "\n";
    }
    EXPECT_EQ(Page(read), dir_.Read("page"));
}

TEST_F(HtmlPageTest, ResolvesRelativePathsAgainstTheCurrentDirectory)
{
    dir_.Write("text", "A:1;\n");

    RunInChild([&] {
        ASSERT_EQ(0, chdir(dir_.Path().c_str()));

        GenHtmlPagefromTextFile("text", "page");

        EXPECT_EQ(Page("A:1;\n"), dir_.Read("page"));
        EXPECT_FALSE(Exists(OwnTemporaryPage()));
        ExpectReports({});
    });
}

TEST_F(HtmlPageTest, ReplacesTheTextFileWhenThePageHasItsPath)
{
    const std::string text = dir_.Write("text", "A:1;\n");

    Generate(text, text);

    EXPECT_EQ(Page("A:1;\n"), dir_.Read("text"));
    EXPECT_EQ(Names{"text"}, dir_.Names());
}

// ---- The temporary file

TEST_F(HtmlPageTest, IsWrittenToTheTemporaryFileAndThenMoved)
{
    const std::string text = dir_.Write("text", "A:1;\n");
    const std::string page = dir_ / "page";
    const ScopedTrace trace;

    Generate(text, page);

    std::vector<std::string> calls = trace.Calls();
    ASSERT_LT(2U, calls.size());
    EXPECT_EQ("rename(" + OwnTemporaryPage() + ", " + page + ")", calls[calls.size() - 1]);
    EXPECT_EQ("stat(" + OwnTemporaryPage() + ")", calls[calls.size() - 2]);
    EXPECT_THAT(calls[calls.size() - 3], ::testing::StartsWith("write("));
    calls.resize(calls.size() - 2);
    EXPECT_THAT(calls,
                ::testing::Each(::testing::AnyOf(::testing::StartsWith("read("), ::testing::StartsWith("write("))));
}

TEST_F(HtmlPageTest, EmptiesAndReusesATemporaryFileThatWasLeft)
{
    const std::string text = dir_.Write("text", "A:1;\n");
    WriteFile(OwnTemporaryPage(), std::string(100000, 'x'));
    const ino_t left = StatusOf(OwnTemporaryPage()).st_ino;

    Generate(text, dir_ / "page");

    EXPECT_EQ(Page("A:1;\n"), dir_.Read("page"));
    EXPECT_EQ(left, StatusOf(dir_ / "page").st_ino);
}

TEST_F(HtmlPageTest, OverwritesTheTemporaryFileOfAnEarlierCallWhoseMoveFailed)
{
    const std::string text = dir_.Write("text", "A:1;\nB:2;\n");
    Generate(text, dir_ / "missing/page");
    ExpectFailedMove(messages::kRenameRename(OwnTemporaryPage(), dir_ / "missing/page", ENOENT), dir_ / "missing/page");
    ASSERT_TRUE(Exists(OwnTemporaryPage()));
    dir_.Write("text", "C:3;\n");

    Generate(text, dir_ / "page");

    EXPECT_EQ(Page("C:3;\n"), dir_.Read("page"));
}

// Text and page are not in /var/tmp, on which the tests mount another file system.
class TemporaryDirectoryTest : public HtmlPageTest {
protected:
    void WithPrivateMounts(const std::function<void()>& body)
    {
        text_ = other_.Write("text", "A:1;\n");
        page_ = other_.Write("page", "old");
        RunWithPrivateMounts(body);
        EXPECT_EQ((Names{"page", "text"}), other_.Names());
    }

    std::string text_;
    std::string page_;
};

TEST_F(TemporaryDirectoryTest, AnUnwritableOneIsReportedAndThePageStays)
{
    if (!CanMount()) {
        ORV_SKIP("mounts are not allowed here");
    }
    WithPrivateMounts([this] {
        ASSERT_EQ(0, mount("none", "/var/tmp", "tmpfs", MS_RDONLY, nullptr));
        const Names descriptors = OpenDescriptors();

        Generate(text_, page_);

        ExpectFailedMove(messages::kRenameStat(OwnTemporaryPage(), ENOENT), page_);
        EXPECT_EQ("old", ReadFile(page_));
        EXPECT_EQ(Names{}, NamesIn("/var/tmp"));
        EXPECT_EQ(descriptors, OpenDescriptors());
    });
}

TEST_F(TemporaryDirectoryTest, AMissingOneIsReportedAndThePageStays)
{
    if (!CanMount()) {
        ORV_SKIP("mounts are not allowed here");
    }
    WithPrivateMounts([this] {
        MountTmpfs("/var", 1 << 20);

        Generate(text_, page_);

        ExpectFailedMove(messages::kRenameStat(OwnTemporaryPage(), ENOENT), page_);
        EXPECT_EQ("old", ReadFile(page_));
        EXPECT_EQ(Names{}, NamesIn("/var"));
    });
}

TEST_F(TemporaryDirectoryTest, AFullOneMakesAnIncompletePageAndLogsNothing)
{
    if (!CanMount()) {
        ORV_SKIP("mounts are not allowed here");
    }
    WithPrivateMounts([this] {
        MountTmpfs("/var/tmp", 64 << 10);
        WriteFile(text_, ManyLines());

        Generate(text_, page_);

        ExpectBeginning(Page(ManyLines()), ReadFile(page_));
        EXPECT_EQ(Names{}, NamesIn("/var/tmp"));
        ExpectReports({});
    });
}

TEST_F(TemporaryDirectoryTest, OneThatIsFullFromTheStartMakesAnEmptyFileAndLogsNothing)
{
    if (!CanMount()) {
        ORV_SKIP("mounts are not allowed here");
    }
    WithPrivateMounts([this] {
        MountTmpfs("/var/tmp", 64 << 10);
        std::ofstream("/var/tmp/filler") << std::string(128 << 10, 'x');  // until the space is used up

        Generate(text_, page_);

        EXPECT_EQ("", ReadFile(page_));
        EXPECT_EQ(Names{"filler"}, NamesIn("/var/tmp"));
        ExpectReports({});
    });
}

TEST_F(HtmlPageTest, AWriteErrorMakesAnIncompletePageAndLogsNothing)
{
    dir_.Write("page", "old");
    const std::string text = dir_.Write("text", ManyLines());
    const ScopedFault fault(Call::kWrite, /*nth=*/1, EIO);

    Generate(text, dir_ / "page");

    ExpectBeginning(Page(ManyLines()), dir_.Read("page"));
}

TEST_F(HtmlPageTest, MovesATemporaryFileThatMayNotBeWrittenIntoPlaceUnchanged)
{
    dir_.Write("page", "old", 0666);
    const std::string text = dir_.Write("text", "A:1;\n");

    RunAsNobody([&] {
        if (geteuid() == 0) {
            ADD_FAILURE() << "still root, whom no mode keeps from writing";
        }
        WriteFile(OwnTemporaryPage(), "left behind");
        ASSERT_EQ(0, chmod(OwnTemporaryPage().c_str(), 0444));

        Generate(text, dir_ / "page");

        EXPECT_EQ("left behind", dir_.Read("page"));
        EXPECT_EQ(0444U, ModeOf(dir_ / "page"));
        EXPECT_FALSE(Exists(OwnTemporaryPage()));
        ExpectReports({});
    });
}

TEST_F(HtmlPageTest, ADirectoryWithTheNameOfTheTemporaryFileIsReported)
{
    dir_.Write("page", "old");
    const std::string text = dir_.Write("text", "A:1;\n");
    ASSERT_EQ(0, mkdir(OwnTemporaryPage().c_str(), 0755));

    Generate(text, dir_ / "page");

    ExpectReports({messages::kRenameNotRegular(OwnTemporaryPage(), "4000"),
                   messages::kPageMove(OwnTemporaryPage(), dir_ / "page")});
    EXPECT_EQ("old", dir_.Read("page"));
    EXPECT_EQ(0, rmdir(OwnTemporaryPage().c_str()));
}

// ---- The move that fails

TEST_F(HtmlPageTest, LeavesTheTemporaryFileWhenThePagesDirectoryIsMissing)
{
    const std::string text = dir_.Write("text", "A:1;\n");
    const std::string page = dir_ / "missing/page";

    Generate(text, page);

    ExpectFailedMove(messages::kRenameRename(OwnTemporaryPage(), page, ENOENT), page);
    EXPECT_EQ(Page("A:1;\n"), TakeTemporaryPage());
    EXPECT_EQ(Names{"text"}, dir_.Names());
}

TEST_F(HtmlPageTest, LeavesTheTemporaryFileWhenThePagePathIsADirectory)
{
    const std::string text = dir_.Write("text", "A:1;\n");
    const std::string page = dir_ / "page";
    ASSERT_EQ(0, mkdir(page.c_str(), 0755));

    Generate(text, page);

    ExpectFailedMove(messages::kRenameRename(OwnTemporaryPage(), page, EISDIR), page);
    EXPECT_EQ(Page("A:1;\n"), TakeTemporaryPage());
    EXPECT_EQ((Names{"page", "text"}), dir_.Names());
    EXPECT_EQ(Names{}, NamesIn(page));
}

TEST_F(HtmlPageTest, LeavesTheTemporaryFileWhenThePagePathIsEmpty)
{
    const std::string text = dir_.Write("text", "A:1;\n");

    Generate(text, "");

    ExpectFailedMove(messages::kRenameRename(OwnTemporaryPage(), "", ENOENT), "");
    EXPECT_EQ(Page("A:1;\n"), TakeTemporaryPage());
}

TEST_F(HtmlPageTest, LeavesTheOldPageWhenItMayNotBeReplaced)
{
    const std::string text = dir_.Write("text", "A:1;\n");
    const std::string page = dir_.Write("page", "old");
    {
        const ScopedFault fault(Call::kRename, /*nth=*/1, EACCES);
        Generate(text, page);
    }

    ExpectFailedMove(messages::kRenameRename(OwnTemporaryPage(), page, EACCES), page);
    EXPECT_EQ("old", ReadFile(page));
    EXPECT_EQ(Page("A:1;\n"), TakeTemporaryPage());
}

TEST_F(HtmlPageTest, ReportsAFailedReadOfTheMoveOnlyByItsOwnLine)
{
    const std::string page = other_.Write("page", "old");
    {
        const ScopedFault fault(Call::kRead, /*nth=*/1, EIO);  // a missing text file is not read
        Generate(dir_ / "missing", page);
    }

    ExpectReports({messages::kPageMove(OwnTemporaryPage(), page)});
    EXPECT_EQ("old", ReadFile(page));
    EXPECT_EQ(Names{"page"}, other_.Names());
    EXPECT_EQ(Page(""), TakeTemporaryPage());
}

TEST_F(HtmlPageTest, ReportsAMissingDirectoryOnAnotherFileSystem)
{
    const std::string text = dir_.Write("text", "A:1;\n");
    const std::string page = other_ / "missing/page";

    Generate(text, page);

    ExpectFailedMove(messages::kRenameRename(OwnTemporaryPage(), page, ENOENT), page);
    EXPECT_EQ(Page("A:1;\n"), TakeTemporaryPage());
    EXPECT_EQ(Names{}, other_.Names());
}

// ---- The page on the file system of the temporary file, and on another one

class PagePlaceTest : public HtmlPageTest, public ::testing::WithParamInterface<bool> {
protected:
    const TempDir& Place() const
    {
        return GetParam() ? dir_ : other_;
    }
};

INSTANTIATE_TEST_SUITE_P(Places, PagePlaceTest, ::testing::Bool(), [](const auto& place) {
    return std::string(place.param ? "SameFileSystem" : "OtherFileSystem");
});

TEST_P(PagePlaceTest, IsCreated)
{
    const std::string text = Place().Write("text", "A:1;\n");

    Generate(text, Place() / "page");

    EXPECT_EQ(Page("A:1;\n"), Place().Read("page"));
    EXPECT_EQ((Names{"page", "text"}), Place().Names());
    EXPECT_FALSE(Exists(OwnTemporaryPage()));
}

TEST_P(PagePlaceTest, HasTheModeOfANewFileNotOfTheOldPage)
{
    const std::string page = Place().Write("page", "old", 0600);
    for (const mode_t mask : {0U, 022U, 027U, 077U, 0111U}) {
        const ScopedMask scoped(mask);

        Generate("/dev/null", page);

        EXPECT_EQ(0666U & ~mask, ModeOf(page)) << "mask " << mask;
        EXPECT_EQ(Page(""), Place().Read("page"));
    }
}

TEST_P(PagePlaceTest, IsANewFileSoThatReadersKeepTheOldOne)
{
    const std::string page = Place().Write("page", "old");
    const std::string text = Place().Write("text", "A:1;\n");
    const ino_t old = StatusOf(page).st_ino;
    std::ifstream reader(page);

    Generate(text, page);

    std::string line;
    EXPECT_TRUE(std::getline(reader, line));
    EXPECT_EQ("old", line);
    EXPECT_NE(old, StatusOf(page).st_ino);
    EXPECT_EQ(Page("A:1;\n"), ReadFile(page));
    EXPECT_EQ((Names{"page", "text"}), Place().Names());
}

// An object that may be at the page's path and is replaced. Beside it are a file, a directory and the text file.
struct Occupant {
    std::string name;
    std::function<int(const std::string& page, const TempDir& place)> make;
};

// Without this, GoogleTest would print its bytes, including uninitialised ones.
void PrintTo(const Occupant& occupant, std::ostream* out)
{
    *out << occupant.name;
}

int MakeNothing(const std::string&, const TempDir&)
{
    return 0;
}

int MakeFile(const std::string& page, const TempDir&)
{
    return close(creat(page.c_str(), 0400));
}

int MakeFifo(const std::string& page, const TempDir&)
{
    return mkfifo(page.c_str(), 0600);
}

std::function<int(const std::string&, const TempDir&)> LinkTo(const std::string& target)
{
    return [target](const std::string& page, const TempDir&) { return symlink(target.c_str(), page.c_str()); };
}

std::function<int(const std::string&, const TempDir&)> HardLinkOf(const std::string& name)
{
    return [name](const std::string& page, const TempDir& place) { return link((place / name).c_str(), page.c_str()); };
}

class PageOccupantTest : public HtmlPageTest,
                         public ::testing::WithParamInterface<std::tuple<Occupant, /*same file system*/ bool>> {};

INSTANTIATE_TEST_SUITE_P(Occupants, PageOccupantTest,
                         ::testing::Combine(::testing::Values(Occupant{"Nothing", MakeNothing},
                                                              Occupant{"File", MakeFile}, Occupant{"Fifo", MakeFifo},
                                                              Occupant{"LinkToAFile", LinkTo("file")},
                                                              Occupant{"LinkToTheText", LinkTo("text")},
                                                              Occupant{"LinkToADirectory", LinkTo("directory")},
                                                              Occupant{"DanglingLink", LinkTo("missing")},
                                                              Occupant{"LinkToItself", LinkTo("page")},
                                                              Occupant{"HardLinkOfAFile", HardLinkOf("file")},
                                                              Occupant{"HardLinkOfTheText", HardLinkOf("text")}),
                                            ::testing::Bool()),
                         [](const auto& occupant) {
                             return std::get<0>(occupant.param).name +
                                    (std::get<1>(occupant.param) ? "OnTheSameFileSystem" : "OnAnotherFileSystem");
                         });

TEST_P(PageOccupantTest, IsReplacedByANewFileAndNothingElseChanges)
{
    const TempDir& place = std::get<1>(GetParam()) ? dir_ : other_;
    const std::string text = place.Write("text", "A:1;\n");
    const std::string file = place.Write("file", "old", 0640);
    const std::string page = place / "page";
    ASSERT_EQ(0, mkdir((place / "directory").c_str(), 0755));
    const ino_t inodes[] = {StatusOf(text).st_ino, StatusOf(file).st_ino};
    ASSERT_EQ(0, std::get<0>(GetParam()).make(page, place)) << std::strerror(errno);
    const ScopedMask mask(027);

    Generate(text, page);

    const struct stat status = StatusOf(page);
    EXPECT_EQ(Page("A:1;\n"), ReadFile(page));
    EXPECT_EQ(S_IFREG | 0640U, status.st_mode);
    EXPECT_EQ(1U, status.st_nlink);
    EXPECT_EQ((Names{"directory", "file", "page", "text"}), place.Names());
    EXPECT_EQ(Names{}, NamesIn(place / "directory"));
    EXPECT_EQ("A:1;\n", ReadFile(text));
    EXPECT_EQ("old", ReadFile(file));
    EXPECT_EQ(inodes[0], StatusOf(text).st_ino);
    EXPECT_EQ(inodes[1], StatusOf(file).st_ino);
    EXPECT_EQ(1U, StatusOf(text).st_nlink);
    EXPECT_EQ(1U, StatusOf(file).st_nlink);
    EXPECT_FALSE(Exists(OwnTemporaryPage()));
    ExpectReports({});
}

TEST_F(HtmlPageTest, LeavesADirectoryAtThePagePathOnAnotherFileSystem)
{
    const std::string text = dir_.Write("text", "A:1;\n");
    const std::string page = other_ / "page";
    ASSERT_EQ(0, mkdir(page.c_str(), 0755));
    WriteFile(page + "/file", "old");

    Generate(text, page);

    ExpectFailedMove(messages::kRenameRename(page + messages::kAnySuffix, page, 21), page);
    EXPECT_EQ(Page("A:1;\n"), TakeTemporaryPage());
    EXPECT_EQ(Names{"page"}, other_.Names());
    EXPECT_EQ(Names{"file"}, NamesIn(page));
    EXPECT_EQ("old", ReadFile(page + "/file"));
}

// The user may read the directory but not write to it, and may write the page in it. A page is never written in place.
TEST_P(PagePlaceTest, LeavesAPageInADirectoryThatTheCallerMayNotWrite)
{
    const std::string text = Place().Write("text", "A:1;\n");
    const std::string directory = Place() / "closed";
    const std::string page = directory + "/page";
    ASSERT_EQ(0, mkdir(directory.c_str(), 0755));
    WriteFile(page, "old");
    ASSERT_EQ(0, chmod(page.c_str(), 0666));
    ASSERT_EQ(0, chmod(directory.c_str(), 0555));

    RunAsNobody([&] {
        Generate(text, page);

        if (GetParam()) {
            ExpectFailedMove(messages::kRenameRename(OwnTemporaryPage(), page, EACCES), page);
        } else {
            ExpectFailedMove(messages::kRenameMkstemp(page + messages::kAnySuffix, 13), page);
        }
        EXPECT_EQ(Page("A:1;\n"), TakeTemporaryPage());
    });
    EXPECT_EQ(Names{"page"}, NamesIn(directory));
    EXPECT_EQ("old", ReadFile(page));
    EXPECT_EQ(0666U, ModeOf(page));
    ASSERT_EQ(0, chmod(directory.c_str(), 0755));  // so that it can be removed without root
}

TEST_P(PagePlaceTest, StaysOldWhenTheProcessDiesOfTheFileSizeLimit)
{
    const std::string text = Place().Write("text", ManyLines());
    const std::string page = Place().Write("page", "old", 0600);
    pid_t* const child =
        static_cast<pid_t*>(mmap(nullptr, sizeof(pid_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(MAP_FAILED, static_cast<void*>(child));

    RunIntoFileSizeLimit(20000, [&] {
        *child = getpid();
        Generate(text, page);
    });

    const std::string temporaryPage = oracle::TemporaryPage(*child);
    EXPECT_EQ(Page(ManyLines()).substr(0, 20000), ReadFile(temporaryPage));
    EXPECT_EQ(0, unlink(temporaryPage.c_str()));
    EXPECT_EQ("old", ReadFile(page));
    EXPECT_EQ(0600U, ModeOf(page));
    EXPECT_EQ((Names{"page", "text"}), Place().Names());

    Generate(text, page);

    EXPECT_EQ(Page(ManyLines()), ReadFile(page));
    EXPECT_EQ(0, munmap(child, sizeof(pid_t)));
}

TEST_P(PagePlaceTest, ProcessesMayWriteOnePageAtOnce)
{
    const std::string cell(20000, 'x');
    const std::string own = Place().Write("own", "A:" + cell + ";\n");
    const std::string others = Place().Write("others", "B:" + cell + cell + ";\n");
    const std::string page = Place() / "page";
    Generate(own, page);
    const pid_t child = fork();
    if (child == 0) {
        for (int i = 0; i < 100; ++i) {
            Generate(others, page);
        }
        _exit(Exists(OwnTemporaryPage()) || !TakeDlogCalls().empty() ? 1 : 0);
    }

    for (int i = 0; i < 100; ++i) {
        Generate(own, page);
        const std::string seen = ReadFile(page);
        EXPECT_TRUE(seen == Page("A:" + cell + ";\n") || seen == Page("B:" + cell + cell + ";\n"))
            << seen.size() << " bytes";
    }

    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_EQ((Names{"others", "own", "page"}), Place().Names());
}

}  // namespace
