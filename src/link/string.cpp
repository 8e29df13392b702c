#include "link/string.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/memory.h"
#include "core/records.h"
#include "geo/conv.h"

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

const char* SkipBlanks(const char* p) {
  while (*p == ' ') ++p;
  return p;
}

// Whole positive number with a limit that every running value must stay
// below; returns the end of the digits, or null.
const char* ReadBoundedDigits(const char* p, uint32_t limit, uint32_t* value) {
  if (!IsDigit(*p)) return nullptr;
  uint32_t v = 0;
  while (IsDigit(*p)) {
    v = v * 10u + static_cast<uint32_t>(*p - '0');
    if (v >= limit) return nullptr;
    ++p;
  }
  *value = v;
  return p;
}

// Fraction digits after a decimal mark, each weighted a tenth of the last.
const char* ReadFraction(const char* p, double* fraction) {
  double weight = 0.1;
  double f = 0.0;
  while (IsDigit(*p)) {
    f += (*p - '0') * weight;
    weight *= 0.1;
    ++p;
  }
  *fraction = f;
  return p;
}

}  // namespace

int ParseNmeaString(char* sentence, int32_t* offsets, int maximum) {
  if (sentence[0] != '$') return kNmeaNoDollar;
  char* p = sentence + 1 + std::strcspn(sentence + 1, "*");
  if (*p != '*') return kNmeaNoStar;
  const uint8_t sum = NmeaChecksum(sentence + 1, static_cast<int>(p - sentence - 1));
  *p = '\0';
  int high = HexDigitValue(p[1]);
  int low = high < 0 ? -1 : HexDigitValue(p[2]);
  if (high < 0 || low < 0) return kNmeaBadChecksumDigit;
  if (p[3] != '\0') return kNmeaTrailingText;
  if (((high << 4) | low) != sum) return kNmeaChecksumMismatch;

  int fields = 0;
  if (maximum > 0) offsets[fields++] = 0;
  for (char* q = sentence; *q != '\0'; ++q) {
    if (*q != ',') continue;
    *q = '\0';
    if (fields < maximum) offsets[fields++] = static_cast<int32_t>(q + 1 - sentence);
  }
  return fields;
}

int HexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

int FormatWaypointPosition(const Waypoint& waypoint, char* out, int size) {
  double latitude = 0, longitude = 0;
  ConvertArcToGeoPos(waypoint.lLatitude, waypoint.lLongitude, &latitude, &longitude);
  // Below 10,800,001 for any position.
  auto thousandths = [](double angle) { return static_cast<int32_t>(std::fabs(angle) * kRadiansToMin1000 + 0.5); };
  const int32_t lat = thousandths(latitude);
  const int32_t lon = thousandths(longitude);
  return std::snprintf(out, static_cast<size_t>(size), "%04d.%03d,%c,%05d.%03d,%c", lat / 60000 * 100 + lat / 1000 % 60,
                       lat % 1000, latitude < 0 ? 'S' : 'N', lon / 60000 * 100 + lon / 1000 % 60, lon % 1000,
                       longitude < 0 ? 'W' : 'E');
}

int32_t WaypointSentenceAltitude(const Waypoint& waypoint) {
  return waypoint.lAltitude < 0 ? 0 : waypoint.lAltitude > 9999 ? 9999 : waypoint.lAltitude;
}

uint8_t NmeaChecksum(const char* body, int length) {
  uint8_t sum = 0;
  for (int i = 0; i < length; ++i) sum ^= static_cast<uint8_t>(body[i]);
  return sum;
}

int FormatNmeaSentence(char* out, int size, const char* body, bool lowerCaseChecksum) {
  const int length = static_cast<int>(std::strlen(body));
  return std::snprintf(out, static_cast<size_t>(size), lowerCaseChecksum ? "$%s*%02x\r\n" : "$%s*%02X\r\n", body,
                       NmeaChecksum(body, length));
}

