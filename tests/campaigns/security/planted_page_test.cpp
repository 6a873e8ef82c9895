// Plants objects of another user at the name where a service builds its page, with every kernel setting that matters,
// and compares the results with the table of docs/security.md. A service that publishes with the safe companion leaves
// every object alone, publishes no planted page, and logs each refusal. With ORV_FULL in the environment, all
// combinations of the settings are tried.

#include "LxFileUtils.h"
#include "safe/safe.h"

#include "campaigns/security/kernel_settings.h"
#include "support/messages.h"
#include "support/oracle.h"
#include "support/orv_test.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <thread>
#include <tuple>

namespace {

const std::string kBuildDirectory = "/var/tmp";
const std::string kOtherDirectory = "/dev/shm";
const std::string kOwnFile = kBuildDirectory + "/of_the_planter";

struct Object {
    std::string name;     // in the table
    std::string setting;  // the one that matters; empty: none does
};

const Object kObjects[] = {
    {"symbolic link", "symlinks"},
    {"dangling symbolic link", "symlinks"},
    {"file, mode 0666", "regular"},
    {"file, mode 0644", "regular"},
    {"file, mode 0600", "regular"},
    {"hard link to a file of the service", "hardlinks"},
    {"hard link to its own file", "regular"},
    {"FIFO", "fifos"},
    {"directory", ""},
};

const std::map<std::string, uid_t> kServices = {{"root", 0}, {"a user", 65532}};
constexpr uid_t kPlanters[] = {65534, 65533};
const std::map<std::string, std::string> kPlaces = {{"same", kBuildDirectory}, {"other", kOtherDirectory}};

constexpr char kTable[] = "Port 1:up,100 Mbit/s;\n";
constexpr char kOldPage[] = "<p>old</p>";
constexpr char kVictim[] = "precious";
constexpr char kPlanted[] = "<p>planted</p>";

constexpr std::chrono::seconds kPatience(30);  // after this, a wait has failed
constexpr unsigned int kLifeSeconds = 60;      // of a service, because a FIFO may block it

// What an attack achieved: four cells of the table.
struct Result {
    std::string page;
    std::string otherFile;  // that a planted link leads to
    std::string left;       // at the name of the temporary page
    std::string lines;

    std::string Shown() const
    {
        return page + " | " + otherFile + " | " + left + " | " + lines;
    }
};

// ---- The service

// A process that publishes one page as another user. It waits for a start, so that an object can be planted at a name
// with its process id.
class Service {
public:
    Service(uid_t user, const std::string& table, const std::string& page, bool isSafe)
    {
        int start[2];
        int lines[2];
        EXPECT_EQ(0, pipe2(start, O_CLOEXEC));
        EXPECT_EQ(0, pipe2(lines, O_CLOEXEC));
        start_ = start[1];
        lines_ = lines[0];
        pid_ = fork();
        if (pid_ == 0) {
            (void)close(start_);
            Be(user, table, page, isSafe, start[0], lines[1]);
        }
        (void)close(start[0]);
        (void)close(lines[1]);
    }

    ~Service()
    {
        if (!hasEnded_) {
            (void)kill(pid_, SIGKILL);
            (void)waitpid(pid_, nullptr, 0);
        }
        if (start_ != -1) {
            (void)close(start_);
        }
        (void)close(lines_);
    }

    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    pid_t Pid() const
    {
        return pid_;
    }

    // Returns the page that a reader of its FIFO at `name` gets, if it waits for one. Then it continues.
    std::optional<std::string> Run(const std::string& name);

    // After Run. One for each line of its log.
    std::vector<std::string> Lines() const;
    int Status() const
    {
        return status_;
    }

private:
    [[noreturn]] static void Be(uid_t user, const std::string& table, const std::string& page, bool isSafe, int start,
                                int lines);
    bool HasEnded();
    bool IsBlockedInOpen() const;

