/// @file
/// The log function of the library. The program defines it, or links one of the substitutes in this folder.
#ifndef ORV_DLOG_H
#define ORV_DLOG_H

/// Writes one line to the device's diagnostic log.
///
/// The library calls this function on the thread that called the library, so it must be safe to call from any thread.
///
/// A program that defines it must include this header. The header gives the function default visibility: without it,
/// the library does not find a function that is compiled with -fvisibility=hidden.
///
/// @param severity   3 (error) in every call of the library
/// @param sourceTag  name of the reporting source file, such as "LxFileUtils.cpp"
/// @param format     printf format of the message, without a line feed at the end
/// Example: extern "C" void __dlog_printf(int, const char*, const char* format, ...) { ...vfprintf(stderr, ...)... }
extern "C" void __dlog_printf(int severity, const char* sourceTag, const char* format, ...)
    __attribute__((format(printf, 3, 4), visibility("default")));

#endif  // ORV_DLOG_H
