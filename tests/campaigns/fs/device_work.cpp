// Does what programs of the device do, on a disk whose power will be cut: a log mover, a publisher of pages, a writer
// of settings, and a copier. board/power_cuts.py starts it on the emulated board, and judges what is left.
//
// Usage: orv_device_work FILE-SYSTEM DISK ROUNDS
//
// The first partition of DISK becomes /var/tmp, the second one /media; with ubifs, these are two volumes that it makes
// on the first flash of the board. Each round calls every job once, in random order: with the library, with the durable
// companion, and with the companion without its flushes. Call N of job J makes the file "J.N", or replaces the file
// "J". What it moves or copies is /var/tmp/J.N, which was flushed. Its content tells both numbers. Directly before and
// after each call, both are written to a sector of the disk, in front of the partitions: as a text "orv BEGUN ENDED",
// with the numbers of the last call that has begun and of the last that ended.
//
// Output: a line "KIND <tab> new or replaced <tab> WAY" for each job; at last a page, with "@" for the content. A call
// that fails ends the program.

#include "LxFileUtils.h"
#include "dlog.h"
#include "safe.h"

#include <fcntl.h>
#include <linux/blkpg.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

void __dlog_printf(int /*severity*/, const char* sourceTag, const char* format, ...)
{
    std::cerr << sourceTag << " reported a failure: " << format << std::endl;
    std::_Exit(1);
}

namespace {

const off_t kMarks = 4096;
const std::size_t kSectorBytes = 512;
const int kKeptCalls = 3;  // of which the new files are left
const unsigned int kPauseSeconds = 2;
const std::string kNear = "/var/tmp/";
const std::string kFar = "/media/";
const std::string kText = "/tmp/text";  // not on the disk

void Require(bool succeeded, const std::string& what)
{
    if (!succeeded) {
        std::cerr << what << ": " << std::strerror(errno) << std::endl;
        std::_Exit(1);
    }
}

void Write(const std::string& path, const std::string& content)
{
    std::ofstream file(path);
    file << content << std::flush;
    Require(file.good(), path);
}

// ---- Jobs

struct Call {
    std::string source;
    std::string destination;
    std::string content;
};

using Calling = std::function<bool(const Call&)>;

struct Job {
    std::string kind;
    bool isReplaced;
    std::string way;
    std::string directory;  // of the destination
    Calling call;
};

bool HasSource(const Job& job)
{
    return job.kind == "move" || job.kind == "copy";
}

Calling Publishing(bool durable)
{
    return [durable](const Call& call) {
        orv_safe::PageOptions options;
        options.durable = durable;
        return orv_safe::PublishPage(kText, call.destination, options);
    };
}

Calling WritingSettings(bool durable)
{
    return [durable](const Call& call) {
        orv_safe::SettingsOptions options;
        options.durable = durable;
        return orv_safe::WriteSettings(call.destination, {{"mode", call.content}}, '=', "#", options);
    };
}

// The library only reads settings: a program writes a new file, and moves it onto the old one.
bool WriteSettingsBeside(const Call& call)
{
    std::map<std::string, std::string> settings;
    if (orv_fileutils::FileExists(call.destination.c_str())) {
        Require(orv_fileutils::ReadNameValueFromFile(call.destination, settings, '=', "#"), call.destination);
    }
    settings["mode"] = call.content;
    std::string text;
    for (const auto& entry : settings) {
        text += entry.first + "=" + entry.second + "\n";
    }
    Write(call.destination + ".new", text);
    return orv_fileutils::RenameFileAcrossFs(call.destination + ".new", call.destination);
}

bool Publish(const Call& call)
{
    orv_fileutils::GenHtmlPagefromTextFile(kText.c_str(), call.destination.c_str());
    return true;
}

template <bool Function(const std::string&, const std::string&, const orv_safe::FileOptions&)>
Calling Safely(bool durable)
{
    return [durable](const Call& call) {
        orv_safe::FileOptions options;
        options.durable = durable;
        return Function(call.source, call.destination, options);
    };
}

bool Move(const Call& call)
{
    return orv_fileutils::RenameFileAcrossFs(call.source, call.destination);
}

bool Copy(const Call& call)
{
    return orv_fileutils::CopyFile(call.source, call.destination) == 0;
}

std::vector<Job> Jobs()
{
    struct Kind {
        const char* name;
        const std::string& directory;
        Calling library;
        Calling (*companion)(bool durable);
    };
    const Kind kinds[] = {
        {"move", kFar, Move, Safely<orv_safe::MoveFile>},
        {"copy", kFar, Copy, Safely<orv_safe::CopyFile>},
        {"page", kNear, Publish, Publishing},
        {"page to another file system", kFar, Publish, Publishing},
        {"settings", kFar, WriteSettingsBeside, WritingSettings},
    };
    std::vector<Job> jobs;
    for (const Kind& kind : kinds) {
        for (const bool isReplaced : {false, true}) {
            jobs.push_back({kind.name, isReplaced, "library", kind.directory, kind.library});
            jobs.push_back({kind.name, isReplaced, "durable", kind.directory, kind.companion(true)});
            jobs.push_back({kind.name, isReplaced, "control", kind.directory, kind.companion(false)});
        }
    }
    return jobs;
}

// ---- One call

// The size differs from call to call. No block of it is like another one.
std::string Content(std::size_t job, int number)
{
    std::ostringstream unit;
    unit << std::setfill('0') << std::setw(2) << job << '-' << std::setw(6) << number << '/';
    std::string content;
    for (int i = 0; i < 1500 + number % 10 * 100; ++i) {
        content += unit.str();
    }
    return content;
}

std::string Name(std::size_t job, int number)
{
    return std::to_string(job) + "." + std::to_string(number);
}

class Disk {
public:
    explicit Disk(const std::string& path) : descriptor_(open(path.c_str(), O_WRONLY | O_DIRECT | O_CLOEXEC))
    {
        Require(descriptor_ != -1, path);
    }

