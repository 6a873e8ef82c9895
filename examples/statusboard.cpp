// Publishes a status page of this machine: an HTML page with tables of load, file systems, network interfaces and the
// files of one directory. Browsers reload it every 10 seconds. statusboard.conf explains the settings.
// Exit status: 0 if the page was published, or if SIGINT or SIGTERM ended --watch; 1 after a failure, which also ends
// --watch; 2 after wrong usage.

#include <LxFileUtils.h>
#include <orv/safe.h>

#include <getopt.h>
#include <ifaddrs.h>
#include <mntent.h>
#include <net/if.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>

namespace {

using orv_safe::Cell;
using orv_safe::SafeMarkupRow;
using orv_safe::SafeRow;

typedef std::map<std::string, std::string> Settings;

void Require(bool condition, const std::string& message)
{
    if (!condition) {
        throw std::runtime_error(message);
    }
}

// The look of the page. A table file ends a row at a semicolon and a cell at a comma, so each rule has one declaration.
// The page has no document type where browsers look for it, and tables then inherit no font size: td sets it.
// A content security policy names the hash of this style: see docs/security.md.
const char kLook[] =
    "<meta name=\"viewport\" content=\"width=device-width\">"
    "<style>"
    ":root{color-scheme:light dark}"
    "body{font-family:sans-serif}"
    "body{max-width:45rem}"
    "body{margin:1rem auto}"
    "table{border:0}"
    "table{border-collapse:collapse}"
    "table{width:100%}"
    "td{border:0}"
    "td{border-bottom:1px solid #8886}"
    "td{font-size:1rem}"
    "td{line-height:1.5}"
    "td{overflow-wrap:anywhere}"
    "td{padding:.2rem .6rem}"
    "td:last-child{text-align:right}"
    "td:nth-child(n+3){text-align:right}"
    "td:nth-child(n+3){white-space:nowrap}"
    "table:last-of-type td:last-child{white-space:nowrap}"
    "tr:first-child td{border-bottom:2px solid #888}"
    "tr:first-child td{font-weight:bold}"
    "table:first-of-type tr:first-child td{font-size:1.5rem}"
    "meter{width:4rem}"
    ".up{color:#0a6b2d}"
    ".down{color:#b3140c}"
    "@media screen and (prefers-color-scheme:dark){.up{color:#7ddc95}.down{color:#ff9b94}}"
    "@media(max-width:30rem){td{font-size:.8rem}td{padding:.2rem .3rem}meter{width:1.5rem}}"
    "@media print{:root{color-scheme:light}body{max-width:none}meter{display:none}}"
    "</style>";

Cell State(bool isUp)
{
    return Cell().Markup(isUp ? "<b class=\"up\">up</b>" : "<b class=\"down\">down</b>");
}

// How full a file system is: as a bar that changes its colour, and as a number.
Cell Use(const std::string& mountPoint, int percent)
{
    const std::string number = std::to_string(percent);
    return Cell()
        .Markup("<meter max=\"100\" low=\"80\" high=\"90\" optimum=\"0\" value=\"" + number + "\" aria-label=\"Use of ")
        .Text(mountPoint)
        .Markup("\"></meter> " + number + " %");
}

// A size with at most three digits before the point. A file system may claim more bytes than an integer can count.
std::string Size(double bytes)
{
    static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB", "ZiB", "YiB"};
    std::size_t unit = 0;
    while (bytes >= 999.95 && unit < 8) {
        bytes /= 1024;
        ++unit;
    }
    std::ostringstream text;
    text << std::fixed << std::setprecision(unit == 0 ? 0 : 1) << bytes << ' ' << kUnits[unit];
    return text.str();
}

std::string TitleTable(const std::string& title)
{
    struct utsname self = {};
    (void)uname(&self);
    char now[64] = {};
    const std::time_t seconds = std::time(nullptr);
    (void)std::strftime(now, sizeof now, "%Y-%m-%d %H:%M:%S %Z", std::localtime(&seconds));
    const Cell look = Cell().Markup("<title>").Text(title).Markup("</title>").Markup(kLook);
    return SafeMarkupRow({title, look}) + SafeRow({"Host", self.nodename}) + SafeRow({"Time", now});
}

std::string SystemTable()
{
    std::string one, five, fifteen;
    std::ifstream("/proc/loadavg") >> one >> five >> fifteen;
    long uptime = 0;  // in whole seconds; the fraction is not read
    std::ifstream("/proc/uptime") >> uptime;
    return SafeRow({"System", ""}) + SafeRow({"Load over 1, 5 and 15 minutes", one + " " + five + " " + fifteen}) +
           SafeRow(
               {"Uptime", std::to_string(uptime / 86400) + " days, " + std::to_string(uptime / 3600 % 24) + " hours"});
}

std::string FileSystemRow(const struct mntent& mount, const struct statvfs& space)
{
    const double blockBytes = static_cast<double>(space.f_frsize);
    const double blocks = static_cast<double>(space.f_blocks);
    const double used = blocks - std::min(blocks, static_cast<double>(space.f_bfree));
    return SafeMarkupRow({mount.mnt_dir, mount.mnt_type, Size(blocks * blockBytes), Size(used * blockBytes),
                          Use(mount.mnt_dir, static_cast<int>(100 * used / blocks))});
}

// Shows a device once, even if it is mounted twice. Skips file systems without blocks (proc, sysfs), and those whose
// status cannot be read.
std::string FileSystemTable()
{
    std::string table = SafeRow({"File system", "Type", "Size", "Used", "Use"});
    std::set<dev_t> seen;
    std::FILE* const mounts = setmntent("/proc/mounts", "r");
    while (const struct mntent* const mount = mounts ? getmntent(mounts) : nullptr) {
        struct statvfs space;
        struct stat root;
        if (statvfs(mount->mnt_dir, &space) == 0 && space.f_blocks != 0 && stat(mount->mnt_dir, &root) == 0 &&
            seen.insert(root.st_dev).second) {
            table += FileSystemRow(*mount, space);
        }
    }
    (void)endmntent(mounts);
    return table;
}

std::string InterfaceTable()
{
    std::string table = SafeRow({"Network interface", "State"});
    std::set<std::string> seen;  // getifaddrs lists an interface once for each address
    struct ifaddrs* all = nullptr;
    for (const struct ifaddrs* one = getifaddrs(&all) == 0 ? all : nullptr; one; one = one->ifa_next) {
        if (seen.insert(one->ifa_name).second) {
            table += SafeMarkupRow({one->ifa_name, State((one->ifa_flags & IFF_RUNNING) != 0)});
        }
    }
    freeifaddrs(all);
    return table;
}

std::string FilesTable(const Settings& settings)
{
    const std::string& directory = settings.at("directory");
    orv_safe::ListOptions options;
    options.status = true;
    std::vector<orv_safe::ListedFile> files;
    Require(orv_safe::ListFiles(directory, settings.at("include"), settings.at("exclude"), files, options),
            "cannot list the directory '" + directory + "'");
    std::string table = SafeRow({"Files in " + directory, "Size"});
    for (const orv_safe::ListedFile& file : files) {
        table += SafeRow({file.name, Size(static_cast<double>(file.bytes))});
    }
    return table;
}

void WriteTables(const Settings& settings, const std::string& path)
{
    const std::string end = orv_fileutils::TextFileTableDelimter();  // of a table; on its own, a spacer
    const std::string text = TitleTable(settings.at("title")) + end + end + SystemTable() + end + end +
                             FileSystemTable() + end + end + InterfaceTable() + end + end + FilesTable(settings) + end;
    std::ofstream file(path.c_str());
    file << text;
    file.close();
    Require(file.good(), "cannot write '" + path + "': " + std::strerror(errno));
}

// Readers see old tables and pages or complete new ones, and a failure leaves the old ones. Nothing is flushed: the
// next page replaces what a power cut loses, and a flush every few seconds would wear out flash memory.
void Publish(const Settings& settings)
{
    const std::string& page = settings.at("page");
    const std::string above = page.substr(0, page.rfind('/') + 1);  // empty: the current directory
    Require(above.empty() || orv_safe::MakeDirectory(above, 0755), "cannot make the directory '" + above + "'");
    const std::string newTables = page + ".txt.new";
    // Removed now, because an interrupted run may have left it, and at the end, because a failure leaves it.
    (void)unlink(newTables.c_str());
    const std::unique_ptr<const char, int (*)(const char*)> leftover(newTables.c_str(), unlink);
    WriteTables(settings, newTables);
    orv_safe::FileOptions options;
    options.durable = false;
    Require(orv_safe::PublishPage(newTables, page) && orv_safe::MoveFile(newTables, page + ".txt", options),
            "cannot publish '" + page + "'");
}

Settings ReadSettings(const std::string& path, const char* page)
{
    Settings settings = {{"include", ""}, {"exclude", ""}};
    Require(orv_safe::ReadSettings(path, settings), "cannot read '" + path + "'");
    settings["page"] = page ? page : settings["page"];
    for (const char* const name : {"title", "directory", "page", "period"}) {
        Require(!settings[name].empty(), path + ": missing setting '" + name + "'");
    }
    const std::string& period = settings["period"];
    Require(period.size() <= 5 && period.find_first_not_of("0123456789") == std::string::npos && std::stol(period) > 0,
            path + ": bad period '" + period + "': use a number of seconds from 1 to 99999");
    return settings;
}

}  // namespace

