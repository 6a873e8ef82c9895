/// @file
/// The last reports of this process, kept in memory: for tests, and for programs that show them themselves.
/// Link the library DlogMemory, and no other log. All functions may be called from any thread.
#ifndef ORV_DLOG_MEMORY_H
#define ORV_DLOG_MEMORY_H

#include <cstddef>
#include <string>
#include <vector>

namespace dlog_memory {

/// The lines kept until SetLimit is called.
const std::size_t kDefaultLimit = 100;

/// A longer line is cut to this size and ends in "...". The lines take at most the limit times this.
const std::size_t kMaxLineBytes = 16384;

/// The lines kept, oldest first: "[SEVERITY] SOURCE: MESSAGE" without a line feed, control characters and backslashes
/// escaped. May throw `std::bad_alloc`.
/// @code
/// std::vector<std::string> lines = dlog_memory::Lines();
/// @endcode
std::vector<std::string> Lines();

/// How many reports came in since the start, or since the last Clear: more than Lines() where old ones were dropped for
/// the limit, or lost for lack of memory.
unsigned long Total();

/// Forgets all lines, and counts from 0 again. The limit stays.
void Clear();

/// Keeps the last `lines` from now on; 0 keeps none. Older ones are dropped at once.
void SetLimit(std::size_t lines);

}  // namespace dlog_memory

#endif  // ORV_DLOG_MEMORY_H
