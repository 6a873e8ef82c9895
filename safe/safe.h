/// @file
/// The safe companion of LxFileUtils.h: one call for each job where those functions leave something to the caller.
///
/// The ten functions flush nothing, publish cells unescaped, build pages under a name that others can predict, and
/// answer true where a careful program wants to know more. The functions of this header close these gaps. They call the
/// ten functions where those suffice, and the system where they do not.
///
/// These rules apply to all of them:
/// - An ordinary failure is a result, never an exception. Each failure is reported as one line through `__dlog_printf`
///   (see orv/dlog.h): severity 3, source tag "orv_safe", and a text that begins with the name of the function and
///   contains the call, the path, the error number and its text. "Diagnostics" below quotes these texts; ERROR stands
///   for "ERRNO, TEXT", such as "2, No such file or directory".
/// - The only exception is `std::bad_alloc`, when memory runs out.
/// - A call that a signal interrupts is repeated, and a short write is continued. Programs that other threads start
///   inherit no descriptor.
/// - Paths of any length are safe.
/// - Threads: all functions may run at any time on any thread. Calls that run at the same time must not share the
///   containers passed in.
///
/// Each example compiles on its own after `#include <orv/safe.h>`.
#ifndef ORV_SAFE_H
#define ORV_SAFE_H

#include <string>

// Exported also where -fvisibility=hidden is the default.
#pragma GCC visibility push(default)
namespace orv_safe {

}  // namespace orv_safe
#pragma GCC visibility pop

#endif  // ORV_SAFE_H
