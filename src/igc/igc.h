// IGC text: reading into the track log, writing with the security record.
#pragma once

#include <cstdint>

int32_t TranslateIgcLog();
