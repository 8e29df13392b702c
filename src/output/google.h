// KML track document.
#pragma once

#include <cstdint>

#include "link/string.h"

struct FlightAnalysis;

constexpr int32_t kXmlStartLength = 17;

// The document has no kml root: Document is its outermost element.
inline constexpr char pszKmlHead[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<Document>\r\n<open>1</open>\r\n";
inline constexpr char pszKmlTail[] = "</Document>\r\n";

// Writes the text that starts every track digest, and its terminator, to
// `secret` (kXmlStartLength + 1 bytes). The program holds it only scrambled;
// it never changes, or earlier documents would no longer verify.
void GetXmlStart(char* secret);

// The track placemark of a document with its digest, which needs nothing
// of the analysis: it can be built while the analysis runs.
struct GoogleTrack {
  TextBuffer text;
  int32_t result = -1;        // 0 when the text is complete
  int32_t hashAt = -1;        // where the hash placeholder starts in the text
  bool rewriteTimes = false;  // the times are replaced by 5-second steps
  bool absolute = false;      // some point has a GPS altitude
  uint32_t adwDigest[5] = {};
};

// Builds the track placemark of the document MakeGoogleFolder would build,
// reading only the input part of the record and its points (which it
// leaves as they are). Returns 0, or -1 when memory runs out.
int32_t MakeGoogleTrack(const FlightAnalysis* record, GoogleTrack* track);

// Builds the whole KML document of an analysed track into `text`, with the
// track placemark that MakeGoogleTrack made for it.
int32_t MakeGoogleFolder(FlightAnalysis* record, TextBuffer* text, GoogleTrack* track);

// Builds the whole KML document of an analysed track into `text`. When any
// point has an unusable time (0, 2147483647 or 4294967295) the times of
// every point of `record->pPoints` become 0, 5, 10, ... seconds and the
// record's UTC flag is cleared; the caller's track log keeps that change.
// Returns 0, or -1 when memory runs out (the text is abandoned then).
int32_t MakeGoogleFolder(FlightAnalysis* record, TextBuffer* text);
