// Computes the results that the library must have, in other ways than the library does, for unit tests, campaigns and
// fuzzers. orv_oracle writes the results that the Python tests need to a file. The expected results in data/ were
// written by hand; unit/oracle_test.cpp compares them with the oracle, so that an error in both is unlikely.
#ifndef ORV_TESTS_ORACLE_H
#define ORV_TESTS_ORACLE_H

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace oracle {

// ---- Strings

std::vector<std::string> Pieces(const std::string& text, char delimiter);
bool IsWhiteSpace(char byte);
std::string Trimmed(const std::string& text);
bool Matches(const std::string& text, const std::string& pattern);

// ---- Tables and pages

std::string Row(const std::vector<std::string>& cells);
std::string TableMarkup(const std::string& line);
std::string Page(const std::string& tableFile);  // of a file with these bytes

extern const char kPageHeader[];
extern const char kPageFooter[];
constexpr std::size_t kPageHeaderBytes = 340;

// ---- Name-value files

using NameValues = std::map<std::string, std::string>;

// Returns the map after a file with these bytes was read into `before`.
NameValues Read(const std::string& bytes, char delimiter, const std::string& commentPrefix, NameValues before);

// Returns the text of such a file after some values were changed in it, and after some names were removed from it.
std::string Changed(const std::string& bytes, char delimiter, const std::string& commentPrefix,
                    const NameValues& changes);
std::string Without(const std::string& bytes, char delimiter, const std::string& commentPrefix,
                    const std::vector<std::string>& names);

// ---- Names of temporary files

std::string TemporaryPage(pid_t process);
std::string OwnTemporaryPage();
bool IsTemporaryCopy(const std::string& path, const std::string& destination);

}  // namespace oracle

#endif  // ORV_TESTS_ORACLE_H