namespace {

// Digits up to trailing blanks and the end; a value above 214748364 takes
// no further digit. Returns false on anything else.
bool ReadUnsignedField(const char* p, uint32_t* value) {
  uint32_t v = 0;
  while (IsDigit(*p)) {
    if (v > 214748364u) return false;
    v = v * 10u + static_cast<uint32_t>(*p - '0');
    ++p;
  }
  p = SkipBlanks(p);
  if (*p != '\0') return false;
  *value = v;
  return true;
}

}  // namespace

int DecodeUintString(const char* text, uint32_t* value) {
  uint32_t v = 0;
  if (!ReadUnsignedField(SkipBlanks(text), &v)) return -1;
  *value = v;
  return 0;
}

int DecodeIntegerString(const char* text, int32_t* value) {
  const char* p = SkipBlanks(text);
  bool negative = false;
  if (*p == '-' || *p == '+') {
    negative = *p == '-';
    p = SkipBlanks(p + 1);
  }
  uint32_t v = 0;
  if (!ReadUnsignedField(p, &v)) return -1;
  // Modular, as a 32-bit negation would be.
  *value = static_cast<int32_t>(negative ? 0u - v : v);
  return 0;
}

int DecodeHexString(const char* text, uint32_t* value) {
  const char* p = SkipBlanks(text);
  uint32_t v = 0;
  for (int digit = HexDigitValue(*p); digit >= 0; digit = HexDigitValue(*++p)) {
    v = (v << 4) | static_cast<uint32_t>(digit);
  }
  if (*p != '\0' && *p != ' ') return -1;
  *value = v;
  return 0;
}

int DecodeDecimalString(const char* text, double* value) {
  const char* p = SkipBlanks(text);
  if (*p == '\0') return -1;
  bool negative = false;
  if (*p == '-' || *p == '+') {
    negative = *p == '-';
    p = SkipBlanks(p + 1);
  }
  if (!IsDigit(*p)) return -1;
  double whole = 0.0;
  while (IsDigit(*p)) whole = whole * 10.0 + (*p++ - '0');
  double fraction = 0.0;
  if (*p == ',' || *p == '.') p = ReadFraction(p + 1, &fraction);
  p = SkipBlanks(p);
  if (*p != '\0') return -1;
  double v = whole + fraction;
  *value = negative ? -v : v;
  return 0;
}

int DecodeDateString2(const char* text, uint32_t* year, uint32_t* month, uint32_t* day) {
  static constexpr char kShape[] = "99.99.99";
  for (int i = 0; i < 8; ++i) {
    bool ok = kShape[i] == '9' ? IsDigit(text[i]) : text[i] == '.';
    if (!ok) return -1;
  }
  if (text[8] != '\0') return -1;
  auto two = [&](int at) { return static_cast<uint32_t>((text[at] - '0') * 10 + (text[at + 1] - '0')); };
  uint32_t d = two(0), m = two(3), y = two(6);
  if (m < 1 || m > 12 || d < 1 || d > 31) return -1;
  if (m == 2 && (d > 29 || (d == 29 && y % 4 != 0))) return -1;
  if (d == 31 && (m == 4 || m == 6 || m == 9 || m == 11)) return -1;
  *year = y;
  *month = m;
  *day = d;
  return 0;
}

int DecodeTimeString(const char* text, uint32_t* hour, uint32_t* minute, uint32_t* second,
                     char separator) {
  static constexpr uint32_t kLimits[3] = {24, 60, 60};
  uint32_t parts[3] = {};
  const char* p = text;
  for (int i = 0; i < 3; ++i) {
    p = SkipBlanks(p);
    if (i > 0) {
      if (*p != separator) return -1;
      p = SkipBlanks(p + 1);
    }
    p = ReadBoundedDigits(p, kLimits[i], &parts[i]);
    if (p == nullptr) return -1;
  }
  p = SkipBlanks(p);
  if (*p != '\0') return -1;
  *hour = parts[0];
  *minute = parts[1];
  *second = parts[2];
  return 0;
}

