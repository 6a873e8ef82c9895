// Compares the oracle, which computes the expected results of other tests, with files in data/ that were written by
// hand. For strings, rows and name-value files, the tables of their tests do the same.
#include "support/oracle.h"
#include "support/cases.h"
#include "support/messages.h"
#include "support/orv_test.h"

#include <iterator>
#include <string>
#include <vector>

namespace {

TEST(OracleTest, LinesAreThoseOfTheDataFolder)
{
    const std::string page = oracle::TemporaryPage(4711);
    const std::vector<Report> lines = {
        messages::kRenameStat("/spool/new", 2),
        messages::kRenameNotRegular("/dev/null", "2000"),
        messages::kRenameRename("/spool/new", "/usb/no/report", 2),
        messages::kRenameUnlink("/spool/new", 30),
        messages::kRenameOpen("/spool/new", 23),
        messages::kRenameMkstemp("/usb/report_XXXXXX", 28),
        messages::kRenameWrite(3, -1, 27),
        messages::kRenameChmod("/usb/report_a1B2c3", "064", 5),
        messages::kWorkerMalloc(),
        messages::kWorkerParent("/"),
        messages::kWorkerMkdir("/spool/file/a", "Not a directory"),
        messages::kMakeSize(1025),
        messages::kMakeFailed("/spool/file/a"),
        messages::kMakeChmod("/spool", 1),
        messages::kListNoDirectory(),
        messages::kListOpen("/spool/missing", 2),
        messages::kListRead("/spool", 9),
        messages::kPageMove(page, "/www/status.html"),
        messages::kNameValueOpen("/etc/app.conf"),
        messages::kNameValueLine(7, "/etc/app.conf", "="),
    };
    std::string text;
    for (const Report& line : lines) {
        text += line.text + "\n";
    }

    EXPECT_EQ(ReadFile(ORV_TEST_DATA "/messages.txt"), text);
    ASSERT_EQ(std::size(messages::kAll), lines.size());
    for (std::size_t at = 0; at < lines.size(); ++at) {
        EXPECT_EQ(messages::kAll[at]->format, lines[at].format);
    }
}

TEST(OracleTest, PagesAreThoseOfTheDataFolder)
{
    const std::string folder = ORV_TEST_DATA "/pages";
    int pages = 0;
    for (const std::string& name : NamesIn(folder)) {
        const std::string stem = name.substr(0, name.rfind('.'));
        if (name == stem + ".txt") {
            EXPECT_EQ(ReadFile(folder + "/" + stem + ".html"), oracle::Page(ReadFile(folder + "/" + name))) << name;
            ++pages;
        }
    }

    EXPECT_LE(24, pages);
    EXPECT_EQ(oracle::kPageHeaderBytes, std::string(oracle::kPageHeader).size());
}

TEST(OracleTest, OnlyLettersAndDigitsMatchTheNameOfATemporaryFile)
{
    EXPECT_TRUE(oracle::IsTemporaryCopy("/usb/report_a1B2cZ", "/usb/report"));
    for (const char* const path : {"/usb/report_a1B2c", "/usb/report_a1B2c34", "/usb/report_a1B2c/",
                                   "/usb/report_a1B2c.", "/usb/report.a1B2c3", "/usb/Report_a1B2c3"}) {
        EXPECT_FALSE(oracle::IsTemporaryCopy(path, "/usb/report")) << path;
    }
    EXPECT_TRUE(messages::IsLike("a?", "a?"));
    EXPECT_FALSE(messages::IsLike("a?", "b1"));
}

}  // namespace
