// The -x command: an IGC file converted into a KML document beside it.
#pragma once

#include <cstdint>

int32_t TranslateIgcLog();
