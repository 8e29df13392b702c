// KML track document.
#pragma once

#include <cstdint>

struct FlightAnalysis;
struct TextBuffer;

constexpr int32_t kXmlStartLength = 17;

// The document has no kml root: Document is its outermost element.
inline constexpr char pszKmlHead[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<Document>\r\n<open>1</open>\r\n";
inline constexpr char pszKmlTail[] = "</Document>\r\n";

// Writes the text that starts every track digest, and its terminator, to
// `secret` (kXmlStartLength + 1 bytes). The program holds it only scrambled;
// it never changes, or earlier documents would no longer verify.
void GetXmlStart(char* secret);

// Builds the whole KML document of an analysed track into `text`. When any
// point has an unusable time (0, 2147483647 or 4294967295) the times of
// every point of `record->pPoints` become 0, 5, 10, ... seconds and the
// record's UTC flag is cleared; the caller's track log keeps that change.
// Returns 0, or -1 when memory runs out (the text is abandoned then).
int32_t MakeGoogleFolder(FlightAnalysis* record, TextBuffer* text);
