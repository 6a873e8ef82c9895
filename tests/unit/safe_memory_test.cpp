// The safe companion without memory: every allocation fails in turn, also those inside the C library, such as the one
// for a directory stream or a FILE. Then a call throws std::bad_alloc, or it is false with a line, as the header says.
#include "safe/safe.h"

#include "support/heap.h"
#include "support/oracle.h"
#include "support/orv_test.h"

#include <unistd.h>

#include <filesystem>
#include <functional>
#include <map>
#include <new>
#include <string>
#include <vector>

namespace {

using Names = std::vector<std::string>;
using Settings = std::map<std::string, std::string>;

const std::string kContent(10000, 'x');
const std::string kComment("#");  // the caller makes it, and in old strings that is an allocation
const char kTable[] = "Port 1:up,100 Mbit/s;\n";
const char kSettings[] = "# note\nname = a value that is too long for a string object\n[section]\n";

// What a call did while an allocation failed.
struct Outcome {
    bool threw = false;
    bool result = false;
    std::vector<DlogCall> lines;

    bool IsDone() const
    {
        return result && !threw;
    }
};

class SafeMemoryTest : public OrvTest {
protected:
    SafeMemoryTest() : other_(MemoryDirectory())
    {
    }

    // Calls `act` so that its first, second, ... allocation fails, or this one and all that follow, until a call needs
    // no more. `check` looks at what is there after each call.
    void FailEachAllocation(const std::function<void()>& prepare, const std::function<bool()>& act,
                            const std::function<void(const Outcome&)>& check)
    {
        for (const Failing failing : {Failing::kOnce, Failing::kFromThereOn}) {
            bool fired = true;
            for (int nth = 1; fired; ++nth) {
                SCOPED_TRACE("allocation " + std::to_string(nth));
                prepare();
                const Outcome outcome = Try(nth, failing, act, fired);
                EXPECT_TRUE(fired || outcome.IsDone());
                threw_ += outcome.threw ? 1 : 0;
                refused_ += outcome.threw || outcome.result ? 0 : 1;
                check(outcome);
                ASSERT_FALSE(HasFailure());
            }
        }
    }

