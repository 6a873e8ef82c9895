#include "campaigns/security/kernel_settings.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "support/orv_test.h"

namespace kernel {
namespace {

std::string PathOf(const std::string& name)
{
    return "/proc/sys/fs/protected_" + name;
}

bool WriteOne(const std::string& name, int value)
{
    std::ofstream file(PathOf(name));
    file << value << std::flush;
    return file.good();
}

Settings Read()
{
    Settings settings;
    for (const Setting& setting : kSettings) {
        std::ifstream file(PathOf(setting.name));
        file >> settings[setting.name];
        EXPECT_TRUE(file.good() || file.eof()) << setting.name;
    }
    return settings;
}

// All combinations of the values of all settings.
std::vector<Settings> Everything()
{
    std::vector<Settings> all = {{}};
    for (const Setting& setting : kSettings) {
        std::vector<Settings> longer;
        for (Settings settings : all) {
            for (int value = 0; value < setting.values; ++value) {
                settings[setting.name] = value;
                longer.push_back(settings);
            }
        }
        all = longer;
    }
    return all;
}

}  // namespace

std::vector<Settings> Combinations(const std::string& name, bool all)
{
    if (all) {
        return Everything();
    }
    Settings off;
    Settings on;
    int values = 1;
    for (const Setting& setting : kSettings) {
        off[setting.name] = 0;
        on[setting.name] = setting.values - 1;
        values = setting.name == name ? setting.values : values;
    }
    std::vector<Settings> combinations;
    for (Settings settings : {off, on}) {
        for (int value = 0; value < values; ++value) {
            if (!name.empty()) {
                settings[name] = value;
            }
            combinations.push_back(settings);
        }
    }
    return combinations;
}

bool CanWrite()
{
    for (const auto& [name, value] : Read()) {
        if (!WriteOne(name, value)) {
            return false;
        }
    }
    return true;
}

void Write(const Settings& settings)
{
    for (const auto& [name, value] : settings) {
        ASSERT_TRUE(WriteOne(name, value)) << name << " = " << value;
    }
}

SavedSettings::SavedSettings() : lock_(open(PathOf("symlinks").c_str(), O_RDONLY | O_CLOEXEC))
{
    EXPECT_EQ(0, flock(lock_, LOCK_EX));
    saved_ = Read();
    int alive[2];
    int done[2];
    EXPECT_EQ(0, pipe2(alive, O_CLOEXEC));
    EXPECT_EQ(0, pipe2(done, O_CLOEXEC));
    alive_ = alive[1];
    done_ = done[0];
    const pid_t child = fork();
    if (child == 0) {
        Guard(alive[0], done[1]);
    }
    (void)close(alive[0]);
    (void)close(done[1]);
    EXPECT_EQ(child, waitpid(child, nullptr, 0));
}

// In a session of its own, it outlives what ends the test.
void SavedSettings::Guard(int guarded, int done) const
{
    (void)close(alive_);
    (void)close(done_);
    (void)setsid();
    for (const int number : {SIGHUP, SIGINT, SIGTERM}) {
        (void)std::signal(number, SIG_IGN);
    }
    if (fork() == 0) {
        const int null = open("/dev/null", O_RDWR);
        for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {  // nobody waits for its output
            (void)dup2(null, descriptor);
        }
        char byte;
        (void)!read(guarded, &byte, 1);
        Write(saved_);
        (void)!write(done, "!", 1);
    }
    _exit(0);
}

SavedSettings::~SavedSettings()
{
    (void)close(alive_);
    char byte = '\0';
    EXPECT_EQ(1, read(done_, &byte, 1)) << "the settings were not restored";
    (void)close(done_);
    EXPECT_EQ(saved_, Read());
    (void)close(lock_);
}

}  // namespace kernel
