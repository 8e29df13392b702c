// Reading KML track documents back in tests, independently of the writer:
// the track metadata, its lists, the digest input and xmllint's verdict.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace test {

// The track placemark's metadata as written. List blocks keep their line ends.
struct TrackMetadata {
  std::string fsInfo;  // from "<FsInfo" to the ">" that closes it
  std::string timeOfFirstPoint;
  std::optional<std::string> instrument;
  std::optional<std::string> downloaded;
  std::optional<std::string> hash;
  std::string seconds;
  std::optional<std::string> pressure;
  std::string altitudeMode;
  std::string coordinates;
};

// False, with the reason in `error`, when the document has no track
// placemark of the expected shape.
bool ReadTrackMetadata(const std::string& document, TrackMetadata* track, std::string* error);

// The values of a list block, in order.
std::vector<std::string> ListValues(const std::string& block);

// Empty when every line of `block` but the last holds `perLine` values and
// ends in a blank, and the last holds 1 to `perLine` values without one.
std::string ListLayoutProblem(const std::string& block, size_t perLine);

// What the digest covers: the secret, then the values in document order,
// each list value with its trailing blank, no line ends.
std::string DigestInput(const TrackMetadata& track);

// Plain SHA-1 (OpenSSL) as forty upper-case hexadecimal digits.
std::string Sha1Hex(const std::string& bytes);
// The program's own digest of a text (HashString's packing), the same way.
std::string HashStringDigest(const std::string& text);

// The result placemark whose metadata type is `type`; empty when absent.
std::string ResultPlacemark(const std::string& document, const std::string& type);

// The statistics block from "Flight statistics" to the end of its text.
std::string StatisticsBlock(const std::string& document);

// Empty when xmllint finds `path` well-formed, else what it said.
std::string XmlProblem(const std::string& path);

}  // namespace test
