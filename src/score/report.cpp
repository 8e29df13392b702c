#include "score/report.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "geo/time.h"

namespace score {
namespace {

const char* const kFreeRoles[] = {"start", "tp1", "tp2", "tp3", "finish"};
const char* const kTriangleRoles[] = {"tp1", "tp2", "tp3", "start", "finish"};

const char* Title(ShapeKind kind) {
  return kind == ShapeKind::kFree ? "free distance" : kind == ShapeKind::kFlat ? "flat triangle" : "FAI triangle";
}
const char* Key(ShapeKind kind) { return kind == ShapeKind::kFree ? "free" : kind == ShapeKind::kFlat ? "flat" : "fai"; }
const char* const* Roles(ShapeKind kind) { return kind == ShapeKind::kFree ? kFreeRoles : kTriangleRoles; }
double Km(double metres) { return metres / 1000.0; }

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  char buffer[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  return buffer;
}

SystemTime TimeOf(const Fix& fix) {
  SystemTime t{};
  ConvertGpsTimeToSystemTime(fix.time, &t);
  return t;
}

std::string JsonString(const char* text) {
  std::string out = "\"";
  for (const char* p = text; *p != '\0'; ++p) {
    const unsigned char c = static_cast<unsigned char>(*p);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += *p;
    } else if (c < 0x20) {
      out += Format("\\u%04x", c);
    } else {
      out += *p;
    }
  }
  return out + "\"";
}

std::string XmlText(const char* text) {
  std::string out;
  for (const char* p = text; *p != '\0'; ++p) {
    switch (*p) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      default: out += *p;
    }
  }
  return out;
}

const char* BaseName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

std::string DescribeTier(const Tier& tier) {
  std::string closes;
  if (tier.relative == 0.0) {
    closes = Format("closing within %g km", tier.fixedKm);
  } else if (tier.fixedKm == 0.0) {
    closes = Format("closing within %g %% of the perimeter", tier.relative * 100.0);
  } else {
    closes = Format("closing within %g km or %g %% of the perimeter, whichever is more", tier.fixedKm,
                    tier.relative * 100.0);
  }
  const std::string deducted =
      tier.freeKm > 0.0 ? Format("a gap beyond %g km deducted", tier.freeKm) : std::string("the gap deducted");
  return Format("%s x%g, %s, %s", tier.name, tier.multiplier, closes.c_str(), deducted.c_str());
}


void PrintShape(const Report& report, const Shape& shape, std::FILE* out) {
  const std::vector<Fix>& fixes = report.flight->fixes;
  std::fprintf(out, "\n%s: ", Title(shape.kind));
  if (!shape.found) {
    if (shape.kind == ShapeKind::kFree) {
      std::fprintf(out, "none: fewer than two fixes\n");
    } else if (fixes.size() < 3) {
      std::fprintf(out, "none: fewer than three fixes\n");
    } else {
      std::fprintf(out, "none: no %s scoring above zero closes under these rules%s\n",
                   shape.kind == ShapeKind::kFai ? "FAI triangle" : "triangle",
                   shape.optimal ? "" : Format(" (not proven: the search stopped at its time or memory limit, no score "
                                               "above %.3f)", Km(shape.bound)).c_str());
    }
    return;
  }
  std::fprintf(out, "%.3f km", Km(shape.distance));
  if (shape.kind != ShapeKind::kFree) std::fprintf(out, ", gap %.3f km", Km(shape.gap));
  std::fprintf(out, ", score %.3f (%s x%g)", Km(shape.score), shape.name, shape.multiplier);
  if (shape.optimal) {
    std::fprintf(out, ", optimal\n");
  } else {
    std::fprintf(out, ", best found: the search stopped at its time or memory limit, no score above %.3f\n",
                 Km(shape.bound));
  }
  const char* const* roles = Roles(shape.kind);
  for (size_t k = 0; k < shape.points.size(); ++k) {
    const Fix& fix = fixes[static_cast<size_t>(shape.points[k])];
    const SystemTime t = TimeOf(fix);
    std::fprintf(out, "  %-7s fix %-7d %02u:%02u:%02u  %9.5f %c  %10.5f %c%s\n", roles[k], fix.record + 1, t.wHour,
                 t.wMinute, t.wSecond, std::fabs(fix.latitude), fix.latitude < 0 ? 'S' : 'N', std::fabs(fix.longitude),
                 fix.longitude < 0 ? 'W' : 'E', shape.kind != ShapeKind::kFree && k == 3 ? "  closing" : "");
  }
  std::fprintf(out, "  legs   ");
  for (double leg : shape.legs) std::fprintf(out, " %.3f", Km(leg));
  std::fprintf(out, " km%s\n", shape.kind == ShapeKind::kFree ? "" : " (tp1-tp2, tp2-tp3, tp3-tp1)");
}

