// A program that supplies the log itself, on a device whose log service has a dlog.h of its own.
#include <LxFileUtils.h>
#include <dlog.h>
#include <orv/dlog.h>

#include <cstdarg>
#include <cstdio>

void __dlog_printf(int severity, const char* sourceTag, const char* format, ...)
{
    std::printf("%s %d %s: ", device_log::Name(), severity, sourceTag);
    std::va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    std::putchar('\n');
}

int main()
{
    (void)orv_fileutils::MakeDirPath("/orv-outside", 0755, false);
}
