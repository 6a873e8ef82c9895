// Scripts with which shells complete the command line of orvfile.
#ifndef ORV_TOOLS_COMPLETION_H
#define ORV_TOOLS_COMPLETION_H

#include <string>
#include <vector>

namespace completion {

struct Option {
    std::vector<std::string> names;  // with their dashes
    std::string description;
    std::string value;  // the word for its value in the help, such as PATTERN; empty for a flag
};

struct Command {
    std::string name;
    std::string description;
    std::vector<Option> options;
    std::vector<std::string> operands;  // the words for them in the help; the last one may be repeated
};

struct Program {
    std::vector<Option> options;  // before the command
    std::vector<Command> commands;
};

std::string BashScript(const Program& program);
std::string ZshScript(const Program& program);
std::string FishScript(const Program& program);

}  // namespace completion

#endif  // ORV_TOOLS_COMPLETION_H
