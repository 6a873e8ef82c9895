// Benchmarks of reading name-value files.

#include "LxFileUtils.h"
#include "support/bench.h"
#include "support/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>

#ifdef ORV_BENCH_GLIB
#include <glib.h>

#include <memory>
#endif
#ifdef ORV_BENCH_INIH
#include <ini.h>
#endif

namespace bench {

namespace {

using Map = std::map<std::string, std::string>;

enum class Order { kSorted, kRandom };

struct Settings : Fixture {
    std::string file;
};

// One line in ten is a comment, and values contain blanks, as in files that people write.
void MakeSettings(const std::string& path, std::size_t lines, std::size_t names, Order order, const char* firstLine)
{
    std::vector<std::size_t> numbers(lines);
    for (std::size_t i = 0; i < lines; ++i) {
        numbers[i] = i % names;
    }
    if (order == Order::kRandom) {
        std::shuffle(numbers.begin(), numbers.end(), std::mt19937(1));
    }
    std::ofstream file(path);
    file << firstLine;
    char name[32];
    for (std::size_t i = 0; i < lines; ++i) {
        if (i % 10 == 0) {
            file << "# what follows belongs to unit " << i << '\n';
        } else {
            (void)std::snprintf(name, sizeof name, "unit.eth%06zu.mtu", numbers[i]);
            file << name << " = value " << i << '\n';
        }
    }
}

bool IsBlank(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

std::string_view Trimmed(const char* start, const char* end)
{
    while (end != start && IsBlank(end[-1])) {
        --end;
    }
    while (start != end && IsBlank(*start)) {
        ++start;
    }
    return {start, static_cast<std::size_t>(end - start)};
}

// The floor fills the map by hand: it compares with the last entry before it searches the map.
class MapFiller {
public:
    explicit MapFiller(Map& map) : map_(map), last_(map.end())
    {
    }

    void Set(std::string_view name, std::string_view value)
    {
        name_.assign(name);
        Map::iterator next = last_ == map_.end() ? last_ : std::next(last_);
        if (last_ == map_.end() || last_->first >= name_ || (next != map_.end() && next->first <= name_)) {
            next = map_.lower_bound(name_);
        }
        if (next != map_.end() && next->first == name_) {
            next->second.assign(value);
            last_ = next;
        } else {
            last_ = map_.emplace_hint(next, name_, value);
        }
    }

private:
    Map& map_;
    Map::iterator last_;
    std::string name_;
};

void FloorLine(MapFiller& filler, const char* start, const char* end)
{
    const std::string_view line = Trimmed(start, end);
    if (line.empty() || line[0] == '#') {
        return;
    }
    const void* const delimiter = std::memchr(line.data(), '=', line.size());
    const char* const lineEnd = line.data() + line.size();
    const char* const nameEnd = delimiter == nullptr ? lineEnd : static_cast<const char*>(delimiter);
    const char* const value = delimiter == nullptr ? lineEnd : nameEnd + 1;
    filler.Set(Trimmed(line.data(), nameEnd), Trimmed(value, lineEnd));
}

// Reads blocks of the size that a stream uses.
Map FloorRead(const Settings& settings)
{
    Map map;
    MapFiller filler(map);
    const int file = open(settings.file.c_str(), O_RDONLY);
    char block[BUFSIZ - 1];
    std::string line;  // the part of a line that was in an earlier block
    ssize_t got = 0;
    while ((got = read(file, block, sizeof block)) > 0) {
        const char* at = block;
        const char* const end = block + got;
        while (const void* const found = std::memchr(at, '\n', static_cast<std::size_t>(end - at))) {
            const char* const lineEnd = static_cast<const char*>(found);
            if (line.empty()) {
                FloorLine(filler, at, lineEnd);
            } else {
                line.append(at, lineEnd);
                FloorLine(filler, line.data(), line.data() + line.size());
                line.clear();
            }
            at = lineEnd + 1;
        }
        line.append(at, end);
    }
    if (!line.empty()) {
        FloorLine(filler, line.data(), line.data() + line.size());
    }
    (void)close(file);
    return map;
}

// Code that a program would write by hand.
Map StreamRead(const Settings& settings)
{
    const char* const kBlanks = " \t\n\v\f\r";

    Map map;
    std::ifstream file(settings.file);
    for (std::string line; std::getline(file, line);) {
        const std::size_t start = line.find_first_not_of(kBlanks);
        if (start == std::string::npos || line[start] == '#') {
            continue;
        }
        const std::size_t delimiter = std::min(line.find('='), line.size());
        const std::string_view name = Trimmed(line.data(), line.data() + delimiter);
        const std::string_view value =
            Trimmed(line.data() + std::min(delimiter + 1, line.size()), line.data() + line.size());
        map[std::string(name)] = value;
    }
    return map;
}

#ifdef ORV_BENCH_INIH
int StoreIniEntry(void* map, const char* /*section*/, const char* name, const char* value)
{
    (*static_cast<Map*>(map))[name] = value;
    return 1;
}
#endif

#ifdef ORV_BENCH_GLIB
struct FreeKeyFile {
    void operator()(GKeyFile* file) const
    {
        g_key_file_free(file);
    }
};
using KeyFile = std::unique_ptr<GKeyFile, FreeKeyFile>;

struct FreeStrings {
    void operator()(gchar** strings) const
    {
        g_strfreev(strings);
    }
};

const char kGroupLine[] = "[settings]\n";
const char kGroup[] = "settings";

std::string Text(const KeyFile& file)
{
    Map map;
    const std::unique_ptr<gchar*, FreeStrings> keys(g_key_file_get_keys(file.get(), kGroup, nullptr, nullptr));
    for (gchar** key = keys.get(); *key != nullptr; ++key) {
        gchar* const value = g_key_file_get_value(file.get(), kGroup, *key, nullptr);
        map[*key] = value;
        g_free(value);
    }
    return bench::Text(map);
}
#endif

void AddReading(const std::string& name, std::size_t lines, std::size_t names, Order order)
{
    const std::size_t heavyLines = 1000000;

    const std::string fullName = name + ':' + std::to_string(lines);
    const Workload workload = {fullName, static_cast<double>(lines), "line",
                               /*calls=*/lines >= heavyLines ? 1 : 0, /*heavy=*/lines >= heavyLines};
    const auto makeWith = [=](const char* kind, const char* firstLine) {
        Settings settings;
        settings.file = Shared("settings_" + std::to_string(lines) + '_' + std::to_string(names) +
                                   (order == Order::kRandom ? "_random" : "_sorted") + kind,
                               [=](const std::string& path) { MakeSettings(path, lines, names, order, firstLine); });
        return settings;
    };
    const auto make = [makeWith] { return makeWith("", ""); };
    Add(workload, "ours", make, [](const Settings& settings) {
        Map map;
        (void)orv_fileutils::ReadNameValueFromFile(settings.file, map, '=', "#");
        return map;
    });
    Add(workload, "floor", make, FloorRead);
    Add(workload, "by hand (getline, find, map)", make, StreamRead);
#ifdef ORV_BENCH_INIH
    Add(workload, "inih", make, [](const Settings& settings) {
        Map map;
        (void)ini_parse(settings.file.c_str(), StoreIniEntry, &map);
        return map;
    });
#endif
#ifdef ORV_BENCH_GLIB
    // GKeyFile requires a group, and has a container of its own.
    Add(
        workload, "GKeyFile", [makeWith] { return makeWith("_group", kGroupLine); },
        [](const Settings& settings) {
            KeyFile file(g_key_file_new());
            (void)g_key_file_load_from_file(file.get(), settings.file.c_str(), G_KEY_FILE_NONE, nullptr);
            return file;
        });
#endif
}

}  // namespace

void AddSettings()
{
    AddReading("name_value/random", 100, 100, Order::kRandom);
    AddReading("name_value/random", 10000, 10000, Order::kRandom);
    AddReading("name_value/sorted", 100, 100, Order::kSorted);
    AddReading("name_value/sorted", 10000, 10000, Order::kSorted);
    AddReading("name_value/repeating", 10000, 1000, Order::kRandom);
    AddReading("name_value/repeating", 1000000, 1000, Order::kRandom);
    AddReading("name_value/distinct", 1000000, 1000000, Order::kRandom);
    ForEachSize(10000000, [](std::size_t lines) { AddReading("growth/name_value", lines, lines, Order::kRandom); });
}

}  // namespace bench
