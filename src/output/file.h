// Saving tracks and waypoints to files; reading waypoint files.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/records.h"
#include "link/string.h"

// Names are built in buffers of kFileNameLimit + 1 bytes.
constexpr int32_t kFileNameLimit = 255;

// Checks the downloaded track log of the run parameters and writes its IGC
// and KML files as the file-type mask asks, with --trim a trimmed pair after
// them. -1 when there is no track or a check leaves nothing; 0 otherwise,
// also when a file could not be written (each failure has been reported).
int32_t SaveTracklog();
// The IGC file: the instrument's raw text as it came, or one encoded from
// the track log. `trimmed` 1 names it "-T.igc". 0 when written, else -1.
int32_t SaveIgcTrackLog(int32_t trimmed);
// The KML document of the track log, under `name` as given or, when null, a
// made name ("-T.kml" when `trimmed` is 1). 0 when written, else -1.
int32_t SaveKmlTrackLog(const char* name, int32_t trimmed);
int32_t SaveOziWaypoints();
int32_t SaveGpxWaypoints();
int32_t SaveKmlWaypoints();
int32_t ReadWaypointFile();

// Track file name from the output name, the pilot name and `gpsTime`.
int32_t MakeLogFileName(char* buffer, int32_t maxLength, uint32_t gpsTime, const char* extension);
// Waypoint file name from the output name, or the current minute.
int32_t MakeWptFileName(char* buffer, int32_t maxLength, const char* extension);

// Formats one piece (at most 255 characters) into the collector's line and
// appends it with AddLogTxt; the result is AddLogTxt's.
int AddFormattedTxt(TextBuffer* text, const char* format, ...) __attribute__((format(printf, 2, 3)));

// In-place splitting of a waypoint file. Each stores the start of the line
// or item and returns the text after it, or null when the text ends there.
char* ExtractLine(char* text, char** line);
char* ExtractCommaItem(char* text, char** item);
char* ExtractSpaceItem(char* text, char** item);

// Identifier: 1 to 6 letters, digits or "-", nothing but blanks after it.
int32_t DecodeWaypointId(const char* text, char* id);
// Comment: up to 40 characters, anything unusual turned into "-".
void DecodeWaypointCmt(const char* text, char* comment);

// Decode a whole file's text (modified in place) into the waypoint list.
int32_t DecodeOziWpts(char* text);
int32_t DecodeGeoWpts(char* text);
