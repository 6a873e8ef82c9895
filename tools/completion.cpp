#include "completion.h"

#include <cstddef>
#include <map>

namespace completion {

namespace {

// ---- Text
//
// No description has a bracket or a backslash, which would need more quotes in zsh and fish. A test checks that.

std::string Replaced(const std::string& text, const std::map<char, std::string>& replacements)
{
    std::string replaced;
    for (const char c : text) {
        const auto found = replacements.find(c);
        replaced += found == replacements.end() ? std::string(1, c) : found->second;
    }
    return replaced;
}

// For bash and zsh.
std::string Quoted(const std::string& text)
{
    return "'" + Replaced(text, {{'\'', R"('\'')"}}) + "'";
}

std::string Joined(const std::vector<std::string>& words, const std::string& separator)
{
    std::string joined;
    for (const std::string& word : words) {
        joined += (joined.empty() ? "" : separator) + word;
    }
    return joined;
}

std::string Origin(const std::string& shell)
{
    return "# Completion of orvfile for " + shell + ". Written by script/generate; do not edit.\n";
}

// ---- What a word in capitals of the help is completed by

const char kFile[] = "file";
const char kDirectory[] = "directory";
const char kNothing[] = "nothing";

// Returns one of the above, or the words to choose from, such as those of "name|time".
std::string KindOf(const std::string& word)
{
    if (word.find('|') != std::string::npos) {
        return Replaced(word, {{'|', " "}});
    }
    static const std::map<std::string, std::string> kinds = {
        {"DIRECTORY", kDirectory},
        {"FILE", kFile},
        {"PAGE", kFile},
        {"PATH", kFile},
        {"SOURCE", kFile},
        {"TABLE", kFile},
        {"SHELL", "bash zsh fish"},
    };
    const auto found = kinds.find(word);
    return found == kinds.end() ? kNothing : found->second;
}

std::string OperandKind(const Command& command, const std::string& operand)
{
    return command.name == "mkdir" ? kDirectory : KindOf(operand);
}

// ---- bash

std::string BashOptions(const std::vector<Option>& options, const std::string& indent)
{
    std::vector<std::string> names;
    std::string values;
    for (const Option& option : options) {
        for (const std::string& name : option.names) {
            names.push_back(name);
            values += option.value.empty() ? "" : " [" + name + "]=" + Quoted(KindOf(option.value));
        }
    }
    return indent + "options=" + Quoted(Joined(names, " ")) + "\n" +
           (values.empty() ? "" : indent + "values=(" + values.substr(1) + ")\n");
}

std::string BashCommand(const Command& command)
{
    std::vector<std::string> kinds;
    for (const std::string& operand : command.operands) {
        kinds.push_back(Quoted(OperandKind(command, operand)));
    }
    return "                " + command.name + ")\n" + BashOptions(command.options, "                    ") +
           "                    kinds=(" + Joined(kinds, " ") + ")\n                    ;;\n";
}

// ---- zsh

std::string ZshAction(const std::string& kind)
{
    return kind == kFile ? "_files" : kind == kDirectory ? "_files -/" : kind == kNothing ? "()" : "(" + kind + ")";
}

// The arguments of _arguments for the option: one for each name, which excludes the others.
std::string ZshOption(const Option& option, const std::string& indent)
{
    const std::string others = "(" + Joined(option.names, " ") + ")";
    const std::string description = "[" + option.description + "]";
    const std::string value = option.value.empty() ? "" : ":" + option.value + ":" + ZshAction(KindOf(option.value));
    std::string text;
    for (const std::string& name : option.names) {
        const std::string argument = Quoted(std::string(others).append(name).append(description).append(value));
        text.append(indent).append(argument).append(" \\\n");
    }
    return text;
}

std::string ZshOptions(const std::vector<Option>& options, const std::string& indent)
{
    std::string text;
    for (const Option& option : options) {
        text += ZshOption(option, indent);
    }
    return text;
}

std::string ZshCommand(const Command& command)
{
    std::string operands;
    for (std::size_t i = 0; i < command.operands.size(); ++i) {
        const bool isLast = i + 1 == command.operands.size();
        const std::string& operand = command.operands[i];
        operands += (i == 0 ? "" : " ") + Quoted((isLast ? "*" : std::to_string(i + 1)) + ":" + operand + ":" +
                                                 ZshAction(OperandKind(command, operand)));
    }
    return "                " + command.name + ")\n                    _arguments -S \\\n" +
           ZshOptions(command.options, "                        ") + "                        " + operands +
           "\n                    ;;\n";
}

// ---- fish

std::string FishQuoted(const std::string& text)
{
    return "'" + Replaced(text, {{'\'', "\\'"}}) + "'";
}

std::string FishChoices(const std::string& kind)
{
    return kind == kFile        ? " -F"
           : kind == kDirectory ? " -f -a '(__fish_complete_directories)'"
           : kind == kNothing   ? ""
                                : " -f -a " + FishQuoted(kind);
}

std::string FishOptions(const std::vector<Option>& options, const std::string& condition)
{
    std::string text;
    for (const Option& option : options) {
        text += "complete -c orvfile -n " + condition;
        for (const std::string& name : option.names) {
            text += name[1] == '-' ? " -l " + name.substr(2) : " -s " + name.substr(1);
        }
        text += " -d " + FishQuoted(option.description) +
                (option.value.empty() ? "" : " -x" + FishChoices(KindOf(option.value))) + "\n";
    }
    return text;
}

std::string FishCommand(const Command& command)
{
    const std::string condition = FishQuoted("__fish_seen_subcommand_from " + command.name);
    const std::string choices = FishChoices(OperandKind(command, command.operands.front()));
    return "\ncomplete -c orvfile -n __fish_use_subcommand -a " + command.name + " -d " +
           FishQuoted(command.description) + "\n" + FishOptions(command.options, condition) +
           (choices.empty() ? "" : "complete -c orvfile -n " + condition + choices + "\n");
}

}  // namespace

std::string BashScript(const Program& program)
{
    std::vector<std::string> names;
    std::string cases;
    for (const Command& command : program.commands) {
        names.push_back(command.name);
        cases += BashCommand(command);
    }
    return Origin("bash") + R"(# shellcheck shell=bash

_orvfile() {
    local word=${COMP_WORDS[COMP_CWORD]} one command='' options ended='' kind='' i
    local -A values=() # the options that have a value, and what completes it
    # What completes the next operands; the last one repeats.
    local -a kinds=()" +
           Quoted(Joined(names, " ")) + ")\n" + BashOptions(program.options, "    ") +
           R"(    for ((i = 1; i < COMP_CWORD; i++)); do
        one=${COMP_WORDS[i]}
        if [[ -n $kind ]]; then
            kind=''
        elif [[ -z $ended && $one == -- ]]; then
            ended=1
        elif [[ -z $ended && $one == -* ]]; then
            kind=${values[$one]-}
        elif [[ -z $command ]]; then
            command=$one
            case $command in
)" + cases +
           R"(                *)
                    kinds=('nothing')
                    ;;
            esac
        elif ((${#kinds[@]} > 1)); then
            kinds=("${kinds[@]:1}")
        fi
    done
    if [[ -z $kind && -z $ended && $word == -* ]]; then
        kind=$options
    elif [[ -z $kind ]]; then
        kind=${kinds[0]}
    fi
    COMPREPLY=()
    case $kind in
        file)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$word")
            ;;
        directory)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -d -- "$word")
            ;;
        nothing) ;;
        *)
            mapfile -t COMPREPLY < <(compgen -W "$kind" -- "$word")
            ;;
    esac
}
complete -F _orvfile orvfile
)";
}

std::string ZshScript(const Program& program)
{
    std::string commands;
    std::string cases;
    for (const Command& command : program.commands) {
        commands += "        " + Quoted(command.name + ":" + command.description) + "\n";
        cases += ZshCommand(command);
    }
    return "#compdef orvfile\n" + Origin("zsh") + R"(
_orvfile() {
    local context state state_descr line curcontext=$curcontext
    typeset -A opt_args
    local -a commands=(
)" + commands +
           R"(    )
    _arguments -C -S \
)" + ZshOptions(program.options, "        ") +
           R"(        '1:command:->command' '*::operand:->operand'
    case $state in
        command)
            _describe -t commands command commands
            ;;
        operand)
            case $words[1] in
)" + cases +
           R"(            esac
            ;;
    esac
}

_orvfile "$@"
)";
}

std::string FishScript(const Program& program)
{
    std::string text =
        Origin("fish") + "\ncomplete -c orvfile -f\n" + FishOptions(program.options, "__fish_use_subcommand");
    for (const Command& command : program.commands) {
        text += FishCommand(command);
    }
    return text;
}

}  // namespace completion
