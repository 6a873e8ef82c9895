// Every diagnostic line of the library but one, each produced once and compared whole. The one that needs memory to
// run out ("Error processing line") stands with the memory tests.
#include "support/messages.h"
#include "LxFileUtils.h"
#include "support/cases.h"
#include "support/faults.h"
#include "support/orv_test.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>

namespace {

// A message: the call that produces it, and what the line must be, "?" standing for one byte that mkstemp chose.
struct MessageCase {
    const char* name;
    const char* format;
    std::function<void(const TempDir&)> produce;
    std::function<std::string(const TempDir&)> text;
};

void PrintTo(const MessageCase& message, std::ostream* out)
{
    *out << message.name;
}

// Moves "new" onto "report", with the plain rename refused as between file systems and a fault further on.
void MoveAcrossWith(const TempDir& dir, Call call, int nth, int error)
{
    dir.Write("new", "abc", 0604);
    const ScopedFault otherFs(Call::kRename, /*nth=*/1, EXDEV);
    const ScopedFault fault(call, nth, error);
    (void)orv_fileutils::RenameFileAcrossFs(dir / "new", dir / "report");
}

bool List(const std::string& directory)
{
    std::list<std::string> names;
    return orv_fileutils::GetDirFileList(directory.c_str(), nullptr, nullptr, names, false, true, true);
}

std::string TempPage()
{
    return "/var/tmp/TextToHtml_" + std::to_string(getpid()) + ".tmp";
}

const MessageCase kMessages[] = {
    {"MoveStat", messages::kRenameStat,
     [](const TempDir& dir) { (void)orv_fileutils::RenameFileAcrossFs(dir / "missing", dir / "report"); },
     [](const TempDir& dir) { return "RenameFileAcrossFs: stat(" + (dir / "missing") + ") failed (2)."; }},
    {"MoveNotRegular", messages::kRenameNotRegular,
     [](const TempDir& dir) { (void)orv_fileutils::RenameFileAcrossFs("/dev/null", dir / "report"); },
     [](const TempDir&) { return "RenameFileAcrossFs: /dev/null is not a regular file (0x2000)."; }},
    {"MoveRename", messages::kRenameRename,
     [](const TempDir& dir) { (void)orv_fileutils::RenameFileAcrossFs(dir.Write("new", ""), dir / "no/report"); },
     [](const TempDir& dir) {
         return "RenameFileAcrossFs: rename(" + (dir / "new") + ", " + (dir / "no/report") + ") failed (2).";
     }},
    {"MoveMkstemp", messages::kRenameMkstemp,
     [](const TempDir& dir) { MoveAcrossWith(dir, Call::kMkstemp, 1, ENOSPC); },
     [](const TempDir& dir) { return "RenameFileAcrossFs: mkstemp(" + (dir / "report_XXXXXX") + ") failed (28)."; }},
    {"MoveOpen", messages::kRenameOpen, [](const TempDir& dir) { MoveAcrossWith(dir, Call::kOpen, 1, ENFILE); },
     [](const TempDir& dir) { return "RenameFileAcrossFs: open(" + (dir / "new") + ") failed (23)."; }},
    {"MoveWrite", messages::kRenameWrite, [](const TempDir& dir) { MoveAcrossWith(dir, Call::kWrite, 1, EFBIG); },
     [](const TempDir&) { return "RenameFileAcrossFs: write() failed (3, -1, 27)."; }},
    {"MoveChmod", messages::kRenameChmod, [](const TempDir& dir) { MoveAcrossWith(dir, Call::kChmod, 1, EIO); },
     [](const TempDir& dir) { return "RenameFileAcrossFs: chmod(" + (dir / "report_??????") + ", 604) failed (5)."; }},
    {"MoveUnlink", messages::kRenameUnlink, [](const TempDir& dir) { MoveAcrossWith(dir, Call::kUnlink, 1, EROFS); },
     [](const TempDir& dir) { return "RenameFileAcrossFs: unlink(" + (dir / "new") + ") failed (30)."; }},
    {"WorkerParent", messages::kWorkerParent, [](const TempDir&) { (void)orv_fileutils::DoMakeDirPath("/etc", 0755); },
     [](const TempDir&) { return "DoMakeDirPath: Can't make directory in /"; }},
    {"WorkerMkdir", messages::kWorkerMkdir,
     [](const TempDir& dir) { (void)orv_fileutils::DoMakeDirPath((dir.Write("file", "") + "/a").c_str(), 0755); },
     [](const TempDir& dir) {
         return "DoMakeDirPath: could not create subdirectory " + (dir / "file/a") + " due to error: Not a directory";
     }},
    {"MakeSize", messages::kMakeSize,
     [](const TempDir&) { (void)orv_fileutils::MakeDirPath(std::string(1025, '/').c_str(), 0755, false); },
     [](const TempDir&) { return "MakeDirPath: can't make path of unusual size: 1025"; }},
    {"MakeChmod", messages::kMakeChmod,
     [](const TempDir& dir) {
         const ScopedFault fault(Call::kChmod, 1, EPERM);
         (void)orv_fileutils::MakeDirPath(dir.Path().c_str(), 0755, true);
     },
     [](const TempDir& dir) { return "MakeDirPath: Failed to chmod on '" + dir.Path() + "': errno: 1"; }},
    {"ListNoDirectory", messages::kListNoDirectory, [](const TempDir&) { (void)List(""); },
     [](const TempDir&) { return "GetDirFileList: No directory specified."; }},
    {"ListOpen", messages::kListOpen, [](const TempDir& dir) { (void)List(dir / "missing"); },
     [](const TempDir& dir) {
         return "GetDirFileList: Error opening directory folder '" + (dir / "missing") + "', errno: 2";
     }},
    {"ListRead", messages::kListRead,
     [](const TempDir& dir) {
         const ScopedFault fault(Call::kReaddir, 1, EBADF);
         (void)List(dir.Path());
     },
     [](const TempDir& dir) { return "GetDirFileList: readdir_r failed for directory: " + dir.Path() + ", error: 9"; }},
    {"NameValueOpen", messages::kNameValueOpen,
     [](const TempDir& dir) {
         std::map<std::string, std::string> values;
         (void)orv_fileutils::ReadNameValueFromFile(dir / "missing", values, '=', "#");
     },
     [](const TempDir& dir) { return "ReadNameValueFromFile: Unable to open file \"" + (dir / "missing") + "\""; }},
};

class MessageTest : public OrvTest, public ::testing::WithParamInterface<MessageCase> {};

TEST_P(MessageTest, IsWrittenByteForByte)
{
    const MessageCase& message = GetParam();
    ASSERT_EQ(0, mkdir((dir_ / "directory").c_str(), 0755));

    message.produce(dir_);

    std::vector<DlogCall> calls = TakeDlogCalls();
    ASSERT_EQ(1U, calls.size());
    std::string expected = message.text(dir_);
    ASSERT_EQ(expected.size(), calls[0].text.size()) << calls[0].text;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (expected[i] == '?') {
            expected[i] = calls[0].text[i];
        }
    }
    EXPECT_EQ(expected, calls[0].text);
    EXPECT_EQ(message.format, calls[0].format);
    EXPECT_EQ(3, calls[0].severity);
    EXPECT_EQ("LxFileUtils.cpp", calls[0].sourceTag);
    EXPECT_EQ(expected.substr(0, expected.find(':')), calls[0].function);
}

INSTANTIATE_TEST_SUITE_P(Each, MessageTest, ::testing::ValuesIn(kMessages), CaseName<MessageCase>);

class MessagePairTest : public OrvTest {};

TEST_F(MessagePairTest, TheEntryPointAddsItsLineToTheWorkers)
{
    EXPECT_FALSE(orv_fileutils::MakeDirPath("", 0755, false));

    ExpectReports({{messages::kWorkerParent, "DoMakeDirPath: Can't make directory in ."},
                   {messages::kMakeFailed, "MakeDirPath: Create '' directory failed."}});
}

TEST_F(MessagePairTest, ThePageAddsItsLineToTheMoves)
{
    const std::string table = dir_.Write("table", "");
    const std::string page = dir_ / "missing/page";

    orv_fileutils::GenHtmlPagefromTextFile(table.c_str(), page.c_str());

    ExpectReports(
        {{messages::kRenameRename, "RenameFileAcrossFs: rename(" + TempPage() + ", " + page + ") failed (2)."},
         {messages::kPageMove,
          "GenHtmlPagefromTextFile: RenameFileAcrossFs(" + TempPage() + ", " + page + ") failed."}});
    EXPECT_EQ(0, std::remove(TempPage().c_str()));
}

}  // namespace