    TempDir other_;
    int threw_ = 0;
    int refused_ = 0;

private:
    static Outcome Try(int nth, Failing failing, const std::function<bool()>& act, bool& fired)
    {
        const Names descriptors = OpenDescriptors();
        Outcome outcome;
        {
            const ScopedAllocationFault fault(nth, failing);
            try {
                outcome.result = act();
            } catch (const std::bad_alloc&) {
                outcome.threw = true;
            }
            fired = fault.Fired();
        }
        outcome.lines = TakeDlogCalls();
        EXPECT_EQ(outcome.threw || outcome.result, outcome.lines.empty());
        EXPECT_EQ(descriptors, OpenDescriptors());
        return outcome;
    }
};

TEST_F(SafeMemoryTest, CellsAndRowsThrow)
{
    const Names texts = {std::string(100, '<'), "\xFF" + std::string(50, '1'), ""};
    const std::string expected = orv_safe::SafeRow(texts);
    std::string row;

    FailEachAllocation([&] { row = "as it was"; },
                       [&] {
                           row = orv_safe::SafeRow(texts);
                           return true;
                       },
                       [&](const Outcome& outcome) { EXPECT_EQ(outcome.IsDone() ? expected : "as it was", row); });
    EXPECT_LE(10, threw_);
    EXPECT_EQ(0, refused_);

    FailEachAllocation([&] { row = "as it was"; },
                       [&] {
                           std::vector<orv_safe::Cell> cells;
                           cells.push_back(orv_safe::Cell().Markup("<b title=\"").Text(texts[0]).Markup("\"></b>"));
                           cells.emplace_back(texts[1]);
                           row = orv_safe::SafeMarkupRow(cells);
                           return true;
                       },
                       [&](const Outcome& outcome) { EXPECT_EQ(outcome.IsDone(), row != "as it was"); });
    EXPECT_LE(20, threw_);
    EXPECT_EQ(0, refused_);
}

TEST_F(SafeMemoryTest, CopiesAndMovesLoseNothing)
{
    orv_safe::FileOptions options;
    options.verify = true;
    options.preserve = true;
    for (const bool moves : {false, true}) {
        for (const TempDir* const to : {&dir_, &other_}) {
            const std::string source = dir_ / "a source whose name is long enough";
            const std::string destination = *to / "a destination whose name is long enough";
            FailEachAllocation(
                [&] {
                    WriteFile(source, kContent);
                    WriteFile(destination, "old");
                },
                [&] {
                    return moves ? orv_safe::MoveFile(source, destination, options)
                                 : orv_safe::CopyFile(source, destination, options);
                },
                [&](const Outcome& outcome) {
                    const std::string at = ReadFile(destination);
                    EXPECT_TRUE(at == "old" || at == kContent);
                    EXPECT_TRUE(!outcome.IsDone() || at == kContent);
                    EXPECT_EQ(!moves || !outcome.IsDone(), Exists(source));
                    EXPECT_TRUE(!Exists(source) || ReadFile(source) == kContent);
                    EXPECT_THAT(to->Names(), ::testing::Each(::testing::EndsWith(" whose name is long enough")));
                });
        }
    }
    EXPECT_LE(20, threw_);
}

TEST_F(SafeMemoryTest, APageIsPublishedWholeOrNotAtAll)
{
    const std::string text = dir_.Write("text", kTable);
    for (const TempDir* const to : {&dir_, &other_}) {
        const std::string page = *to / "a page whose name is long enough";
        const int refused = refused_;
        FailEachAllocation([&] { WriteFile(page, "old"); }, [&] { return orv_safe::PublishPage(text, page); },
                           [&](const Outcome& outcome) {
                               EXPECT_EQ(outcome.IsDone() ? oracle::Page(kTable) : "old", ReadFile(page));
                               EXPECT_FALSE(Exists(oracle::OwnTemporaryPage()));
                               EXPECT_EQ(to == &dir_ ? 2U : 1U, to->Names().size());
                           });
        EXPECT_LT(refused, refused_) << "a page that the library could not make was not torn";
    }
    EXPECT_LE(10, threw_);
}

TEST_F(SafeMemoryTest, ADirectoryIsMadeOrTheExceptionPasses)
{
    const std::string path = dir_ / "a directory whose name is long/below it";

    FailEachAllocation(
        [&] { dir_.Clear(); }, [&] { return orv_safe::MakeDirectory(path, 0755); },
        [&](const Outcome& outcome) { EXPECT_TRUE(!outcome.IsDone() || std::filesystem::is_directory(path)); });

    EXPECT_LE(2, threw_);
}

TEST_F(SafeMemoryTest, AListIsWholeOrAsItWas)
{
    dir_.Write("a file whose name is long enough", "1");
    dir_.Write("another file whose name is long", "2");
    orv_safe::ListOptions options;
    options.status = true;
    options.withDirectory = true;
    std::vector<orv_safe::ListedFile> list;
    bool saidOpendir = false;

    FailEachAllocation([&] { list.assign(1, orv_safe::ListedFile()); },
                       [&] { return orv_safe::ListFiles(dir_.Path(), "*", "x*", list, options); },
                       [&](const Outcome& outcome) {
                           ASSERT_EQ(outcome.IsDone() ? 2U : 1U, list.size());
                           EXPECT_EQ(outcome.IsDone() ? 1 : 0, list[0].bytes);
                           for (const DlogCall& line : outcome.lines) {
                               saidOpendir = saidOpendir || line.text == "ListFiles: opendir(" + dir_.Path() +
                                                                             ") failed (12, Cannot allocate memory).";
                           }
                       });

    EXPECT_TRUE(saidOpendir) << "the directory stream was not refused";
    EXPECT_LE(5, threw_);
}

TEST_F(SafeMemoryTest, SettingsAreReadWhollyOrNotAtAllAndNothingIsThrown)
{
    const std::string file = dir_.Write("file", kSettings);
    Settings settings;
    std::vector<orv_safe::SettingsFinding> findings;

    FailEachAllocation(
        [&] {
            settings = {{"other", "1"}};
        },
        [&] { return orv_safe::ReadSettings(file, settings, '=', kComment); },
        [&](const Outcome& outcome) { EXPECT_EQ(outcome.IsDone() ? 3U : 1U, settings.size()); });
    EXPECT_LE(5, refused_);
    FailEachAllocation([&] { findings.assign(3, orv_safe::SettingsFinding()); },
                       [&] { return orv_safe::CheckSettings(file, findings, '=', kComment); },
                       [&](const Outcome& outcome) { EXPECT_EQ(outcome.IsDone() ? 1U : 3U, findings.size()); });
    EXPECT_LE(8, refused_);
    EXPECT_EQ(0, threw_);
}

TEST_F(SafeMemoryTest, SettingsAreChangedWhollyOrNotAtAllAndNothingIsThrown)
{
    const std::string file = dir_ / "file";
    const std::string link = dir_ / "link";
    ASSERT_EQ(0, symlink(file.c_str(), link.c_str()));
    const Settings changes = {{"name", "another value that is too long"}};
    const Names names = {"name", "a name that is too long for a string object"};
    const auto prepare = [&] { dir_.Write("file", kSettings); };
    const auto check = [&](const Outcome& outcome) {
        EXPECT_EQ(!outcome.IsDone(), ReadFile(file) == kSettings);
        EXPECT_EQ((Names{"file", "link"}), dir_.Names());
    };

    FailEachAllocation(
        prepare, [&] { return orv_safe::WriteSettings(link, changes, '=', kComment); }, check);
    EXPECT_LE(10, refused_);
    FailEachAllocation(
        prepare, [&] { return orv_safe::RemoveSettings(link, names, '=', kComment); }, check);
    EXPECT_LE(20, refused_);
    EXPECT_EQ(0, threw_);
}

}  // namespace
