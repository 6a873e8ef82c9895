/// @file
/// Keeps the last reports of this process in memory, for tests and for programs that display them.
/// Link the library DlogMemory and no other log. Any thread may call these functions.
#ifndef ORV_DLOG_MEMORY_H
#define ORV_DLOG_MEMORY_H

#include <cstddef>
#include <string>
#include <vector>

// Exported also where -fvisibility=hidden is the default.
#pragma GCC visibility push(default)
namespace dlog_memory {

/// The number of lines that are kept unless SetLimit is called.
const std::size_t kDefaultLimit = 100;

/// A longer line is cut to this size and ends in "...". So all lines together need at most the limit times this size.
const std::size_t kMaxLineBytes = 16384;

/// Returns the lines that are kept, oldest first. Each is "[SEVERITY] SOURCE: MESSAGE" without a line feed; control
/// characters and backslashes are escaped. May throw `std::bad_alloc`.
/// @code
/// std::vector<std::string> lines = dlog_memory::Lines();
/// @endcode
std::vector<std::string> Lines();

/// Returns the number of reports since the start of the process or since the last Clear. It is larger than the size of
/// Lines() if old lines were dropped because of the limit, or if lines were lost because memory ran out.
unsigned long Total();

/// Removes all lines and sets Total() to 0. The limit does not change.
void Clear();

/// Sets how many lines are kept; 0 keeps none. Older lines are dropped at once.
void SetLimit(std::size_t lines);

}  // namespace dlog_memory
#pragma GCC visibility pop

#endif  // ORV_DLOG_MEMORY_H