int main(int argc, char** argv)
{
    const char* page = nullptr;
    bool watch = false;
    const struct option options[] = {
        {"page", required_argument, nullptr, 'p'}, {"watch", no_argument, nullptr, 'w'}, {}};
    int option;
    while ((option = getopt_long(argc, argv, "", options, nullptr)) == 'p' || option == 'w') {
        page = option == 'p' ? optarg : page;
        watch = watch || option == 'w';
    }
    if (option != -1 || optind + 1 != argc) {
        std::cerr << "Usage: statusboard [--watch] [--page PATH] SETTINGS_FILE\n";
        return 2;
    }
    try {
        const Settings settings = ReadSettings(argv[optind], page);
        struct timespec period = {};
        period.tv_sec = std::stol(settings.at("period"));
        sigset_t stop;
        (void)sigemptyset(&stop);
        (void)sigaddset(&stop, SIGINT);
        (void)sigaddset(&stop, SIGTERM);
        if (watch) {  // so that these signals only end the wait between two pages
            (void)sigprocmask(SIG_BLOCK, &stop, nullptr);
        }
        do {
            Publish(settings);
        } while (watch && sigtimedwait(&stop, nullptr, &period) < 0);
    } catch (const std::exception& failure) {
        std::cerr << "statusboard: " << failure.what() << std::endl;
        return 1;
    }
}