void JsonShape(const Report& report, const Shape& shape, std::FILE* out, bool last) {
  const std::vector<Fix>& fixes = report.flight->fixes;
  std::fprintf(out, "  \"%s\": {\n", Key(shape.kind));
  std::fprintf(out, "    \"found\": %s,\n", shape.found ? "true" : "false");
  std::fprintf(out, "    \"kind\": %s,\n", JsonString(shape.found ? shape.name : Title(shape.kind)).c_str());
  std::fprintf(out, "    \"score\": %.6f,\n", Km(shape.score));
  std::fprintf(out, "    \"distance\": %.6f,\n", Km(shape.distance));
  std::fprintf(out, "    \"gap\": %.6f,\n", Km(shape.gap));
  std::fprintf(out, "    \"multiplier\": %g,\n", shape.multiplier);
  std::fprintf(out, "    \"optimal\": %s,\n", shape.optimal ? "true" : "false");
  std::fprintf(out, "    \"bound\": %.6f,\n", Km(shape.bound));
  std::fprintf(out, "    \"seconds\": %.3f,\n", shape.seconds);
  std::fprintf(out, "    \"legs\": [");
  for (size_t k = 0; k < shape.legs.size(); ++k) std::fprintf(out, "%s%.6f", k > 0 ? ", " : "", Km(shape.legs[k]));
  std::fprintf(out, "],\n    \"points\": [");
  const char* const* roles = Roles(shape.kind);
  for (size_t k = 0; k < shape.points.size(); ++k) {
    const Fix& fix = fixes[static_cast<size_t>(shape.points[k])];
    const SystemTime t = TimeOf(fix);
    std::fprintf(out,
                 "%s\n      {\"role\": \"%s\", \"fix\": %d, \"time\": \"%04u-%02u-%02uT%02u:%02u:%02uZ\", "
                 "\"latitude\": %.7f, \"longitude\": %.7f}",
                 k > 0 ? "," : "", roles[k], fix.record + 1, t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute,
                 t.wSecond, fix.latitude, fix.longitude);
  }
  std::fprintf(out, "%s]\n  }%s\n", shape.points.empty() ? "" : "\n    ", last ? "" : ",");
}

std::string KmlPoint(const Fix& fix) { return Format("%.7f,%.7f,0", fix.longitude, fix.latitude); }

void KmlShape(const Report& report, const Shape& shape, const char* color, std::string* kml) {
  if (!shape.found) return;
  const std::vector<Fix>& fixes = report.flight->fixes;
  auto at = [&](size_t k) -> const Fix& { return fixes[static_cast<size_t>(shape.points[k])]; };
  *kml += Format("    <Folder>\n      <name>%s %.3f km, score %.3f%s</name>\n", XmlText(Title(shape.kind)).c_str(),
                 Km(shape.distance), Km(shape.score), shape.optimal ? "" : " (not proven optimal)");
  *kml += Format("      <Placemark>\n        <name>route</name>\n        <Style><LineStyle><color>%s</color>"
                 "<width>3</width></LineStyle></Style>\n        <LineString>\n          <tessellate>1</tessellate>\n"
                 "          <coordinates>",
                 color);
  const size_t corners = shape.kind == ShapeKind::kFree ? 5 : 3;
  for (size_t k = 0; k < corners; ++k) *kml += KmlPoint(at(k)) + " ";
  if (shape.kind != ShapeKind::kFree) *kml += KmlPoint(at(0));
  *kml += "</coordinates>\n        </LineString>\n      </Placemark>\n";
  if (shape.kind != ShapeKind::kFree) {
    *kml += Format("      <Placemark>\n        <name>closing gap %.3f km</name>\n        <Style><LineStyle><color>%s"
                   "</color><width>1</width></LineStyle></Style>\n        <LineString>\n          <coordinates>%s %s"
                   "</coordinates>\n        </LineString>\n      </Placemark>\n",
                   Km(shape.gap), color, KmlPoint(at(3)).c_str(), KmlPoint(at(4)).c_str());
  }
  const char* const* roles = Roles(shape.kind);
  for (size_t k = 0; k < shape.points.size(); ++k) {
    const SystemTime t = TimeOf(at(k));
    *kml += Format("      <Placemark>\n        <name>%s</name>\n        <description>fix %d, %02u:%02u:%02u UTC"
                   "</description>\n        <Point><coordinates>%s</coordinates></Point>\n      </Placemark>\n",
                   roles[k], at(k).record + 1, t.wHour, t.wMinute, t.wSecond, KmlPoint(at(k)).c_str());
  }
  *kml += "    </Folder>\n";
}

}  // namespace

