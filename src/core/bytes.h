// Byte order of wire records, once for every protocol: little-endian readers
// (the Syride, Flymaster and Leonardo records) and big-endian ones (Ascent,
// MLR, Syride flight memory, Leonardo altitudes). Signed readers extend the
// sign from the field's own width.
#pragma once

#include <cstdint>
#include <cstring>

inline uint16_t ReadUnsignedShort(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
inline int16_t ReadSignedShort(const uint8_t* p) { return static_cast<int16_t>(ReadUnsignedShort(p)); }
inline uint32_t ReadUnsignedLong(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}
// An IEEE single-precision float stored little-endian.
inline float ReadFloat(const uint8_t* p) {
  uint32_t bits = ReadUnsignedLong(p);
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}
inline void WriteUnsignedLong(uint8_t* p, uint32_t value) {
  p[0] = static_cast<uint8_t>(value);
  p[1] = static_cast<uint8_t>(value >> 8);
  p[2] = static_cast<uint8_t>(value >> 16);
  p[3] = static_cast<uint8_t>(value >> 24);
}

inline uint16_t ReadBigUnsignedShort(const uint8_t* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
inline int16_t ReadBigSignedShort(const uint8_t* p) { return static_cast<int16_t>(ReadBigUnsignedShort(p)); }
inline int32_t ReadBigSigned24(const uint8_t* p) {
  int32_t value = p[0] << 16 | p[1] << 8 | p[2];
  return (value & 0x800000) != 0 ? value - 0x1000000 : value;
}
inline uint32_t ReadBigUnsignedLong(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8 |
         static_cast<uint32_t>(p[3]);
}
inline int32_t ReadBigSignedLong(const uint8_t* p) { return static_cast<int32_t>(ReadBigUnsignedLong(p)); }
