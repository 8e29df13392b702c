#include "kml_support.h"

#include <openssl/evp.h>

#include <cstdio>
#include <sstream>

#include "external_tools.h"
#include "output/google.h"
#include "output/hash.h"
#include "support.h"

namespace test {

namespace {

// The text between `open` and the next `close` after `from`; npos-safe.
bool Between(const std::string& text, const std::string& open, const std::string& close, std::string* inner,
             size_t from = 0) {
  size_t start = text.find(open, from);
  if (start == std::string::npos) return false;
  start += open.size();
  size_t end = text.find(close, start);
  if (end == std::string::npos) return false;
  *inner = text.substr(start, end - start);
  return true;
}

std::optional<std::string> Attribute(const std::string& fsInfo, const std::string& name) {
  std::string value;
  if (!Between(fsInfo, " " + name + "=\"", "\"", &value) &&
      !Between(fsInfo, "\n                " + name + "=\"", "\"", &value)) {
    return std::nullopt;
  }
  return value;
}

std::vector<std::string> Lines(const std::string& block) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < block.size()) {
    size_t end = block.find("\r\n", start);
    if (end == std::string::npos) end = block.size();
    lines.push_back(block.substr(start, end - start));
    start = end + 2;
  }
  return lines;
}

std::string WithoutLineEnds(const std::string& block) {
  std::string joined;
  for (const std::string& line : Lines(block)) joined += line;
  return joined;
}

}  // namespace

bool ReadTrackMetadata(const std::string& document, TrackMetadata* track, std::string* error) {
  const std::string opening = "      <Metadata src=\"KestrixMac64\" v=\"4.72\" type=\"track\">\r\n        <FsInfo";
  size_t at = document.find(opening);
  if (at == std::string::npos) {
    *error = "no track metadata";
    return false;
  }
  const std::string listStart = ">\r\n          <SecondsFromTimeOfFirstPoint>\r\n";
  size_t close = document.find(listStart, at);
  if (close == std::string::npos) {
    *error = "no SecondsFromTimeOfFirstPoint list";
    return false;
  }
  track->fsInfo = document.substr(at + opening.size() - 7, close + 1 - (at + opening.size() - 7));
  std::optional<std::string> first = Attribute(track->fsInfo, "time_of_first_point");
  if (!first) {
    *error = "no time_of_first_point";
    return false;
  }
  track->timeOfFirstPoint = *first;
  track->instrument = Attribute(track->fsInfo, "instrument");
  track->downloaded = Attribute(track->fsInfo, "downloaded");
  track->hash = Attribute(track->fsInfo, "hash");
  const std::string secondsEnd = "          </SecondsFromTimeOfFirstPoint>\r\n";
  size_t from = close;
  if (!Between(document, listStart, secondsEnd, &track->seconds, from)) {
    *error = "unterminated SecondsFromTimeOfFirstPoint";
    return false;
  }
  from = document.find(secondsEnd, from) + secondsEnd.size();
  if (document.compare(from, 30, "          <PressureAltitude>\r\n") == 0) {
    std::string pressure;
    if (!Between(document, "          <PressureAltitude>\r\n", "          </PressureAltitude>\r\n", &pressure, from)) {
      *error = "unterminated PressureAltitude";
      return false;
    }
    track->pressure = pressure;
  }
  if (!Between(document, "        <altitudeMode>", "</altitudeMode>\r\n", &track->altitudeMode, from) ||
      !Between(document,
               "        <altitudeMode>" + track->altitudeMode + "</altitudeMode>\r\n        <coordinates>\r\n",
               "        </coordinates>\r\n", &track->coordinates, from)) {
    *error = "no track coordinates";
    return false;
  }
  return true;
}

std::vector<std::string> ListValues(const std::string& block) {
  std::vector<std::string> values;
  std::istringstream in(block);
  std::string value;
  while (in >> value) values.push_back(value);
  return values;
}

std::string ListLayoutProblem(const std::string& block, size_t perLine) {
  if (!block.ends_with("\r\n")) return "the list does not end with a line end";
  std::vector<std::string> lines = Lines(block);
  for (size_t i = 0; i < lines.size(); ++i) {
    const std::string& line = lines[i];
    const bool last = i + 1 == lines.size();
    const size_t values = ListValues(line).size();
    if (last ? (values < 1 || values > perLine) : values != perLine) {
      return "line " + std::to_string(i + 1) + " holds " + std::to_string(values) + " values";
    }
    if (line.ends_with(" ") == last) return "line " + std::to_string(i + 1) + " has the wrong trailing blank";
    if (line.find("  ") != std::string::npos || line.starts_with(" ")) {
      return "line " + std::to_string(i + 1) + " has stray blanks";
    }
  }
  return "";
}

std::string DigestInput(const TrackMetadata& track) {
  char secret[kXmlStartLength + 1];
  GetXmlStart(secret);
  std::string input = secret;
  input += track.timeOfFirstPoint;
  if (track.instrument) input += *track.instrument;
  if (track.downloaded) input += *track.downloaded;
  input += WithoutLineEnds(track.seconds);
  if (track.pressure) input += WithoutLineEnds(*track.pressure);
  input += WithoutLineEnds(track.coordinates);
  return input;
}

std::string Sha1Hex(const std::string& bytes) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), md, &length, EVP_sha1(), nullptr) != 1) return "EVP_Digest failed";
  std::string hex;
  char pair[3];
  for (unsigned int i = 0; i < length; ++i) {
    std::snprintf(pair, sizeof pair, "%02X", md[i]);
    hex += pair;
  }
  return hex;
}

std::string HashStringDigest(const std::string& text) {
  HashContext hash;
  HashInit(&hash);
  HashString(&hash, text.c_str());
  uint32_t digest[5];
  HashFinish(&hash, digest);
  char hex[41];
  std::snprintf(hex, sizeof hex, "%08X%08X%08X%08X%08X", digest[0], digest[1], digest[2], digest[3], digest[4]);
  return hex;
}

std::string ResultPlacemark(const std::string& document, const std::string& type) {
  std::string inner;
  const std::string open = "    <Placemark>\r\n      <Metadata src=\"KestrixMac64\" v=\"1.06\" type=\"" + type + "\">";
  if (!Between(document, open, "    </Placemark>\r\n", &inner)) return "";
  return open + inner + "    </Placemark>\r\n";
}

std::string StatisticsBlock(const std::string& document) {
  std::string inner;
  if (!Between(document, "<pre>\r\nFlight statistics\r\n", "</pre>]]>\r\n", &inner)) return "";
  return inner;
}

std::string XmlProblem(const std::string& path) {
  std::string output;
  if (RunTool("xmllint --nonet --noout " + ShellQuote(path), &output) == 0 && output.empty()) return "";
  return output.empty() ? "xmllint failed" : output;
}

}  // namespace test
