// Writes src/serial/flymaster_altitudes.cpp: the pressure altitude table of
// the Flymaster module, each entry kPa_To_Meters truncated toward zero.
//   g++ -std=c++20 -Isrc scripts/make_altitude_table.cpp -o make_altitude_table
//   ./make_altitude_table > src/serial/flymaster_altitudes.cpp
#include <cstdio>

#include "serial/flymaster.h"

int main() {
  std::printf(
      "// Pressure altitudes in metres for 100.0 to 1099.9 hPa in steps of 0.1 hPa.\n"
      "// Written by scripts/make_altitude_table.cpp; the tests check every entry\n"
      "// against kPa_To_Meters.\n"
      "#include \"serial/flymaster.h\"\n\n"
      "namespace flymaster {\n\n"
      "// clang-format off\n"
      "const int16_t g_ciAltitudes[kAltitudeTableSize] = {\n");
  for (int i = 0; i < flymaster::kAltitudeTableSize; ++i) {
    int value = flymaster::kAltitudeTableFirst + i;
    float metres = flymaster::kPa_To_Meters(static_cast<float>(value) * 10.0f, 1013.25f);
    std::printf("%s%6d,%s", i % 10 == 0 ? "   " : "", static_cast<int>(metres), i % 10 == 9 ? "\n" : "");
  }
  std::printf("};\n// clang-format on\n\n}  // namespace flymaster\n");
  return 0;
}
