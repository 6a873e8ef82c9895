// ReadSettings, CheckSettings, WriteSettings and RemoveSettings. The input is the delimiter, one byte, then the comment
// prefix, a name and a value, each up to the first NUL, and the file.
#include "fuzz.h"
#include "safe/safe.h"

#include <unistd.h>

#include <fstream>
#include <iterator>

namespace {

using oracle::NameValues;

void WriteFile(const std::string& path, const std::string& bytes)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << bytes << std::flush;
    Require(file.good(), "the file can be written");
}

std::string ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    Require(file.is_open(), "the file is there");
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const std::string path = "/var/tmp/orv_fuzz_settings_" + std::to_string(getpid());
    if (size == 0) {
        return 0;
    }
    const char delimiter = static_cast<char>(data[0]);
    std::string bytes(data + 1, data + size);
    const std::string comment = TakeUpTo('\0', bytes);
    const std::string name = TakeUpTo('\0', bytes);
    const std::string value = TakeUpTo('\0', bytes);
    orv_safe::SettingsOptions options;
    options.durable = false;
    WriteFile(path, bytes);

    const NameValues old = {{"", "old"}, {"a", "old"}, {"other entry", "old"}};
    NameValues read = old;
    Require(orv_safe::ReadSettings(path, read, delimiter, comment), "every file of bytes can be read");
    Require(read == oracle::Read(bytes, delimiter, comment, old), "the entries are those of the oracle");

    std::vector<orv_safe::SettingsFinding> findings;
    Require(orv_safe::CheckSettings(path, findings, delimiter, comment), "every file of bytes can be checked");

    const std::string changed = oracle::Changed(bytes, delimiter, comment, {{name, value}});
    NameValues expected = oracle::Read(bytes, delimiter, comment, {});
    expected[name] = value;
    const bool comesBack = !name.empty() && oracle::Read(changed, delimiter, comment, {}) == expected;
    const int reports = Reports();
    const bool written = orv_safe::WriteSettings(path, {{name, value}}, delimiter, comment, options);
    Require(written == comesBack, "a value is written if it comes back");
    Require(Reports() == reports + (written ? 0 : 1), "only a refusal is reported");
    Require(ReadFile(path) == (written ? changed : bytes), "only the value changes");

    WriteFile(path, bytes);
    Require(orv_safe::RemoveSettings(path, {name}, delimiter, comment, options), "every name can be removed");
    Require(ReadFile(path) == oracle::Without(bytes, delimiter, comment, {name}), "only the lines of the name go");
    Require(unlink(path.c_str()) == 0, "the file is there");
    return 0;
}
