// Quotes texts for shells.
#ifndef ORV_TOOLS_QUOTING_H
#define ORV_TOOLS_QUOTING_H

#include <string>

// Whether a shell variable can have this name.
bool IsVariableName(const std::string& name);

// Adds quotation marks, so that every shell reads one word that is the text. The text contains no NUL.
std::string ShellWord(const std::string& text);

// For people: without quotation marks if it needs none. Characters that would change the terminal are escaped as bash
// reads them: $'a\nb'.
std::string TerminalWord(const std::string& text);

#endif  // ORV_TOOLS_QUOTING_H
