// Strict models of the readers of a page, written in another way than the library makes pages: a parser of the tables'
// markup that refuses everything it does not know, and a decoder of UTF-8.
#ifndef ORV_TESTS_MARKUP_MODEL_H
#define ORV_TESTS_MARKUP_MODEL_H

#include <string>
#include <vector>

namespace markup_model {

// Returns the texts of the cells of each row. Throws std::runtime_error for anything but a table whose cells are text,
// comments and decimal references of ASCII characters without semicolons.
std::vector<std::vector<std::string>> Rows(const std::string& table);

// Returns the text that a browser decodes: U+FFFD for NUL and for each maximal part that is not UTF-8.
std::string Decoded(const std::string& bytes);

}  // namespace markup_model

#endif  // ORV_TESTS_MARKUP_MODEL_H