const char* DecodeWptPosString(const char* text, int latitude, double* degrees) {
  const char* p = SkipBlanks(text);
  // The hemisphere letter, either case: the positive one, then the negative.
  const char* letters = latitude ? "NnSs" : "EeWw";
  const char* letter = *p != '\0' ? std::strchr(letters, *p) : nullptr;
  if (letter == nullptr) return nullptr;
  const double sign = letter - letters < 2 ? 1.0 : -1.0;
  p = SkipBlanks(p + 1);
  uint32_t whole = 0;
  p = ReadBoundedDigits(p, latitude ? 90u : 180u, &whole);
  if (p == nullptr) return nullptr;
  double value = whole;
  if (*p == ' ') {
    uint32_t wholeMinutes = 0;
    p = ReadBoundedDigits(SkipBlanks(p), 60u, &wholeMinutes);
    if (p == nullptr) return nullptr;
    double minutes = wholeMinutes;
    if (*p == ' ') {
      uint32_t wholeSeconds = 0;
      p = ReadBoundedDigits(SkipBlanks(p), 60u, &wholeSeconds);
      if (p == nullptr) return nullptr;
      double seconds = wholeSeconds;
      if (*p == '.' || *p == ',') {
        double fraction = 0.0;
        p = ReadFraction(p + 1, &fraction);
        seconds += fraction;
      }
      minutes += seconds / 60.0;
    } else if (*p == '.' || *p == ',') {
      double fraction = 0.0;
      p = ReadFraction(p + 1, &fraction);
      minutes += fraction;
    }
    value += minutes / 60.0;
  } else if (*p == '.' || *p == ',') {
    double fraction = 0.0;
    p = ReadFraction(p + 1, &fraction);
    value += fraction;
  }
  *degrees = sign * value;
  return p;
}

int EncodeDegreesString(char* out, int32_t sec100, int latitude) {
  // Magnitude in 64 bits so that the most negative value has one.
  int64_t v = sec100 < 0 ? -static_cast<int64_t>(sec100) : sec100;
  int n;
  if (latitude) {
    out[0] = sec100 >= 0 ? 'N' : 'S';
    n = std::sprintf(out + 1, " %02d  %02d  %02d.%02d", static_cast<int>(v / 360000),
                     static_cast<int>(v / 6000 % 60), static_cast<int>(v / 100 % 60),
                     static_cast<int>(v % 100));
  } else {
    out[0] = sec100 >= 0 ? 'E' : 'W';
    n = std::sprintf(out + 1, " %03d  %02d  %02d.%02d", static_cast<int>(v / 360000),
                     static_cast<int>(v / 6000 % 60), static_cast<int>(v / 100 % 60),
                     static_cast<int>(v % 100));
  }
  return n;
}

namespace {

constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

constexpr uint64_t kPowersOfTen[10] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000, 100000000, 1000000000};

// A value below 1e9 in magnitude with `kDecimals` decimals: the binary value
// times 10^kDecimals, exactly in 128 bits, rounded half to even as printf
// rounds. A constant number of decimals spares the divisions.
template <int kDecimals>
int EncodeSmallDecimal(char* out, double value) {
  constexpr uint64_t kScale = kPowersOfTen[kDecimals];
  __extension__ using Wide = unsigned __int128;
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  const bool negative = (bits >> 63) != 0;
  const int exponent = static_cast<int>((bits >> 52) & 0x7FFu);
  uint64_t mantissa = bits & ((uint64_t{1} << 52) - 1);
  if (exponent != 0) mantissa |= uint64_t{1} << 52;
  // value = mantissa / 2^shift; below 1e9 the shift is at least 23.
  const int shift = 1075 - (exponent != 0 ? exponent : 1);
  const Wide scaled = static_cast<Wide>(mantissa) * kScale;
  uint64_t units = 0;
  if (shift < 128) {
    units = static_cast<uint64_t>(scaled >> shift);
    const Wide rest = scaled - (static_cast<Wide>(units) << shift);
    const Wide half = static_cast<Wide>(1) << (shift - 1);
    if (rest > half || (rest == half && (units & 1u) != 0)) ++units;
  }
  char* p = out;
  if (negative) *p++ = '-';
  uint64_t whole = units / kScale;
  uint64_t fraction = units % kScale;
  char digits[20];
  int n = 0;
  do {
    digits[n++] = static_cast<char>('0' + whole % 10);
    whole /= 10;
  } while (whole != 0);
  while (n > 0) *p++ = digits[--n];
  if (kDecimals > 0) {
    *p++ = '.';
    int k = kDecimals;
    for (; k >= 2; k -= 2) {
      std::memcpy(p + k - 2, kDigitPairs + 2 * (fraction % 100), 2);
      fraction /= 100;
    }
    if (k == 1) p[0] = static_cast<char>('0' + fraction);
    p += kDecimals;
  }
  *p = '\0';
  return static_cast<int>(p - out);
}

}  // namespace

