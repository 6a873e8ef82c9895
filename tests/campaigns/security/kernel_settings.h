// The kernel's settings that protect directories in which all users may write: /proc/sys/fs/protected_*.
#ifndef ORV_TESTS_KERNEL_SETTINGS_H
#define ORV_TESTS_KERNEL_SETTINGS_H

#include <map>
#include <string>
#include <vector>

namespace kernel {

using Settings = std::map<std::string, int>;  // the values by the name after "protected_"

struct Setting {
    const char* name;
    int values;  // it can be 0 to values - 1
};

constexpr Setting kSettings[] = {{"symlinks", 2}, {"regular", 3}, {"fifos", 3}, {"hardlinks", 2}};

// Returns the settings to try for a result that depends on the setting `name`, or on none if it is empty: each value of
// that setting, with all others off and with all others on; or every combination if `all`.
std::vector<Settings> Combinations(const std::string& name, bool all);

bool CanWrite();
void Write(const Settings& settings);

// Saves the settings, and restores them at its end. Because they affect the whole machine, a separate process does so,
// when this process and its children have ended or closed everything. Only one object exists at a time on a machine.
class SavedSettings {
public:
    SavedSettings();
    ~SavedSettings();
    SavedSettings(const SavedSettings&) = delete;
    SavedSettings& operator=(const SavedSettings&) = delete;

private:
    [[noreturn]] void Guard(int guarded, int done) const;

    int lock_;
    Settings saved_;
    int alive_ = -1;  // the end of a pipe that is open as long as the settings are in use
    int done_ = -1;   // the end of a pipe that says that they were restored
};

}  // namespace kernel

#endif  // ORV_TESTS_KERNEL_SETTINGS_H