    pid_t pid_;
    int start_;
    int lines_;
    bool hasEnded_ = false;
    int status_ = -1;
};

void Service::Be(uid_t user, const std::string& table, const std::string& page, bool isSafe, int start, int lines)
{
    if (user != 0 && (setgroups(0, nullptr) != 0 || setgid(user) != 0 || setuid(user) != 0)) {
        _exit(2);
    }
    (void)alarm(kLifeSeconds);
    (void)TakeDlogCalls();
    char byte;
    (void)!read(start, &byte, 1);
    bool isPublished = true;
    if (isSafe) {
        isPublished = orv_safe::PublishPage(table, page);
    } else {
        orv_fileutils::GenHtmlPagefromTextFile(table.c_str(), page.c_str());
    }
    std::string text;
    for (const DlogCall& line : TakeDlogCalls()) {
        text += "[" + std::to_string(line.severity) + "] " + line.sourceTag + ": " + line.text + "\n";
    }
    const bool isTold = write(lines, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    _exit(!isTold ? 2 : isPublished ? 0 : 1);
}

bool Service::HasEnded()
{
    int status = 0;
    if (!hasEnded_ && waitpid(pid_, &status, WNOHANG) == pid_) {
        hasEnded_ = true;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    return hasEnded_;
}

// Only the open of a FIFO waits.
bool Service::IsBlockedInOpen() const
{
    std::ifstream file("/proc/" + std::to_string(pid_) + "/syscall");
    std::string number;
    return file >> number && number == std::to_string(SYS_openat);
}

template <typename Condition>
void WaitUntil(const Condition& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "the condition did not become true in time";
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

std::optional<std::string> Service::Run(const std::string& name)
{
    std::optional<std::string> leaked;
    const bool isFifo = S_ISFIFO(StatusOf(name).st_mode);
    (void)close(start_);
    start_ = -1;
    WaitUntil([&] { return HasEnded() || (isFifo && IsBlockedInOpen()); });
    if (!hasEnded_ && isFifo) {
        leaked = ReadFile(name);
        WaitUntil([&] { return HasEnded(); });
    }
    return leaked;
}

std::vector<std::string> Service::Lines() const
{
    std::string text;
    char bytes[4096];
    for (ssize_t got; (got = read(lines_, bytes, sizeof bytes)) > 0;) {
        text.append(bytes, static_cast<std::size_t>(got));
    }
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

// ---- One attack

void WriteAs(uid_t owner, const std::string& path, const std::string& bytes)
{
    WriteFile(path, bytes);
    ASSERT_EQ(0, chmod(path.c_str(), 0644));
    ASSERT_EQ(0, chown(path.c_str(), owner, owner));
}

int WriteNew(const std::string& path, const std::string& bytes, mode_t mode)
{
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (file == -1) {
        return -1;
    }
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(file, bytes.data(), bytes.size()));
    EXPECT_EQ(0, fchmod(file, mode));
    return close(file);
}

// Returns what the system call returns that plants the object.
int Plant(const std::string& what, const std::string& name, const std::string& victim)
{
    if (what == "symbolic link") {
        return symlink(victim.c_str(), name.c_str());
    }
    if (what == "dangling symbolic link") {
        return symlink((victim + ".new").c_str(), name.c_str());
    }
    if (what.find("file, mode ") == 0) {
        return WriteNew(name, kPlanted, static_cast<mode_t>(std::stoul(what.substr(what.size() - 4), nullptr, 8)));
    }
    if (what == "hard link to a file of the service") {
        return link(victim.c_str(), name.c_str());
    }
    if (what == "hard link to its own file") {
        return WriteNew(kOwnFile, kPlanted, 0644) == 0 ? link(kOwnFile.c_str(), name.c_str()) : -1;
    }
    if (what == "FIFO") {
        return mkfifo(name.c_str(), 0600) == 0 ? chmod(name.c_str(), 0666) : -1;
    }
    return mkdir(name.c_str(), 0755);
}

// Plants with the rights of `planter`. Returns the errno of a failure, or 0.
int PlantAs(uid_t planter, const std::string& what, const std::string& name, const std::string& victim)
{
    EXPECT_TRUE(setegid(planter) == 0 && seteuid(planter) == 0);
    const int error = Plant(what, name, victim) == 0 ? 0 : errno;
    EXPECT_TRUE(seteuid(0) == 0 && setegid(0) == 0);
    return error;
}

struct Attack {
    std::string what;
    uid_t service;
    uid_t planter;
    std::string pageDirectory;
    bool isSafe;
    const std::string& newPage;  // that the service publishes if nobody interferes

    std::string Private() const  // also contains the page, if it is on the same file system
    {
        return kBuildDirectory + "/service";
    }
    std::string Victim() const
    {
        return Private() + "/victim";
    }
    std::string Page() const
    {
        return pageDirectory + "/service/page";
    }

    Result Make() const;

private:
    void Arrange() const;
    std::string OwnerOf(const std::string& path) const;
    std::string PageState() const;
    std::string OtherFileState() const;
    std::string Short(const std::string& line, const std::string& name) const;
    std::string Shortened(const std::vector<std::string>& lines, const std::string& name) const;
    void CheckNames(const std::string& name) const;
};

void RemoveAllIn(const std::string& directory)
{
    for (const std::string& name : NamesIn(directory)) {
        std::filesystem::remove_all(directory + "/" + name);
    }
}

void Attack::Arrange() const
{
    for (const std::string& directory : {kBuildDirectory, kOtherDirectory}) {
        RemoveAllIn(directory);
        const std::string ofService = directory + "/service";
        ASSERT_EQ(0, mkdir(ofService.c_str(), 0755));
        ASSERT_EQ(0, chown(ofService.c_str(), service, service));
    }
    WriteAs(service, Private() + "/table", kTable);
    WriteAs(service, Victim(), kVictim);
    WriteAs(service, Page(), kOldPage);
}

std::string Attack::OwnerOf(const std::string& path) const
{
    const uid_t owner = StatusOf(path).st_uid;
    return owner == service ? "service" : owner == planter ? "planter" : std::to_string(owner);
}

std::string Attack::PageState() const
{
    const mode_t type = StatusOf(Page()).st_mode & S_IFMT;
    if (type == S_IFLNK) {
        const std::string target = std::filesystem::read_symlink(Page());
        EXPECT_TRUE(target == Victim() || target == Victim() + ".new") << target;
        return "link to the other file, owner " + OwnerOf(Page());
    }
    const std::string content = ReadFile(Page());
    if (content == kOldPage) {
        return "old";
    }
    const std::map<std::string, std::string> kinds = {{newPage, "new"}, {kPlanted, "**planted**"}, {"", "empty"}};
    const auto kind = kinds.find(content);
    return (kind == kinds.end() ? "partial" : kind->second) + ", owner " + OwnerOf(Page()) +
           (StatusOf(Page()).st_nlink > 1 ? ", with a second name" : "");
}

// Describes the file that a link leads to.
std::string Attack::OtherFileState() const
{
    const auto state = [](const std::map<std::string, std::string>& states, const std::string& path) {
        const auto found = states.find(ReadFile(path));
        return found == states.end() ? "damaged" : found->second;
    };
    if (what == "symbolic link" || what == "hard link to a file of the service") {
        return state({{kVictim, "kept"}, {newPage, "**overwritten**"}, {"", "emptied"}}, Victim());
    }
    if (what == "dangling symbolic link") {
        const std::string created = Victim() + ".new";
        return Exists(created) ? state({{newPage, "**created**"}, {"", "created empty"}}, created) : "none";
    }
    if (what == "hard link to its own file") {
        return state({{kPlanted, "kept"}, {newPage, "overwritten"}}, kOwnFile);
    }
    return "-";
}

// Returns a line of the service in the form of the table.
std::string Attack::Short(const std::string& line, const std::string& name) const
{
    constexpr int kMostErrors = 133;
    const std::string start = "[" + std::to_string(messages::kSeverity) + "] " + messages::kSource + ": ";
    std::map<std::string, std::string> forms = {{start + messages::kPageMove(name, Page()).text, "move"}};
    for (const char* const type : {"1000", "2000", "4000", "6000", "a000", "c000"}) {
        forms[start + messages::kRenameNotRegular(name, type).text] = std::string("type 0x") + type;
    }
    for (int error = 0; error <= kMostErrors; ++error) {
        const std::string number = std::to_string(error);
        forms[start + messages::kRenameStat(name, error).text] = "stat " + number;
        forms[start + messages::kRenameRename(name, Page(), error).text] = "rename " + number;
        forms[start + messages::kRenameOpen(name, error).text] = "open " + number;
        forms[start + messages::kRenameUnlink(name, error).text] = "unlink " + number;
    }
    forms["[3] orv_safe: PublishPage: open(" + name + ") failed (17, File exists)."] = "refused";
    const auto form = forms.find(line);
    return form == forms.end() ? "'" + line + "'" : form->second;
}

std::string Attack::Shortened(const std::vector<std::string>& lines, const std::string& name) const
{
    std::string all;
    for (const std::string& line : lines) {
        all += (all.empty() ? "" : "; ") + Short(line, name);
    }
    return all.empty() ? "none" : all;
}

// Nothing else was made or removed.
void Attack::CheckNames(const std::string& name) const
{
    const auto check = [](const std::string& directory, const std::vector<std::string>& allowed) {
        for (const std::string& found : NamesIn(directory)) {
            EXPECT_EQ(1, std::count(allowed.begin(), allowed.end(), found)) << directory << "/" << found;
        }
    };
    check(kBuildDirectory, {"service", name.substr(kBuildDirectory.size() + 1),
                            what == "hard link to its own file" ? kOwnFile.substr(kBuildDirectory.size() + 1) : ""});
    check(kBuildDirectory + "/service", {"table", "victim", "victim.new", "page"});
    check(kOtherDirectory + "/service", {"page"});
}

Result Attack::Make() const
{
    Arrange();
    Service process(service, Private() + "/table", Page(), isSafe);
    const std::string name = oracle::TemporaryPage(process.Pid());
    const int error = PlantAs(planter, what, name, Victim());
    if (error != 0) {
        return {"cannot be planted", "errno " + std::to_string(error), "-", "-"};
    }
    const ino_t planted = StatusOf(name).st_ino;
    const std::optional<std::string> leaked = process.Run(name);

    EXPECT_TRUE(process.Status() == 0 || (isSafe && process.Status() == 1)) << process.Status();
    EXPECT_EQ(newPage, leaked.value_or(newPage));
    EXPECT_TRUE(!Exists(name) || StatusOf(name).st_ino == planted);
    CheckNames(name);
    Result result = {PageState(), OtherFileState(), Exists(name) ? "the object" : "nothing",
                     Shortened(process.Lines(), name)};
    EXPECT_TRUE(!isSafe || (process.Status() == 0) == (result.page.find("new") == 0)) << result.Shown();
    if (leaked) {
        result.page += "; **waits for a reader, who gets the page**";
    }
    return result;
}

// ---- The table

using Case = std::tuple<std::string, std::string, std::string, int>;  // object, service, place, value of its setting

std::string Shown(const Case& which)
{
    const auto& [what, service, place, value] = which;
    return what + ", " + service + ", " + place + ", " + std::to_string(value);
}

std::vector<std::string> Split(const std::string& text, const std::string& delimiter)
{
    std::vector<std::string> parts;
    std::size_t begin = 0;
    for (std::size_t end; (end = text.find(delimiter, begin)) != std::string::npos; begin = end + delimiter.size()) {
        parts.push_back(text.substr(begin, end - begin));
    }
    parts.push_back(text.substr(begin));
    return parts;
}

// The values in a cell "any" or "protected_NAME = 0 or 1" of the table; -1 if no setting matters.
std::vector<int> ValuesIn(const std::string& cell, const std::string& setting)
{
    std::vector<int> values;
    const std::string prefix = "protected_" + setting + " = ";
    if (setting.empty()) {
        EXPECT_EQ("any", cell);
        return {-1};
    }
    if (cell != "any") {
        EXPECT_EQ(prefix, cell.substr(0, prefix.size()));
        for (const std::string& number : Split(cell.substr(prefix.size()), " or ")) {
            values.push_back(std::stoi(number));
        }
        return values;
    }
    for (const kernel::Setting& known : kernel::kSettings) {
        for (int value = 0; setting == known.name && value < known.values; ++value) {
            values.push_back(value);
        }
    }
    return values;
}

template <typename Value>
std::vector<std::string> OneOrAll(const std::string& cell, const std::map<std::string, Value>& all)
{
    std::vector<std::string> names;
    for (const auto& [name, value] : all) {
        if (cell == "any" || cell == name) {
            names.push_back(name);
        }
    }
    EXPECT_FALSE(names.empty()) << cell;
    return names;
}

// Returns the results that the document promises.
std::map<Case, std::string> ReadTable()
{
    std::map<Case, std::string> expected;
    std::ifstream document(ORV_SECURITY_DOCUMENT);
    for (std::string line; std::getline(document, line);) {
        for (const Object& object : kObjects) {
            const std::string start = "| " + object.name + " | ";
            if (line.find(start) != 0) {
                continue;
            }
            const std::vector<std::string> cells = Split(line.substr(2, line.size() - 4), " | ");
            EXPECT_EQ(8U, cells.size()) << line;
            const std::string result = Result{cells.at(4), cells.at(5), cells.at(6), cells.at(7)}.Shown();
            for (const int value : ValuesIn(cells[1], object.setting)) {
                for (const std::string& service : OneOrAll(cells[2], kServices)) {
                    for (const std::string& place : OneOrAll(cells[3], kPlaces)) {
                        EXPECT_TRUE(expected.emplace(Case{object.name, service, place, value}, result).second) << line;
                    }
                }
            }
        }
    }
    return expected;
}

// ---- The campaign

class PlantedPageTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (geteuid() != 0) {
            ORV_SKIP("not root");
        }
        if (!CanMount([] { return kernel::CanWrite(); })) {
            ORV_SKIP("no private mounts, or the kernel's settings cannot be written");
        }
    }

    // Runs `body` with private /var/tmp and /dev/shm: both are sticky and writable for all, on two file systems.
    void Run(const std::function<void()>& body)
    {
        RunWithPrivateMounts([&] {
            for (const std::string& path : {kBuildDirectory, kOtherDirectory}) {
                ASSERT_EQ(0, mount("none", path.c_str(), "tmpfs", 0, "mode=1777,size=1m")) << path;
            }
            const ScopedMask mask(0022);
            const kernel::SavedSettings settings;
            newPage_ = MakePage(0);
            body();
            (void)std::fflush(stdout);
        });
    }

    // Returns what the service publishes if nobody interferes.
    std::string MakePage(uid_t user)
    {
        WriteAs(user, kBuildDirectory + "/table", kTable);
        Service process(user, kBuildDirectory + "/table", kBuildDirectory + "/page", /*isSafe=*/false);
        const std::string name = kBuildDirectory + "/table";  // not a FIFO
        EXPECT_FALSE(process.Run(name));
        EXPECT_EQ(0, process.Status());
        EXPECT_EQ(std::vector<std::string>{}, process.Lines());
        const std::string page = ReadFile(kBuildDirectory + "/page");
        EXPECT_EQ(oracle::Page(kTable), page);
        return page;
    }

    // Makes all attacks, and calls `check` after each.
    void AttackEverywhere(bool isSafe,
                          const std::function<void(const Case&, const Result&, const std::string& when)>& check)
    {
        for (const Object& object : kObjects) {
            for (const kernel::Settings& settings :
                 kernel::Combinations(object.setting, std::getenv("ORV_FULL") != nullptr)) {
                kernel::Write(settings);
                for (const auto& [service, user] : kServices) {
                    for (const uid_t planter : kPlanters) {
                        for (const auto& [place, directory] : kPlaces) {
                            const int value = object.setting.empty() ? -1 : settings.at(object.setting);
                            check(Case{object.name, service, place, value},
                                  Attack{object.name, user, planter, directory, isSafe, newPage_}.Make(),
                                  ::testing::PrintToString(settings) + ", planter " + std::to_string(planter));
                            ++attacks_;
                        }
                    }
                }
            }
        }
    }

    std::string newPage_;
    int attacks_ = 0;
};

using SecurityOfThePageTest = PlantedPageTest;

TEST_F(SecurityOfThePageTest, EveryAttackAchievesWhatTheTableOfTheDocumentSays)
{
    Run([this] {
        const std::map<Case, std::string> expected = ReadTable();
        std::map<Case, int> measured;
        AttackEverywhere(false, [&](const Case& which, const Result& result, const std::string& when) {
            const auto promised = expected.find(which);
            EXPECT_EQ(promised == expected.end() ? "not in the document" : promised->second, result.Shown())
                << Shown(which) << "; " << when;
            ++measured[which];
        });
        EXPECT_EQ(expected.size(), measured.size()) << "the document has cases that were not measured";
        std::printf("security: %zu cases of the document, %d attacks\n", measured.size(), attacks_);
    });
}

TEST_F(SecurityOfThePageTest, NobodyCanPlantAnythingInAPrivateBuildDirectory)
{
    Run([this] {
        kernel::Settings off;
        for (const kernel::Setting& setting : kernel::kSettings) {
            off[setting.name] = 0;
        }
        kernel::Write(off);
        for (const auto& [service, user] : kServices) {
            for (const uid_t planter : kPlanters) {
                for (const Object& object : kObjects) {
                    RemoveAllIn(kBuildDirectory);
                    ASSERT_EQ(0, chown(kBuildDirectory.c_str(), user, user));
                    ASSERT_EQ(0, chmod(kBuildDirectory.c_str(), 0700));
                    WriteAs(user, kBuildDirectory + "/victim", kVictim);

                    EXPECT_EQ(EACCES,
                              PlantAs(planter, object.name, kBuildDirectory + "/planted", kBuildDirectory + "/victim"))
                        << object.name << ", " << service;

                    EXPECT_EQ(std::vector<std::string>{"victim"}, NamesIn(kBuildDirectory));
                    EXPECT_EQ(newPage_, MakePage(user));
                }
            }
        }
    });
}

// The result of an attack on the safe companion.
Result ExpectedOfTheSafePage(const std::string& what)
{
    if (what == "hard link to a file of the service") {  // by its status, it may be left by a killed process
        return {"new, owner service", "kept", "nothing", "none"};
    }
    const std::map<std::string, std::string> others = {
        {"symbolic link", "kept"}, {"dangling symbolic link", "none"}, {"hard link to its own file", "kept"}};
    const auto other = others.find(what);
    return {"old", other == others.end() ? "-" : other->second, "the object", "refused"};
}

using SecurityOfTheSafePageTest = PlantedPageTest;

TEST_F(SecurityOfTheSafePageTest, NoAttackAchievesAnything)
{
    Run([this] {
        int refusals = 0;
        AttackEverywhere(true, [&](const Case& which, const Result& result, const std::string& when) {
            const std::string& what = std::get<0>(which);
            const bool isImpossible = what == "hard link to a file of the service" && std::get<3>(which) == 1;
            EXPECT_EQ(isImpossible ? "cannot be planted | errno 1 | - | -" : ExpectedOfTheSafePage(what).Shown(),
                      result.Shown())
                << Shown(which) << "; " << when;
            refusals += result.lines == "refused" ? 1 : 0;
        });
        EXPECT_LT(0, refusals);
        std::printf("security: %d attacks on the safe companion, %d refused with a line\n", attacks_, refusals);
    });
}

}  // namespace
