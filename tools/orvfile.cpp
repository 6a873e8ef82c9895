// orvfile offers the library and its safe companion to shells and scripts. This file parses the command line; the
// commands are in transfer.cpp (exists, move, copy), set.cpp (set, unset), explain_lines.cpp (explain) and, for each
// other command, a file of its name.

#include "commands.h"
#include "completion.h"
#include "dlog_text.h"
#include "log.h"
#include "quantity.h"
#include "quoting.h"
#include "signals.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <functional>
#include <iterator>
#include <map>
#include <sstream>

namespace {

// ---- Arguments that CLI11 would misunderstand

const char kOperand = '\x01';  // at the beginning: what follows is an operand or a value, whatever it looks like
const char kEnd = '\0';        // at the end of "--include=": the value is empty, not missing

bool IsCommand(const CLI::App* /*command*/)
{
    return true;
}

std::vector<const CLI::App*> Commands(const CLI::App& app)
{
    return app.get_subcommands(IsCommand);
}

const CLI::App* FindCommand(const CLI::App& app, int argc, char** argv)
{
    const std::vector<const CLI::App*> commands = Commands(app);
    for (int i = 1; i < argc; ++i) {
        const auto isNamed = [=](const CLI::App* command) { return command->get_name() == argv[i]; };
        const auto found = std::find_if(commands.begin(), commands.end(), isNamed);
        if (found != commands.end()) {
            return *found;
        }
    }
    return nullptr;
}

// Returns the index of the "--" that ends the options. It can also be the value of an option.
int EndOfOptions(const CLI::App& app, int argc, char** argv)
{
    const CLI::App* const command = FindCommand(app, argc, argv);
    for (int i = 1; i < argc; ++i) {
        const std::string before = argv[i - 1];
        const CLI::Option* const option =
            command == nullptr || before[0] != '-' ? nullptr : command->get_option_no_throw(before);
        if (argv[i] == std::string("--") && (option == nullptr || option->get_items_expected_min() == 0)) {
            return i;
        }
    }
    return argc;
}

// CLI11 forgets a "--" after the first operands, splits "[a,b]" into two, ends the operands at "++", and refuses an
// empty value in "--include=".
std::vector<std::string> ReversedArguments(const CLI::App& app, int argc, char** argv)
{
    const int end = EndOfOptions(app, argc, argv);
    std::vector<std::string> arguments;
    for (int i = argc - 1; i > 0; --i) {
        const std::string argument = argv[i];
        const char first = argument.c_str()[0];
        if (i > end || first == '[' || first == kOperand || argument == "++") {
            arguments.push_back(kOperand + argument);
        } else if (argument.compare(0, 2, "--") == 0 && argument.back() == '=') {
            arguments.push_back(argument + kEnd);
        } else if (i != end) {
            arguments.push_back(argument);
        }
    }
    return arguments;
}

// Returns the argument as it was given.
std::string Whole(const std::string& result)
{
    const std::string text = result.substr(0, result.find(kEnd));
    return text.substr(!text.empty() && text[0] == kOperand ? 1 : 0);
}

// ---- The commands

CLI::Option* AddText(CLI::App* command, const std::string& name, std::string& value, const std::string& description)
{
    return command->add_option(
        name,
        [&value](const CLI::results_t& results) {
            value = Whole(results.back());
            return true;
        },
        description);
}

CLI::Option* AddTexts(CLI::App* command, const std::string& name, std::vector<std::string>& values,
                      const std::string& description)
{
    return command
        ->add_option(
            name,
            [&values](const CLI::results_t& results) {
                std::transform(results.begin(), results.end(), std::back_inserter(values), Whole);
                return true;
            },
            description)
        ->expected(1, -1)
        ->allow_extra_args();
}

// The command to run if the command line is correct.
typedef std::function<ExitStatus()> Command;

void AddExists(CLI::App& app, Command& chosen)
{
    static std::vector<std::string> paths;
    CLI::App* const command = app.add_subcommand("exists", "Check whether each PATH is a regular file");
    AddTexts(command, "PATH", paths, "Paths to check; symbolic links are followed")->required();
    command->callback([&chosen] { chosen = [] { return Exists(paths); }; });
}

// Options of move and copy. They are not looked up by name, because CLI11 ends the program if memory runs out then.
struct TransferFlags {
    const CLI::Option* directory = nullptr;
    std::vector<CLI::Option*> notPlain;
};

// Adds what move and copy have in common.
TransferFlags AddTransfer(CLI::App* command, TransferOptions& options)
{
    TransferFlags flags;
    AddTexts(command, "SOURCE", options.operands, "The files; then, without -t, DESTINATION: a new path or a directory")
        ->required();
    flags.directory = AddText(command, "-t,--target-directory", options.directory, "The directory that the files go to")
                          ->type_name("DIRECTORY");
    CLI::Option* const noReplace =
        command->add_flag("-n,--no-replace", options.noReplace, "Fail for a destination that exists");
    CLI::Option* const preserve =
        command->add_flag("--preserve", options.preserve,
                          "Also keep owner, set-id and sticky bits, times, extended attributes and holes");
    CLI::Option* const durable = command->add_flag("--durable", "Lose nothing in a power cut (the default)");
    CLI::Option* const verify = command->add_flag("--verify", "Read each copy back and compare it (the default)");
    flags.notPlain = {noReplace, preserve, durable, verify};
    command
        ->add_flag_callback(
            "--no-durable", [&options] { options.durable = false; }, "Do not wait for the disk")
        ->excludes(durable);
    command
        ->add_flag_callback(
            "--no-verify", [&options] { options.verify = false; }, "Do not read copies back")
        ->excludes(verify);
    return flags;
}

// Checks the operands of move or copy.
void CheckOperands(const TransferFlags& flags, TransferOptions& options)
{
    options.hasDirectory = flags.directory->count() != 0;
    if (!options.hasDirectory && options.operands.size() < 2) {
        throw CLI::RequiredError("DESTINATION");
    }
}

void AddMove(CLI::App& app, Command& chosen)
{
    static TransferOptions options;
    CLI::App* const command = app.add_subcommand("move", "Move regular files, even to another file system");
    const TransferFlags flags = AddTransfer(command, options);
    CLI::Option* const plain = command->add_flag(
        "--plain", options.plain, "Use the plain function, RenameFileAcrossFs: flush and compare nothing");
    for (CLI::Option* const other : flags.notPlain) {
        plain->excludes(other);
    }
    command->callback([&chosen, flags] {
        CheckOperands(flags, options);
        chosen = [] { return Move(options); };
    });
}

void AddCopy(CLI::App& app, Command& chosen)
{
    static TransferOptions options;
    CLI::App* const command = app.add_subcommand("copy", "Copy regular files");
    const TransferFlags flags = AddTransfer(command, options);
    command->callback([&chosen, flags] {
        CheckOperands(flags, options);
        chosen = [] { return Copy(options); };
    });
}

void AddMkdir(CLI::App& app, Command& chosen)
{
    static MkdirOptions options;
    static std::string mode;
    CLI::App* const command = app.add_subcommand("mkdir", "Make directories and their missing parents");
    AddTexts(command, "PATH", options.paths, "Directories to make")->required();
    CLI::Option* const modeOption =
        AddText(command, "-m,--mode", mode, "Octal mode, less the file-creation mask (default 777)")
            ->type_name("MODE")
            ->check([](const std::string& text) {
                const bool octal = !text.empty() && text.size() <= 4 && text.find_first_not_of("01234567") == text.npos;
                return octal ? "" : "'" + text + "' is not an octal mode (one to four digits, such as 755)";
            });
    command
        ->add_flag("--exact-mode", options.exactMode,
                   "Give PATH exactly this mode, even if it exists; parents are not affected")
        ->needs(modeOption);
    command->callback([&chosen] {
        chosen = [] {
            options.mode = mode.empty() ? options.mode : static_cast<mode_t>(std::stoul(mode, nullptr, 8));
            return MakeDirectories(options);
        };
    });
}

// An option with a number and perhaps a unit. `expected` says what `parse` reads.
void AddQuantity(CLI::App* command, const std::string& name, const std::string& type,
                 Quantity (*parse)(const std::string&), Quantity& value, const std::string& expected,
                 const std::string& description)
{
    command
        ->add_option(
            name,
            [parse, &value](const CLI::results_t& results) {
                value = parse(Whole(results.back()));
                return true;
            },
            description)
        ->type_name(type)
        ->check([parse, expected](const std::string& result) {
            const std::string text = Whole(result);
            return parse(text) ? "" : "'" + text + "' is not " + expected;
        });
}

void AddList(CLI::App& app, Command& chosen)
{
    static ListOptions options;
    static std::string sort;
    const std::map<std::string, ListOptions::Sort> sorts = {
        {"name", ListOptions::Sort::kName}, {"time", ListOptions::Sort::kTime}, {"size", ListOptions::Sort::kSize}};
    CLI::App* const command = app.add_subcommand("list", "List the regular files of a directory, sorted");
    AddText(command, "DIRECTORY", options.directory, "The directory to list")->required();
    AddText(command, "--include", options.include, "List only names that match; * matches any run of bytes, ? one byte")
        ->type_name("PATTERN");
    AddText(command, "--exclude", options.exclude, "Do not list names that match, even if --include matches them")
        ->type_name("PATTERN");
    AddQuantity(command, "--older-than", "AGE", ParseSeconds, options.olderThanSeconds,
                "an age, such as 30m, 12h or 7d",
                "List only files that were last changed before that; units: s m h d w");
    AddQuantity(command, "--larger-than", "SIZE", ParseSize, options.largerThanBytes, "a size, such as 500, 10K or 2M",
                "List only files of more bytes; units of 1024: K M G T");
    command->add_flag("--recursive", options.recursive,
                      "Also list files of subdirectories, with their path below DIRECTORY; do not enter links");
    command->add_flag("--follow", options.follow, "Also list links to regular files");
    AddText(command, "--sort", sort, "The order; time: newest first; size: largest first (default name)")
        ->type_name("name|time|size")  // the choices that completion offers
        ->check([sorts](const std::string& result) {
            const std::string key = Whole(result);
            return sorts.count(key) != 0 ? "" : "'" + key + "' is not name, time or size";
        });
    command->add_flag("--reverse", options.reverse, "Reverse the order");
    AddQuantity(command, "--skip", "N", ParseCount, options.skip, "a number", "Do not list the first N files");
    AddQuantity(command, "--limit", "N", ParseCount, options.limit, "a number", "List at most N files");
    command->add_flag("--long", options.details, "Also print the size in bytes and the time of the last change");
    command->add_flag("--full-path", options.fullPath, "Put DIRECTORY before each name");
    CLI::Option* const zero = command->add_flag("-0,--null", options.zero, "End each name with a NUL, not a line feed");
    command->add_flag("--json", options.json, "Print a JSON array of strings, or with --long of objects")
        ->excludes(zero);
    command->callback([&chosen, sorts] {
        options.sort = sort.empty() ? options.sort : sorts.at(sort);
        chosen = [] { return List(options); };
    });
}

// A byte that can separate values. Quotation marks and the ends of lines have another meaning.
std::string CheckSeparator(const std::string& argument)
{
    const std::string text = Whole(argument);
    const bool isAllowed = text.size() == 1 && text.find_first_of("\"\r\n") == text.npos;
    return isAllowed ? "" : "'" + text + "' is not allowed; give one byte that is not a quotation mark or a line end";
}

void AddRow(CLI::App& app, Command& chosen)
{
    static RowOptions options;
    CLI::App* const command = app.add_subcommand("row", "Write rows of a text table file to standard output");
    CLI::Option* const cells = AddTexts(command, "CELL", options.cells, "The cells of one row");
    static bool csv = false;
    static bool tsv = false;
    CLI::Option* const csvFlag =
        command->add_flag("--csv", csv, "Read a table of comma-separated values from standard input")->excludes(cells);
    CLI::Option* const tsvFlag =
        command->add_flag("--tsv", tsv, "Read a table of tab-separated values from standard input")
            ->excludes(cells)
            ->excludes(csvFlag);
    static std::string delimiter;
    AddText(command, "--delimiter", delimiter, "Read a table of values separated by BYTE from standard input")
        ->type_name("BYTE")
        ->check(CheckSeparator)
        ->excludes(cells)
        ->excludes(tsvFlag);
    AddText(command, "--encoding", options.encoding,
            "The encoding of standard input, as iconv -l names it (default UTF-8)")
        ->type_name("NAME")
        ->excludes(cells);
    command->add_flag("--table-end", options.tableEnd, "End the table after the rows");
    command->add_flag("--raw", options.raw, "Do not escape cells; fail if a cell would break its row");
    command->callback([&chosen] {
        if (options.cells.empty() && !csv && !tsv && delimiter.empty()) {
            throw CLI::RequiredError("CELL, --csv, --tsv or --delimiter");
        }
        options.isSeparatorAssumed = csv && delimiter.empty();
        options.separator = tsv ? '\t' : delimiter.empty() ? ',' : delimiter[0];
        chosen = [] { return Row(options); };
    });
}

void AddPage(CLI::App& app, Command& chosen)
{
    static PageOptions options;
    CLI::App* const command = app.add_subcommand("page", "Publish a text table file as an HTML page");
    AddText(command, "TABLE", options.table, "The text table file; - is standard input")->required();
    AddText(command, "PAGE", options.page, "The page to write; an existing one is replaced in one step")->required();
    command->add_flag("--allow-empty", options.allowEmpty, "Publish an empty page if TABLE cannot be read");
    command->add_flag("--watch", options.watch, "Publish again whenever TABLE changes, until SIGINT or SIGTERM");
    command->callback([&chosen] {
        if (options.watch && options.table == "-") {
            throw CLI::ExcludesError("--watch", "-");
        }
        chosen = [] { return Page(options); };
    });
}

void AddFormat(CLI::App* command, SettingsFormat& format)
{
    AddText(command, "--delimiter", format.delimiter, "The byte that ends a name (default =)")
        ->type_name("BYTE")
        ->check([](const std::string& result) {
            const std::string text = Whole(result);
            return text.size() == 1 && text != "\n"
                       ? ""
                       : "'" + text + "' is not allowed; give one byte that is not a line feed";
        });
    AddText(command, "--comment", format.comment, "The prefix of comment lines; empty for none (default #)")
        ->type_name("PREFIX");
}

void AddGet(CLI::App& app, Command& chosen)
{
    static GetOptions options;
    static std::string fallback;
    CLI::App* const command = app.add_subcommand("get", "Print the values of a name-value file");
    command->footer("Exit status: 0 success, 1 the operation failed, 2 wrong usage. 3 FILE does not contain a NAME.");
    AddText(command, "FILE", options.file, "The name-value file")->required();
    CLI::Option* const names = AddTexts(command, "NAME", options.names, "Print only the values of these names");
    AddFormat(command, options.format);
    CLI::Option* const fallbackOption =
        AddText(command, "--default", fallback, "Print this for each NAME that FILE does not contain")
            ->type_name("VALUE")
            ->needs(names);
    CLI::Option* const shell =
        command->add_flag("--shell", options.shell, "Print NAME='VALUE' for eval in a shell")->needs(names);
    CLI::Option* const json =
        command->add_flag("--json", options.json, "Print a JSON object, or with one NAME a JSON string")
            ->excludes(shell);
    command->add_flag("--lint", options.lint, "Report lines that look wrong instead of printing values")
        ->excludes(names)
        ->excludes(json);
    command->callback([&chosen, fallbackOption] {
        for (const std::string& name : options.names) {
            if (options.shell && !IsVariableName(name)) {
                throw CLI::ValidationError("NAME", "'" + name + "' cannot be the name of a variable of a shell");
            }
        }
        if (fallbackOption->count() != 0) {
            options.fallback = fallback;
        }
        chosen = [] { return Get(options); };
    });
}

void AddSet(CLI::App& app, Command& chosen)
{
    static SetOptions options;
    CLI::App* const command = app.add_subcommand("set", "Change values in a name-value file, or add them");
    AddText(command, "FILE", options.file, "The name-value file; a missing one is made")->required();
    AddTexts(command, "NAME=VALUE", options.settings, "New values; with --delimiter, that byte instead of =")
        ->required();
    AddFormat(command, options.format);
    command->callback([&chosen] {
        for (const std::string& text : options.settings) {
            if (text.find(options.format.delimiter) == std::string::npos) {
                throw CLI::ValidationError("NAME=VALUE", "'" + text + "' contains no " + options.format.delimiter);
            }
        }
        chosen = [] { return Set(options); };
    });
}

void AddUnset(CLI::App& app, Command& chosen)
{
    static UnsetOptions options;
    CLI::App* const command = app.add_subcommand("unset", "Remove names with their values from a name-value file");
    AddText(command, "FILE", options.file, "The name-value file")->required();
    AddTexts(command, "NAME", options.names, "Names to remove; a name may be missing")->required();
    AddFormat(command, options.format);
    command->callback([&chosen] { chosen = [] { return Unset(options); }; });
}

void AddExplain(CLI::App& app, Command& chosen)
{
    static ExplainOptions options;
    CLI::App* const command = app.add_subcommand("explain", "Explain lines of the log");
    AddTexts(command, "LINE", options.lines, "Lines of the log; without any, they are read from standard input")
        ->required(false);
    command->add_flag("--json", options.json, "Print a JSON object for each line");
    command->add_flag("--document", options.document, "Print the part of docs/diagnostics.md about lines")->group("");
    command->callback([&chosen] { chosen = [] { return ExplainLines(options); }; });
}

// ---- Completion

std::vector<completion::Option> OptionsOf(const CLI::App& app)
{
    std::vector<completion::Option> options;
    for (const CLI::Option* const option : app.get_options()) {
        if (option->get_positional() || option->get_group().empty()) {
            continue;
        }
        std::vector<std::string> names;
        for (const std::string& name : option->get_snames()) {
            names.push_back("-" + name);
        }
        for (const std::string& name : option->get_lnames()) {
            names.push_back("--" + name);
        }
        options.push_back(
            {names, option->get_description(), option->get_items_expected_min() > 0 ? option->get_type_name() : ""});
    }
    return options;
}

completion::Program Description(const CLI::App& app)
{
    completion::Program program = {OptionsOf(app), {}};
    for (const CLI::App* const command : Commands(app)) {
        std::vector<std::string> operands;
        for (const CLI::Option* const option : command->get_options()) {
            if (option->get_positional()) {
                operands.push_back(option->get_name(true));
            }
        }
        program.commands.push_back({command->get_name(), command->get_description(), OptionsOf(*command), operands});
    }
    return program;
}

void AddCompletion(CLI::App& app, Command& chosen)
{
    typedef std::string (*Script)(const completion::Program& program);
    static const std::map<std::string, Script> scripts = {
        {"bash", completion::BashScript}, {"fish", completion::FishScript}, {"zsh", completion::ZshScript}};
    static std::string shell;
    CLI::App* const command = app.add_subcommand("completion", "Print the script that completes command lines");
    AddText(command, "SHELL", shell, "The shell: bash, zsh or fish")->required()->check([](const std::string& text) {
        return scripts.count(Whole(text)) != 0 ? "" : "'" + Whole(text) + "' is not bash, zsh or fish";
    });
    command->callback([&app, &chosen] {
        chosen = [&app] {
            PrintResult(scripts.at(shell)(Description(app)));
            return kDone;
        };
    });
}

// ---- Usage

// Whether there are too many operands, perhaps because the pattern of an option was not quoted.
bool IsExpandedPattern(const CLI::App& command, const std::vector<std::string>& rest)
{
    const auto isGiven = [&command](const char* name) {
        const CLI::Option* const option = command.get_option_no_throw(name);
        return option != nullptr && option->count() != 0;
    };
    return !rest.empty() && rest.front()[0] != '-' && (isGiven("--include") || isGiven("--exclude"));
}

std::string CommandNames(const CLI::App& app)
{
    std::string names;
    for (const CLI::App* const command : Commands(app)) {
        names += (names.empty() ? "" : ", ") + command->get_name();
    }
    return names;
}

// Describes the error that CLI11 found, and says where to look for the correct use.
std::string UsageMessage(const CLI::App* app, const CLI::Error& error)
{
    const std::vector<CLI::App*> commands = app->get_subcommands();
    const std::vector<std::string> rest = app->remaining();
    const bool isUnknown = commands.empty() && !rest.empty();
    std::string text = "orvfile: ";
    std::string what = isUnknown ? "unknown command or option '" + rest.front() + "'" : error.what();
    what.erase(std::remove(what.begin(), what.end(), kOperand), what.end());
    dlog_text::AppendEscaped(text, what);
    if (commands.empty()) {
        return text + "\n  Next: use one of " + CommandNames(*app) + "; see orvfile --help\n";
    }
    text += "\n  Next: ";
    if (IsExpandedPattern(*commands.front(), rest)) {
        text += "quote the pattern, as in '*.log', because the shell replaces it by the names that match; ";
    }
    return text + "see orvfile " + commands.front()->get_name() + " --help\n";
}

// Adds the options of every command, which may also be in front of it.
void AddCommonOptions(CLI::App& app)
{
    app.add_flag_callback(
        "-q,--quiet", [] { SetQuiet(true); }, "Suppress notes, warnings and progress; still report failures");
    app.add_flag_callback("--syslog", UseSyslog, "Write all messages but those of wrong usage to the system's log");
}

void Describe(CLI::App& app, Command& chosen)
{
    app.require_subcommand(1);
    app.fallthrough();
    app.failure_message(UsageMessage);
    app.set_version_flag("--version", "orvfile " ORV_VERSION, "Print the version and exit");
    app.footer("Exit status: 0 success, 1 the operation failed, 2 wrong usage. \"--\" ends the options.");
    for (const auto& add : {AddExists, AddMove, AddCopy, AddMkdir, AddList, AddRow, AddPage, AddGet, AddSet, AddUnset,
                            AddExplain, AddCompletion}) {
        add(app, chosen);
    }
    AddCommonOptions(app);
    for (CLI::App* const command : app.get_subcommands(IsCommand)) {
        AddCommonOptions(*command);
    }
}

// Prints the help, the version or what is wrong with the command line.
ExitStatus PrintUsage(const CLI::App& app, const CLI::ParseError& error)
{
    std::ostringstream out;
    std::ostringstream messages;
    const bool isWrong = app.exit(error, out, messages) != 0;
    (void)std::fputs(messages.str().c_str(), stderr);
    PrintResult(out.str());
    return isWrong ? kUsage : kDone;
}

ExitStatus Run(int argc, char** argv)
{
    Command command;
    CLI::App app("Move, copy, list and publish files with the functions of libOrvFileUtils.", "orvfile");
    Describe(app, command);
    try {
        try {
            app.parse(ReversedArguments(app, argc, argv));
        } catch (const CLI::ParseError& error) {
            return PrintUsage(app, error);
        }
        return command();
    } catch (const Failure& failure) {
        PrintProblem(failure.what(), failure.Next());
        return kFailed;
    }
}

}  // namespace

int main(int argc, char** argv)
{
    IgnoreClosedPipes();
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {  // from the standard library: memory ran out
        PrintLastWords(error.what());
        return kFailed;
    }
}
