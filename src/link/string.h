// Strict text field decoders, NMEA sentence splitting and the text collector.
#pragma once

#include <cstddef>
#include <cstdint>

// ParseNmeaString results below 1.
constexpr int kNmeaNoDollar = -1;
constexpr int kNmeaBadChecksumDigit = -2;
constexpr int kNmeaTrailingText = -3;
constexpr int kNmeaChecksumMismatch = -4;
constexpr int kNmeaNoStar = -5;

int ParseNmeaString(char* sentence, int32_t* offsets, int maximum);

// 0..15 for a hex digit of either case, else -1.
int HexDigitValue(char c);

// A waypoint's position as the instruments' waypoint sentences carry it,
// "DDMM.mmm,N,DDDMM.mmm,E" (thousandths of a minute, rounded), into `out`.
struct Waypoint;
int FormatWaypointPosition(const Waypoint& waypoint, char* out, int size);
// A waypoint's altitude as those sentences carry it: 0 to 9999 metres.
int32_t WaypointSentenceAltitude(const Waypoint& waypoint);

// The XOR of the characters between "$" and "*".
uint8_t NmeaChecksum(const char* body, int length);
// "$<body>*<checksum>\r\n" into `out` (`size` bytes), the checksum as two
// upper-case hex digits, or lower-case ones where an instrument wants them.
// Returns the length written.
int FormatNmeaSentence(char* out, int size, const char* body, bool lowerCaseChecksum = false);

// All decoders consume the whole field (blanks around it allowed) and leave
// their outputs untouched on failure.
int DecodeIntegerString(const char* text, int32_t* value);
int DecodeUintString(const char* text, uint32_t* value);
int DecodeHexString(const char* text, uint32_t* value);
int DecodeDecimalString(const char* text, double* value);
int DecodeDateString2(const char* text, uint32_t* year, uint32_t* month, uint32_t* day);
int DecodeTimeString(const char* text, uint32_t* hour, uint32_t* minute, uint32_t* second,
                     char separator);
const char* DecodeWptPosString(const char* text, int latitude, double* degrees);

int EncodeDegreesString(char* out, int32_t sec100, int latitude);

// What snprintf(out, size, "%.*f", decimals, value) writes and returns,
// for 0 to 9 decimals. The documents' coordinates are written this way:
// the same digits without the cost of a format string.
int EncodeDecimalString(char* out, size_t size, double value, int decimals);

int CompressString(char* text);
int CompressXmlString(char* text);

// A text document under construction: the caller formats one piece of at
// most 255 characters into `line`, sets `lineLength` and calls AddLogTxt.
struct TextBuffer {
  char* data = nullptr;
  int32_t capacity = 0;
  int32_t length = 0;
  char line[256] = {};
  int32_t lineLength = 0;

  TextBuffer() = default;
  TextBuffer(const TextBuffer&) = delete;
  TextBuffer& operator=(const TextBuffer&) = delete;
  ~TextBuffer();
};

constexpr int32_t kTextBufferInitialSize = 10000;

int AddLogTxt(TextBuffer* buffer);