void PrintText(const Report& report, std::FILE* out) {
  const Flight& flight = *report.flight;
  std::fprintf(out, "%s: %zu of %d fixes used (%d invalid, %d repeated times left out)\n", BaseName(report.file),
               flight.fixes.size(), flight.records, flight.invalid, flight.repeated);
  std::fprintf(out, "rules %s: %s\n", report.rules->name, report.rules->title);
  std::fprintf(out, "distances on the %s\n",
               report.earth == Earth::kWgs84 ? "WGS-84 ellipsoid (geodesics)" : "FAI sphere (radius 6371 km)");
  PrintShape(report, report.scores->free, out);
  PrintShape(report, report.scores->flat, out);
  PrintShape(report, report.scores->fai, out);
}

void PrintJson(const Report& report, std::FILE* out) {
  const Flight& flight = *report.flight;
  std::fprintf(out, "{\n  \"file\": %s,\n", JsonString(BaseName(report.file)).c_str());
  std::fprintf(out, "  \"rules\": %s,\n", JsonString(report.rules->name).c_str());
  std::fprintf(out, "  \"earth\": \"%s\",\n", report.earth == Earth::kWgs84 ? "wgs84" : "fai-sphere");
  std::fprintf(out, "  \"fixes\": {\"records\": %d, \"used\": %zu, \"invalid\": %d, \"repeated\": %d},\n",
               flight.records, flight.fixes.size(), flight.invalid, flight.repeated);
  JsonShape(report, report.scores->free, out, false);
  JsonShape(report, report.scores->flat, out, false);
  JsonShape(report, report.scores->fai, out, true);
  std::fprintf(out, "}\n");
}

void PrintRuleSets(std::FILE* out) {
  for (const RuleSet& rules : kRuleSets) {
    std::fprintf(out, "%s: %s\n", rules.name, rules.title);
    std::fprintf(out, "  distances on the %s\n",
                 rules.earth == Earth::kWgs84 ? "WGS-84 ellipsoid" : "FAI sphere (radius 6371 km)");
    std::fprintf(out, "  free distance via up to 3 turnpoints x%g\n", rules.freeMultiplier);
    for (int k = 0; k < rules.flatTiers; ++k) std::fprintf(out, "  %s\n", DescribeTier(rules.flat[k]).c_str());
    for (int k = 0; k < rules.faiTiers; ++k) {
      std::fprintf(out, "  %s; every leg at least %g %% of the perimeter\n", DescribeTier(rules.fai[k]).c_str(),
                   rules.faiLeg * 100.0);
    }
    std::fprintf(out, "  source: %s\n", rules.source);
  }
}

std::string MakeKml(const Report& report) {
  std::string kml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<kml xmlns=\"http://www.opengis.net/kml/2.2\">\n"
                    "  <Document>\n";
  kml += Format("    <name>%s, rules %s</name>\n", XmlText(BaseName(report.file)).c_str(), report.rules->name);
  // KML colours are aabbggrr.
  KmlShape(report, report.scores->free, "ff0000ff", &kml);
  KmlShape(report, report.scores->flat, "ffff0000", &kml);
  KmlShape(report, report.scores->fai, "ff00ff00", &kml);
  kml += "  </Document>\n</kml>\n";
  return kml;
}

int WriteFileAtomically(const char* path, const std::string& text) {
  std::string temporary = std::string(path) + ".XXXXXX";
  const int fd = mkstemp(temporary.data());
  if (fd >= 0) {
    // mkstemp makes the file private; the document gets the usual mode.
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(fd, 0666 & ~mask);
  }
  if (fd < 0) {
    std::fprintf(stderr, "Cannot write %s: %s\n", path, std::strerror(errno));
    return -1;
  }
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t written = write(fd, text.data() + done, text.size() - done);
    if (written <= 0) break;
    done += static_cast<size_t>(written);
  }
  const bool complete = done == text.size();
  const int error = complete ? 0 : errno;
  if (close(fd) != 0 || !complete || std::rename(temporary.c_str(), path) != 0) {
    std::fprintf(stderr, "Cannot write %s: %s\n", path, std::strerror(error != 0 ? error : errno));
    std::remove(temporary.c_str());
    return -1;
  }
  return 0;
}

}  // namespace score