int EncodeDecimalString(char* out, size_t size, double value, int decimals) {
  constexpr size_t kLongest = 21;  // sign, 9 + 1 + 9 characters, terminator
  if (!(std::fabs(value) < 1e9) || size < kLongest) return std::snprintf(out, size, "%.*f", decimals, value);
  switch (decimals) {
    case 0: return EncodeSmallDecimal<0>(out, value);
    case 1: return EncodeSmallDecimal<1>(out, value);
    case 2: return EncodeSmallDecimal<2>(out, value);
    case 3: return EncodeSmallDecimal<3>(out, value);
    case 4: return EncodeSmallDecimal<4>(out, value);
    case 5: return EncodeSmallDecimal<5>(out, value);
    case 6: return EncodeSmallDecimal<6>(out, value);
    case 7: return EncodeSmallDecimal<7>(out, value);
    case 8: return EncodeSmallDecimal<8>(out, value);
    case 9: return EncodeSmallDecimal<9>(out, value);
    default: return std::snprintf(out, size, "%.*f", decimals, value);
  }
}

int CompressString(char* text) {
  char* out = text;
  const char* p = text;
  while (*p == ' ') ++p;
  while (*p != '\0') {
    if (*p == ' ') {
      while (p[1] == ' ') ++p;
    }
    *out++ = *p++;
  }
  if (out > text && out[-1] == ' ') --out;
  *out = '\0';
  return static_cast<int>(out - text);
}

int CompressXmlString(char* text) {
  if (text == nullptr) return 0;
  for (char* p = text; *p != '\0'; ++p) {
    if (*p == '\r' || *p == '\n' || *p == '\t') *p = ' ';
  }
  return CompressString(text);
}

TextBuffer::~TextBuffer() { std::free(data); }

int AddLogTxt(TextBuffer* buffer) {
  // A piece never exceeds the line area, whatever the formatting call said.
  int32_t lineLength = buffer->lineLength;
  if (lineLength < 0 || lineLength > 255) {
    lineLength = static_cast<int32_t>(strnlen(buffer->line, 255));
  }
  if (buffer->data == nullptr) {
    buffer->data = static_cast<char*>(pAllocate(kTextBufferInitialSize));
    if (buffer->data == nullptr) return -1;
    buffer->capacity = kTextBufferInitialSize;
    buffer->length = 0;
    buffer->data[0] = '\0';
  }
  if (buffer->length + lineLength + 1 >= buffer->capacity) {
    char* grown = static_cast<char*>(pAllocate(static_cast<size_t>(buffer->capacity) * 2));
    if (grown == nullptr) {
      std::free(buffer->data);
      buffer->data = nullptr;
      return -1;
    }
    std::memcpy(grown, buffer->data, static_cast<size_t>(buffer->length) + 1);
    std::free(buffer->data);
    buffer->data = grown;
    buffer->capacity *= 2;
  }
  std::memcpy(buffer->data + buffer->length, buffer->line, static_cast<size_t>(lineLength));
  buffer->length += lineLength;
  buffer->data[buffer->length] = '\0';
  return 0;
}