    void Mark(std::size_t job, int begun, int ended) const
    {
        alignas(4096) char sector[kSectorBytes] = {};
        (void)std::snprintf(sector, sizeof sector, "orv %d %d\n", begun, ended);
        const off_t place = kMarks + static_cast<off_t>(job * sizeof sector);
        Require(pwrite(descriptor_, sector, sizeof sector, place) == sizeof sector, "mark");
    }

private:
    int descriptor_;
};

void Prepare(const std::vector<Job>& jobs, int number)
{
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        const std::string old = Name(i, number - kKeptCalls - 1);
        (void)unlink((kNear + old).c_str());
        (void)unlink((kFar + old).c_str());
        if (HasSource(jobs[i])) {
            Write(kNear + Name(i, number), Content(i, number));
        }
    }
    const int directory = open(kNear.c_str(), O_RDONLY | O_CLOEXEC);
    Require(directory != -1 && syncfs(directory) == 0 && close(directory) == 0, "syncfs");
}

void RunJob(const Disk& disk, const Job& job, std::size_t index, int number)
{
    const Call call = {kNear + Name(index, number),
                       job.directory + (job.isReplaced ? std::to_string(index) : Name(index, number)),
                       Content(index, number)};
    Write(kText, "Log:" + call.content + "\n");
    disk.Mark(index, number, number - 1);
    Require(job.call(call), job.kind + " " + job.way);
    disk.Mark(index, number, number);
}

// ---- All of them

// Otherwise nothing is written for half a minute, unless somebody flushes it.
void WriteEarly()
{
    Write("/proc/sys/vm/dirty_expire_centisecs", "200");
    Write("/proc/sys/vm/dirty_writeback_centisecs", "100");
}

void Mount(const std::string& partition, const std::string& path, const std::string& type)
{
    const std::map<std::string, const char*> options = {
        {"ext4", "commit=1"}, {"btrfs", "commit=1"}, {"xfs", ""}, {"ubifs", "compr=none"}};
    (void)mkdir(path.c_str(), 0755);
    Require(mount(partition.c_str(), path.c_str(), type.c_str(), 0, options.at(type)) == 0, partition);
}

// UBI takes only a partition of a NOR flash, because the whole could have blocks of several sizes.
void MakeVolumes()
{
    const int flash = open("/dev/mtd0", O_RDWR | O_CLOEXEC);
    struct mtd_info_user info = {};
    Require(flash != -1 && ioctl(flash, MEMGETINFO, &info) == 0 && info.type == MTD_NORFLASH, "flash");
    struct blkpg_partition partition = {0, info.size, 0, "volumes", ""};
    struct blkpg_ioctl_arg argument = {BLKPG_ADD_PARTITION, 0, sizeof partition, &partition};
    Require(ioctl(flash, BLKPG, &argument) == 0, "partition");
    const char* const commands =
        "ubiattach -m $(grep volumes /proc/mtd | sed 's/^mtd//; s/:.*//') /dev/ubi_ctrl &&"
        "ubimkvol /dev/ubi0 -N source -s 14MiB && ubimkvol /dev/ubi0 -N destination -m";
    Require(std::system((std::string("{ ") + commands + "; } >/dev/null").c_str()) == 0, commands);
}

void Describe(const std::vector<Job>& jobs)
{
    for (const Job& job : jobs) {
        std::cout << job.kind << '\t' << (job.isReplaced ? "replaced" : "new") << '\t' << job.way << '\n';
    }
    Write(kText, "Log:@\n");
    Require(Publish({"", "/tmp/page", ""}), "page");
    std::ifstream page("/tmp/page");
    std::cout << std::string(std::istreambuf_iterator<char>(page), {}) << std::flush;
}

}  // namespace

int main(int, char** arguments)
{
    const std::string type = arguments[1];
    const std::string device = arguments[2];
    const int rounds = std::stoi(arguments[3]);
    const std::vector<Job> jobs = Jobs();
    Describe(jobs);
    WriteEarly();
    if (type == "ubifs") {
        MakeVolumes();
        Mount("ubi0:source", kNear, type);
        Mount("ubi0:destination", kFar, type);
    } else {
        Mount(device + "1", kNear, type);
        Mount(device + "2", kFar, type);
    }
    const Disk disk(device);
    std::vector<std::size_t> order(jobs.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        order[i] = i;
    }
    std::mt19937 random;
    for (int number = 1; number <= rounds; ++number) {
        Prepare(jobs, number);
        std::shuffle(order.begin(), order.end(), random);
        for (const std::size_t job : order) {
            RunJob(disk, jobs[job], job, number);
        }
        sleep(kPauseSeconds);
    }
}
