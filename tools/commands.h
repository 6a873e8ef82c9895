// The commands of orvfile. Each returns its exit status or throws Failure. Their arguments have been checked.
#ifndef ORV_TOOLS_COMMANDS_H
#define ORV_TOOLS_COMMANDS_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "support.h"

// Of move and copy.
struct TransferOptions {
    std::vector<std::string> operands;  // the sources and, unless hasDirectory, the destination
    std::string directory;
    bool hasDirectory = false;
    bool durable = true;
    bool verify = true;
    bool preserve = false;
    bool noReplace = false;
    bool plain = false;  // by RenameFileAcrossFs; without the four options above
};

struct MkdirOptions {
    std::vector<std::string> paths;
    mode_t mode = 0777;
    bool exactMode = false;
};

struct ListOptions {
    enum class Sort { kName, kTime, kSize };

    std::string directory;
    std::string include;
    std::string exclude;
    bool recursive = false;
    bool follow = false;
    std::optional<std::int64_t> olderThanSeconds;
    std::optional<std::int64_t> largerThanBytes;
    Sort sort = Sort::kName;
    bool reverse = false;
    std::optional<std::int64_t> skip;
    std::optional<std::int64_t> limit;
    bool details = false;
    bool fullPath = false;
    bool zero = false;
    bool json = false;
};

struct RowOptions {
    std::vector<std::string> cells;   // if empty, a table is read from standard input
    char separator = ',';             // of that table
    bool isSeparatorAssumed = false;  // the user has not named it
    std::string encoding;             // of that table; if empty, UTF-8
    bool tableEnd = false;
    bool raw = false;
};

struct PageOptions {
    std::string table;
    std::string page;
    bool allowEmpty = false;
    bool watch = false;
};

// How the lines of a name-value file are read.
struct SettingsFormat {
    std::string delimiter = "=";  // one byte
    std::string comment = "#";
};

struct GetOptions {
    std::string file;
    std::vector<std::string> names;
    SettingsFormat format;
    std::optional<std::string> fallback;  // the value of a name that is missing
    bool shell = false;                   // then all names are names of variables
    bool json = false;
    bool lint = false;
};

struct SetOptions {
    std::string file;
    std::vector<std::string> settings;  // NAME=VALUE; each contains the delimiter
    SettingsFormat format;
};

struct UnsetOptions {
    std::string file;
    std::vector<std::string> names;
    SettingsFormat format;
};

struct ExplainOptions {
    std::vector<std::string> lines;  // if empty, lines are read from standard input
    bool json = false;
    bool document = false;  // print the document that has the same knowledge
};

ExitStatus Exists(const std::vector<std::string>& paths);
ExitStatus Move(const TransferOptions& options);
ExitStatus Copy(const TransferOptions& options);
ExitStatus MakeDirectories(const MkdirOptions& options);
ExitStatus List(const ListOptions& options);
ExitStatus Row(const RowOptions& options);
ExitStatus Page(const PageOptions& options);
ExitStatus Get(const GetOptions& options);
ExitStatus Set(const SetOptions& options);
ExitStatus Unset(const UnsetOptions& options);
ExitStatus ExplainLines(const ExplainOptions& options);

#endif  // ORV_TOOLS_COMMANDS_H
