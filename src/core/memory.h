// The one allocator of the buffers the program fills (malloc by default).
// Tests put a failing one in its place to walk every failure path; what it
// gives is released with free.
#pragma once

#include <cstddef>

extern void* (*pAllocate)(size_t bytes);
