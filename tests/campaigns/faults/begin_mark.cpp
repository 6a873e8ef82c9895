// Is preloaded into a program, to tell the tracer that the program begins.

#include "campaigns/faults/begin_mark.h"

#include <unistd.h>

__attribute__((constructor)) static void Begin()
{
    (void)close(kBeginMark);
}
