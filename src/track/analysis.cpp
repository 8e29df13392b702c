#include "track/analysis.h"

#include <sys/mman.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <thread>
#include <utility>

#include "core/console.h"
#include "core/memory.h"
#include "core/run.h"
#include "geo/conv.h"
#include "geo/time.h"
#include "track/parallel.h"

namespace {

// Big tables are written once in full, and a fault per small page costs
// more than filling it: a table of about a whole number of large pages gets
// them, aligned to them, where the system gives large pages on request.
constexpr size_t kLargePage = size_t{1} << 21;

bool WantsLargePages(size_t bytes) {
#ifdef MADV_HUGEPAGE
  const size_t rounded = (bytes + kLargePage - 1) / kLargePage * kLargePage;
  return bytes >= kLargePage - kLargePage / 8 && rounded - bytes <= bytes / 8;
#else
  (void)bytes;
  return false;
#endif
}

// A table from pAllocate, freed on every way out.
template <typename T>
class Table {
 public:
  explicit Table(size_t count) {
    const size_t bytes = std::max<size_t>(count, 1) * sizeof(T);
    if (!WantsLargePages(bytes)) {
      raw_ = pAllocate(bytes);
      data_ = static_cast<T*>(raw_);
      return;
    }
    // Two large pages more: one to align, one for the rounding up.
    raw_ = pAllocate(bytes + 2 * kLargePage);
    if (raw_ == nullptr) return;
    const uintptr_t aligned = (reinterpret_cast<uintptr_t>(raw_) + kLargePage - 1) & ~(uintptr_t{kLargePage} - 1);
    data_ = reinterpret_cast<T*>(aligned);
#ifdef MADV_HUGEPAGE
    madvise(data_, (bytes + kLargePage - 1) / kLargePage * kLargePage, MADV_HUGEPAGE);
#endif
  }
  ~Table() { std::free(raw_); }
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;
  bool ok() const { return data_ != nullptr; }
  T* get() const { return data_; }
  T& operator[](size_t i) const { return data_[i]; }

 private:
  void* raw_ = nullptr;
  T* data_ = nullptr;
};

GeoPos Geo(const TrackPoint& point) {
  GeoPos g;
  ConvertArcToGeoPos(point.lLatitude, point.lLongitude, &g.latitude, &g.longitude);
  return g;
}

// Geodesic distance with the preset 0 that a failed computation leaves.
double Distance(const TrackPoint& first, const TrackPoint& second) {
  double d = 0.0;
  CalcDistance(Geo(first), Geo(second), &d);
  return d;
}

bool IsSegmentStart(const TrackPoint& point) { return (point.dwFlags & kTrackPointNewSegment) != 0; }

// ---------------------------------------------------------------------------
// Track checks

// The first whitespace-delimited word the user types. A blank line keeps the
// question open; the end of input or an interrupt gives an empty word.
void ReadUserWord(char* word, size_t size) {
  char line[256];
  word[0] = '\0';
  for (;;) {
    if (GetUserInput(line, sizeof line) < 0) return;
    const char* p = line;
    while (*p != '\0' && std::isspace(static_cast<unsigned char>(*p))) ++p;
    if (*p == '\0') {
      if (line[0] != '\0' && tGps.bAbort == 0) continue;
      return;
    }
    size_t n = 0;
    while (p[n] != '\0' && !std::isspace(static_cast<unsigned char>(p[n])) && n + 1 < size) {
      word[n] = p[n];
      ++n;
    }
    word[n] = '\0';
    return;
  }
}

struct TrackSpan {
  int32_t first;
  int32_t last;
  bool selected;
};

// Marks the tracks a comma-separated list names (number 1 is the newest
// track). Returns false for a word with any other character.
bool ParseTrackSelection(const char* word, TrackSpan* tracks, int32_t count) {
  for (int32_t k = 0; k < count; ++k) tracks[k].selected = false;
  int64_t number = 0;
  for (const char* c = word;; ++c) {
    if (*c >= '0' && *c <= '9') {
      number = std::min<int64_t>(number * 10 + (*c - '0'), 1000000);
    } else if (*c == ',' || *c == '\0') {
      if (number >= 1 && number <= count) tracks[count - number].selected = true;
      number = 0;
      if (*c == '\0') return true;
    } else {
      return false;
    }
  }
}

// The track keeps its first `kept` points: says how many went, or that none is left.
int32_t KeepPoints(int32_t kept, int32_t count, const char* noneLeft, const char* removed) {
  tGps.nTrackPoints = kept;
  if (kept == 0) {
    std::printf("%s\n", noneLeft);
    return -1;
  }
  if (kept < count) std::printf("%d positions %s\n", count - kept, removed);
  return 0;
}

}  // namespace

int32_t CheckForInvalidTimeStamps() {
  TrackPoint* points = tGps.pTrackPoints;
  int32_t count = tGps.nTrackPoints;
  int32_t kept = 0;
  for (int32_t i = 0; i < count; ++i) {
    uint32_t t = points[i].dwTime;
    if (t != 0 && t != 0x7FFFFFFFu && t != 0xFFFFFFFFu) points[kept++] = points[i];
  }
  return KeepPoints(kept, count, "All positions have an invalid timestamp",
                    "with invalid timestamp have been removed");
}

int32_t CheckForMultipleTracks() {
  TrackPoint* points = tGps.pTrackPoints;
  int32_t count = tGps.nTrackPoints;
  uint32_t gap = static_cast<uint32_t>(tGps.nGapSeconds);
  if (count < 2 || gap == 0) return 0;

  TrackSpan tracks[rules::kMaxTracks];
  int32_t tracksFound = 1;
  tracks[0].first = 0;
  uint32_t reference = points[0].dwTime;
  // The comparison with 0x0FFFFFFF (not the default 0xFFFFFFFF) leaves only
  // the instrument's segment marks to split a log when --gap is not given.
  for (int32_t i = 1; i < count && tracksFound < rules::kMaxTracks; ++i) {
    uint32_t t = points[i].dwTime;
    if (t <= reference) continue;
    if ((gap != 0x0FFFFFFFu && t - reference >= gap) || IsSegmentStart(points[i])) tracks[tracksFound++].first = i;
    reference = t;
  }
  if (tracksFound < 2) return 0;
  for (int32_t k = 0; k < tracksFound; ++k) {
    tracks[k].last = k + 1 < tracksFound ? tracks[k + 1].first - 1 : count - 1;
  }

  std::printf("Multiple tracks detected:\n");
  for (int32_t number = 1; number <= tracksFound; ++number) {
    const TrackSpan& track = tracks[tracksFound - number];
    SystemTime start;
    ConvertGpsTimeToSystemTime(points[track.first].dwTime, &start);
    uint32_t duration = points[track.last].dwTime - points[track.first].dwTime;
    std::printf("%-2d  %02d-%02d-%02d   %02d:%02d:%02d   %d:%02d:%02d\n", number, static_cast<int>(start.wDay),
                static_cast<int>(start.wMonth), static_cast<int>(start.wYear), static_cast<int>(start.wHour),
                static_cast<int>(start.wMinute), static_cast<int>(start.wSecond), static_cast<int>(duration / 3600),
                static_cast<int>(duration / 60 % 60), static_cast<int>(duration % 60));
  }

  char word[256];
  for (;;) {
    std::printf("Select (a=all,0=none): ");
    ReadUserWord(word, sizeof word);
    if ((word[0] == 'a' || word[0] == 'A') && word[1] == '\0') return 0;
    if (word[0] == '0' && word[1] == '\0') {
      tGps.nTrackPoints = 0;
      std::printf("No track selected\n");
      return -1;
    }
    if (ParseTrackSelection(word, tracks, tracksFound)) break;
  }

  int32_t kept = 0;
  for (int32_t k = 0; k < tracksFound; ++k) {
    if (!tracks[k].selected) continue;
    int32_t length = tracks[k].last - tracks[k].first + 1;
    std::memmove(points + kept, points + tracks[k].first, sizeof(TrackPoint) * static_cast<size_t>(length));
    kept += length;
  }
  tGps.nTrackPoints = kept;
  if (kept == 0) {
    std::printf("No track selected\n");
    return -1;
  }
  return 0;
}

int32_t CheckForTimestampConsistency() {
  TrackPoint* points = tGps.pTrackPoints;
  int32_t count = tGps.nTrackPoints;
  if (count < 2) return 0;
  int32_t backwards = 0;
  uint32_t latest = points[0].dwTime;
  for (int32_t i = 1; i < count; ++i) {
    if (points[i].dwTime < latest) ++backwards;
    latest = std::max(latest, points[i].dwTime);
  }
  if (backwards == 0) return 0;
  std::printf("%d positions have a timestamp going back in time. Keep anyway ? ", backwards);
  char word[256];
  ReadUserWord(word, sizeof word);
  if (word[0] == 'n' || word[0] == 'N') {
    int32_t kept = 0;
    latest = 0;
    for (int32_t i = 0; i < count; ++i) {
      if (points[i].dwTime < latest) continue;
      latest = points[i].dwTime;
      points[kept++] = points[i];
    }
    tGps.nTrackPoints = kept;
  }
  return 0;
}

int32_t CheckForSpeedConsistency() {
  TrackPoint* points = tGps.pTrackPoints;
  int32_t count = tGps.nTrackPoints;
  if (tGps.bNoAnalysis != 0 || count < rules::kSpeedCheckMinPoints) return 0;

  // Each point's reduced latitude once and each step's speed once; without
  // the memory for them every distance is measured as it comes.
  Table<GeoPoint> geo(static_cast<size_t>(count));
  Table<double> steps(static_cast<size_t>(count));
  const bool prepared = geo.ok() && steps.ok();
  auto distance = [&](int32_t a, int32_t b) {
    if (!prepared) return Distance(points[a], points[b]);
    double d = 0.0;
    CalcPreparedDistance(geo[static_cast<size_t>(a)], geo[static_cast<size_t>(b)], &d);
    return d;
  };
  // Speed from point i - 1 to point i in m/s; 0 unless time advances.
  auto stepSpeed = [&](int32_t i) {
    if (points[i].dwTime <= points[i - 1].dwTime) return 0.0;
    return distance(i - 1, i) / static_cast<double>(points[i].dwTime - points[i - 1].dwTime);
  };
  if (prepared) {
    for (int32_t i = 0; i < count; ++i) geo[static_cast<size_t>(i)] = PrepareGeoPoint(Geo(points[i]));
    for (int32_t i = 1; i < count; ++i) steps[static_cast<size_t>(i)] = stepSpeed(i);
  }
  auto step = [&](int32_t i) { return prepared ? steps[static_cast<size_t>(i)] : stepSpeed(i); };

  int32_t bins[rules::kSpeedBins] = {};
  for (int32_t i = 1; i < count; ++i) {
    double speed = std::min(step(i), 1000000.0);
    int32_t bin = static_cast<int32_t>(speed);
    if (bin < rules::kSpeedBins) ++bins[bin];
  }
  // The speed below which 95 % of the steps lie, in 3 m/s steps.
  int64_t rest = static_cast<int64_t>(count) * 19 / 20;
  int32_t bin = 0;
  for (; bin < rules::kSpeedBins; ++bin) {
    rest -= bins[bin];
    if (rest < 1) break;
  }
  const double limit = 3.0 * bin + 1.0;

  int32_t anchor = -1;
  int32_t run = 0;
  double speed = 0.0;
  for (int32_t i = 1; i < count; ++i) {
    speed = step(i);
    run = speed < limit ? run + 1 : 0;
    if (run == rules::kSpeedAnchorRun) {
      anchor = i;
      break;
    }
  }
  if (anchor < 0) return 0;

  for (int32_t i = 0; i < count; ++i) points[i].dwFlags &= ~rules::kKeepMark;
  points[anchor].dwFlags |= rules::kKeepMark;
  int32_t reference = anchor;
  // Backwards, a point later in time than the reference keeps the speed of
  // the step before: deliberate.
  for (int32_t i = anchor - 1; i >= 0; --i) {
    if (points[i].dwTime <= points[reference].dwTime) {
      // Against a reference later in the log: equal times give an infinite speed.
      const uint32_t dt = points[reference].dwTime - points[i].dwTime;
      speed = dt == 0 ? std::numeric_limits<double>::infinity() : distance(i, reference) / static_cast<double>(dt);
    }
    if (speed < limit) {
      points[i].dwFlags |= rules::kKeepMark;
      reference = i;
    }
  }
  reference = anchor;
  for (int32_t i = anchor + 1; i < count; ++i) {
    uint32_t dt = points[i].dwTime - points[reference].dwTime;
    speed = points[i].dwTime > points[reference].dwTime
                ? distance(i, reference) / static_cast<double>(dt)
                : 0.0;
    if (speed < limit) {
      points[i].dwFlags |= rules::kKeepMark;
      reference = i;
    }
  }

  int32_t kept = 0;
  for (int32_t i = 0; i < count; ++i) {
    if ((points[i].dwFlags & rules::kKeepMark) == 0) continue;
    points[kept] = points[i];
    points[kept].dwFlags &= ~rules::kKeepMark;
    ++kept;
  }
  return KeepPoints(kept, count, "All positions removed by speed analysis", "have been removed in speed analysis");
}

// ---------------------------------------------------------------------------
// Takeoff and landing trim

namespace {

// The trim detectors compare geodesic distances with thresholds, the location
// detector for every pair of points in its window. The straight line through
// the ellipsoid (the chord) is never longer than the geodesic, and for points
// within 100 km the geodesic exceeds it by less than 2e-5 of it, so the chord
// settles nearly every comparison. One distance value is in use through the
// whole trim: a failed CalcDistance leaves the previous value, so a settled
// pair is remembered and measured only when a failure needs its value.
class TrimDistances {
 public:
  TrimDistances(const TrackPoint* points, int32_t count) : points_(points), count_(count) {}

  // Distance from `a` to `b` greater than (orEqual: at least) `threshold`.
  bool Exceeds(int32_t a, int32_t b, double threshold, bool orEqual) {
    if (!xyz_) Prepare();
    if (xyz_->ok()) {
      const double* p = &(*xyz_)[3 * static_cast<size_t>(a)];
      const double* q = &(*xyz_)[3 * static_cast<size_t>(b)];
      double dx = p[0] - q[0], dy = p[1] - q[1], dz = p[2] - q[2];
      double chord = std::sqrt(dx * dx + dy * dy + dz * dz);
      if (chord < kReach) {
        if (chord * (1.0 + 2e-5) + kMargin < threshold) return Settle(a, b, false);
        if (chord * (1.0 - 1e-6) - kMargin > threshold) return Settle(a, b, true);
      }
    }
    double d = 0.0;
    if (CalcDistance(Geo(points_[a]), Geo(points_[b]), &d) == 0) {
      value_ = d;
      pendingA_ = -1;
    } else if (pendingA_ >= 0) {
      CalcDistance(Geo(points_[pendingA_]), Geo(points_[pendingB_]), &value_);
      pendingA_ = -1;
    }
    return orEqual ? value_ >= threshold : value_ > threshold;
  }

 private:
  static constexpr double kReach = 100000.0;  // m
  static constexpr double kMargin = 0.05;     // m, covers CalcDistance's own tolerances

  bool Settle(int32_t a, int32_t b, bool result) {
    pendingA_ = a;
    pendingB_ = b;
    return result;
  }

  // Earth-centred positions on the ellipsoid; without memory every
  // comparison measures.
  void Prepare() {
    xyz_.emplace(3 * static_cast<size_t>(count_));
    if (!xyz_->ok()) return;
    constexpr double kMajorAxis = 6378137.0;
    for (int32_t i = 0; i < count_; ++i) {
      GeoPos g = Geo(points_[i]);
      double s = std::sin(g.latitude), c = std::cos(g.latitude);
      double n = kMajorAxis / std::sqrt(1.0 - wgs84::kFirstEccentricitySquared * s * s);
      (*xyz_)[3 * i] = n * c * std::cos(g.longitude);
      (*xyz_)[3 * i + 1] = n * c * std::sin(g.longitude);
      (*xyz_)[3 * i + 2] = n * (1.0 - wgs84::kFirstEccentricitySquared) * s;
    }
  }

  const TrackPoint* points_;
  int32_t count_;
  std::optional<Table<double>> xyz_;  // made on the first comparison
  double value_ = 0.0;     // the distance in use
  int32_t pendingA_ = -1;  // settled pair whose value would be the one in use
  int32_t pendingB_ = -1;
};

bool DetectorOn(int32_t first, int32_t second) { return first != 0 && second != 0; }

// The earliest point from `floor` on, walking back from `index`, whose time is
// at most `prepend` seconds before it.
int32_t WalkBack(const TrackPoint* points, int32_t index, int32_t floor, int32_t prepend) {
  int32_t k = index;
  while (k > floor && points[index].dwTime - points[k - 1].dwTime <= static_cast<uint32_t>(prepend)) --k;
  return k;
}

// The end of the first window of TRIM_LOCATION_INTERVAL seconds in which no
// two points are farther apart than TRIM_LOCATION_DISTANCE; else 0.
int32_t FindStartPoint(const TrackPoint* points, int32_t count, TrimDistances* distances) {
  if (!DetectorOn(tGps.nTrimLocationInterval, tGps.nTrimLocationDistance) || count < 2) return 0;
  const uint32_t interval = static_cast<uint32_t>(tGps.nTrimLocationInterval);
  const double limit = tGps.nTrimLocationDistance;
  for (int32_t s = 0; s < count - 1; ++s) {
    int32_t end = s;
    while (end + 1 < count && points[end + 1].dwTime - points[s].dwTime <= interval) ++end;
    bool moved = false;
    for (int32_t a = s; a < end && !moved; ++a) {
      for (int32_t b = a + 1; b <= end && !moved; ++b) moved = distances->Exceeds(a, b, limit, false);
    }
    if (!moved) return end;
  }
  return 0;
}

// The first point from which TRIM_TAKEOFF_DISTANCE is covered within
// TRIM_TAKEOFF_INTERVAL, moved back by the prepend; else the start point.
int32_t FindSpeedTakeoff(const TrackPoint* points, int32_t count, int32_t start, TrimDistances* distances) {
  if (!DetectorOn(tGps.nTrimTakeoffInterval, tGps.nTrimTakeoffDistance) || count - start < 2) return start;
  const uint32_t interval = static_cast<uint32_t>(tGps.nTrimTakeoffInterval);
  const double limit = tGps.nTrimTakeoffDistance;
  for (int32_t i = start; i < count - 1; ++i) {
    int32_t j = i + 1;
    while (j < count && points[j].dwTime - points[i].dwTime < interval) ++j;
    if (j < count && distances->Exceeds(i, j, limit, true)) {
      PrintTrimInformation(i, "Speed takeoff detected");
      const int32_t takeoff = WalkBack(points, i, start, tGps.nTrimTakeoffPrepend);
      PrintTrimInformation(takeoff, "Speed takeoff");
      return takeoff;
    }
  }
  return start;
}

// The first point outside the box around the start point, moved back by the
// prepend; else the start point.
int32_t FindBoxTakeoff(const TrackPoint* points, int32_t count, int32_t start, TrimDistances* distances) {
  if (!DetectorOn(tGps.nTrimTakeoffBoxRadius, tGps.nTrimTakeoffBoxHeight) || count - start < 2) return start;
  const double radius = tGps.nTrimTakeoffBoxRadius;
  const int64_t height = static_cast<int64_t>(tGps.nTrimTakeoffBoxHeight) * 10;  // decimetres
  const int64_t startAltitude = points[start].lGpsAltitude;
  for (int32_t i = start; i < count; ++i) {
    const char* reason = nullptr;
    if (distances->Exceeds(i, start, radius, true)) {
      reason = "Box exit takeoff detected (distance from start point)";
    } else if (points[i].lGpsAltitude - startAltitude >= height) {
      reason = "Box exit takeoff detected (altitude above start point)";
    } else if (startAltitude - points[i].lGpsAltitude >= height) {
      reason = "Box exit takeoff detected (altitude below start point)";
    }
    if (reason != nullptr) {
      PrintTrimInformation(i, reason);
      const int32_t takeoff = WalkBack(points, i, start, tGps.nTrimTakeoffBoxPrepend);
      PrintTrimInformation(takeoff, "Box exit takeoff");
      return takeoff;
    }
  }
  return start;
}

// The last point that still covered TRIM_LANDING_DISTANCE within
// TRIM_LANDING_INTERVAL, moved on by the append; else the last point.
int32_t FindLanding(const TrackPoint* points, int32_t count, int32_t takeoff, TrimDistances* distances) {
  if (!DetectorOn(tGps.nTrimLandingInterval, tGps.nTrimLandingDistance) || count - takeoff < 2) return count - 1;
  const uint32_t interval = static_cast<uint32_t>(tGps.nTrimLandingInterval);
  const uint32_t append = static_cast<uint32_t>(tGps.nTrimLandingAppend);
  const double limit = tGps.nTrimLandingDistance;
  for (int32_t i = count - 1; i >= takeoff; --i) {
    int32_t j = i - 1;
    while (j >= takeoff && points[i].dwTime - points[j].dwTime < interval) --j;
    if (j >= takeoff && distances->Exceeds(j, i, limit, true)) {
      PrintTrimInformation(i, "Landing detected");
      int32_t landing = i;
      while (landing + 1 < count && points[landing + 1].dwTime - points[i].dwTime <= append) ++landing;
      return landing;
    }
  }
  return count - 1;
}

}  // namespace

void PrintTrimInformation(int32_t index, const char* label) {
  SystemTime time;
  ConvertGpsTimeToSystemTime(tGps.pTrackPoints[index].dwTime, &time);
  std::printf("%02d:%02d:%02d %s\n", static_cast<int>(time.wHour), static_cast<int>(time.wMinute),
              static_cast<int>(time.wSecond), label);
}

int32_t TrimTrack() {
  const TrackPoint* points = tGps.pTrackPoints;
  const int32_t count = tGps.nTrackPoints;
  if (points == nullptr || count < 1) return 0;
  TrimDistances distances(points, count);

  std::printf("\nTrack trim results:\n");
  PrintTrimInformation(0, "First logged position");
  const int32_t start = FindStartPoint(points, count, &distances);
  PrintTrimInformation(start, "Start point");
  const int32_t speedTakeoff = FindSpeedTakeoff(points, count, start, &distances);
  const int32_t boxTakeoff = FindBoxTakeoff(points, count, start, &distances);
  // Both detectors must fire to move the takeoff past the start point.
  const int32_t takeoff = std::min(speedTakeoff, boxTakeoff);
  PrintTrimInformation(takeoff, "Takeoff");
  const int32_t landing = FindLanding(points, count, takeoff, &distances);
  PrintTrimInformation(landing, "Landing");
  PrintTrimInformation(count - 1, "Last logged position\n");

  const int32_t kept = landing - takeoff + 1;
  auto* trimmed = static_cast<TrackPoint*>(pAllocate(sizeof(TrackPoint) * static_cast<size_t>(kept)));
  if (trimmed == nullptr) {
    std::printf("Memory allocation error\n");
    return -1;
  }
  std::memcpy(trimmed, points + takeoff, sizeof(TrackPoint) * static_cast<size_t>(kept));
  std::free(tGps.pTrackPoints);
  tGps.pTrackPoints = trimmed;
  tGps.nTrackPoints = kept;
  tGps.nTrackCapacity = kept;
  return 0;
}

// ---------------------------------------------------------------------------
// Flight statistics

namespace {

// Walks back from point `index` over `window` seconds. Each step measures the
// earlier point against the reference (the last point the walk took whole).
// Returns the distance covered (a walk that ends early is not rescaled) and
// the altitude at the window's start, interpolated within a partial step.
template <typename StepDistance>
void WalkWindow(const TrackPoint* points, int32_t index, uint32_t window, StepDistance&& stepDistance,
                double* covered, double* earliestAltitude) {
  double distance = 0.0;
  double altitude = points[index].lGpsAltitude;
  uint32_t elapsed = 0;
  int32_t reference = index;
  for (int32_t j = index - 1; j >= 0; --j) {
    // Unsigned like the times: a step back in time is huge and ends the walk.
    const uint32_t dt = points[reference].dwTime - points[j].dwTime;
    if (dt != 0) {
      const double d = stepDistance(j, reference);
      if (static_cast<uint64_t>(elapsed) + dt >= window) {
        const double fraction = static_cast<double>(window - elapsed) / dt;
        distance += fraction * d;
        const double from = points[reference].lGpsAltitude;
        altitude = from + fraction * (points[j].lGpsAltitude - from);
        break;
      }
      distance += d;
      elapsed += dt;
      reference = j;
      altitude = points[j].lGpsAltitude;
    }
    if (IsSegmentStart(points[j])) break;
  }
  *covered = distance;
  *earliestAltitude = altitude;
}

template <typename StepDistance>
void TopSpeed(const TrackPoint* points, int32_t index, StepDistance&& stepDistance, double* speed) {
  if (index == 0 || IsSegmentStart(points[index])) {
    *speed = 0.0;
    return;
  }
  double covered, altitude;
  WalkWindow(points, index, rules::kTopSpeedWindow, stepDistance, &covered, &altitude);
  *speed = rules::kTopSpeedFactor * covered;
}

template <typename StepDistance>
void MeanSpeed(const TrackPoint* points, int32_t index, StepDistance&& stepDistance, double* speed, double* climb) {
  if (index == 0 || IsSegmentStart(points[index])) {
    *speed = 0.0;  // the climb of the previous evaluation stays
    return;
  }
  double covered, altitude;
  WalkWindow(points, index, rules::kMeanSpeedWindow, stepDistance, &covered, &altitude);
  *speed = rules::kMeanSpeedFactor * covered;
  *climb = (points[index].lGpsAltitude - altitude) * rules::kClimbFactor;
}

auto DirectSteps(const TrackPoint* points) {
  return [points](int32_t j, int32_t reference) { return Distance(points[j], points[reference]); };
}

int32_t RoundedMetres(int32_t decimetres) {
  return static_cast<int32_t>((static_cast<int64_t>(decimetres) + 5) / 10);
}

// Times and the altitude range: every field but the distances and speeds.
void FillTimesAndHeights(FlightAnalysis* record) {
  const TrackPoint* points = record->pPoints;
  const int32_t count = record->nPoints;
  record->dwStartTime = points[0].dwTime;
  record->dwEndTime = points[count - 1].dwTime;
  record->dwDuration = record->dwEndTime - record->dwStartTime;
  int32_t lowest = 1000000, highest = -1000000;
  for (int32_t i = 0; i < count; ++i) {
    lowest = std::min(lowest, points[i].lGpsAltitude);
    highest = std::max(highest, points[i].lGpsAltitude);
  }
  record->nLowestAltitude = RoundedMetres(lowest);
  record->nHighestAltitude = RoundedMetres(highest);
}

// A mean window's speed and vertical rate, kept when they are the best yet.
void TakeMeanWindow(double speed, double rate, double* mean, double* sink, double* climb) {
  if (speed > *mean) *mean = speed;
  if (rate < *sink) *sink = rate;
  if (rate > *climb) *climb = rate;
}

void StoreStatistics(FlightAnalysis* record, double length, double top, double mean, double sink, double climb) {
  record->dTrackLength = length;
  record->dTopSpeed = top;
  record->dMeanSpeed = mean;
  record->dWorstSink = sink;
  record->dBestClimb = climb;
  record->dAverageSpeed = 3.6 * length / record->dwDuration;
}

// Measuring every step of every window: the statistics without working memory.
void FillStatistics(FlightAnalysis* record) {
  const TrackPoint* points = record->pPoints;
  const int32_t count = record->nPoints;
  FillTimesAndHeights(record);
  const auto stepDistance = DirectSteps(points);
  double length = 0.0, top = 0.0, mean = 0.0, sink = 0.0, climb = 0.0;
  double speed = 0.0, rate = 0.0;
  const uint32_t topFrom = points[0].dwTime + rules::kTopSpeedWindow;
  const uint32_t meanFrom = points[0].dwTime + rules::kMeanSpeedWindow;
  for (int32_t i = 1; i < count; ++i) {
    length += Distance(points[i - 1], points[i]);
    if (points[i - 1].dwTime > topFrom) {
      TopSpeed(points, i, stepDistance, &speed);
      top = std::max(top, speed);
    }
    if (points[i - 1].dwTime > meanFrom) {
      MeanSpeed(points, i, stepDistance, &speed, &rate);
      TakeMeanWindow(speed, rate, &mean, &sink, &climb);
    }
  }
  StoreStatistics(record, length, top, mean, sink, climb);
}

// The same statistics from distances measured once. A window's walk skips
// the points of a run of equal times and steps from the last point of one
// run to the last point of the run before (its first step starts at the
// point itself), so each step but the first is a step between runs, kept
// per run with the running sum of those steps. Where times only increase
// and no segment starts inside a window, its end is found by moving a
// pointer along the runs, and the sum of its steps bounds the covered
// distance from above: a window that cannot beat the best speed so far is
// not summed at all. Every sum that counts is taken step by step in the
// walk's own order; any other window is walked as it always was.
class Statistics {
 public:
  Statistics(const TrackPoint* points, int32_t count)
      : points_(points), count_(count), geo_(static_cast<size_t>(count)), next_(static_cast<size_t>(count)),
        runs_(static_cast<size_t>(count)) {}
  bool ok() const { return geo_.ok() && next_.ok() && runs_.ok(); }
  void Fill(FlightAnalysis* record);

 private:
  struct Run {
    int32_t first;
    int32_t last;
    uint32_t time;
    bool segment;  // a point of the run starts a segment
    double step;   // from the last point of the run before to `last`
    double steps;  // sum of `step` up to this run
  };
  // Where a window of point `index` ends; `steps` counts the steps, the last
  // one partial.
  struct Window {
    int32_t steps;
    int32_t reference;  // the point the partial step measures from
    int32_t end;        // its earlier point, the last of its run
    double fraction;
    double bound;  // at least the covered distance as the walk sums it
  };

  double Measure(int32_t a, int32_t b) const {
    double d = 0.0;
    CalcPreparedDistance(geo_[static_cast<size_t>(a)], geo_[static_cast<size_t>(b)], &d);
    return d;
  }
  bool SamePosition(int32_t a, int32_t b) const {
    return points_[a].lLatitude == points_[b].lLatitude && points_[a].lLongitude == points_[b].lLongitude;
  }
  // The walk's step from `j` back to its reference: consecutive points and
  // last points of runs are measured already.
  double Step(int32_t j, int32_t reference) const {
    return reference == j + 1 ? next_[static_cast<size_t>(j)] : Measure(j, reference);
  }
  void MeasureRuns();
  double FirstStep(int32_t index, int32_t run) const;
  bool FindWindow(int32_t index, int32_t run, uint32_t window, int32_t* pointer, double first, Window* w) const;
  double Covered(int32_t run, double first, const Window& w) const;

  const TrackPoint* points_;
  int32_t count_;
  Table<GeoPoint> geo_;
  Table<double> next_;  // j to j + 1
  Table<Run> runs_;
  int32_t runCount_ = 0;
  double slack_ = 0.0;   // what rounding can take from a difference of two running sums
  bool bounded_ = false;  // every step finite: the bounds hold
  int32_t lastSegment_ = -1;  // the last point before the current one that starts a segment
  int32_t lastDrop_ = 0;      // the last run whose time is below its predecessor's
};

void Statistics::MeasureRuns() {
  int32_t n = 0;
  for (int32_t i = 0; i < count_; ++i) {
    const bool segment = IsSegmentStart(points_[i]);
    if (n > 0 && points_[i].dwTime == runs_[static_cast<size_t>(n - 1)].time) {
      Run& run = runs_[static_cast<size_t>(n - 1)];
      run.last = i;
      run.segment = run.segment || segment;
    } else {
      runs_[static_cast<size_t>(n++)] = Run{i, i, points_[i].dwTime, segment, 0.0, 0.0};
    }
  }
  runCount_ = n;
  double sum = 0.0;
  for (int32_t r = 1; r < n; ++r) {
    Run& run = runs_[static_cast<size_t>(r)];
    const int32_t below = runs_[static_cast<size_t>(r - 1)].last;
    run.step = run.last == run.first || SamePosition(run.last, run.first) ? next_[static_cast<size_t>(below)]
                                                                          : Measure(below, run.last);
    sum += run.step;
    run.steps = sum;
  }
  bounded_ = std::isfinite(sum);
  // Each running sum is within n rounding steps of the exact one.
  slack_ = bounded_ ? 4.0 * std::numeric_limits<double>::epsilon() * n * sum + 1e-9 : 0.0;
}

double Statistics::FirstStep(int32_t index, int32_t run) const {
  const Run& r = runs_[static_cast<size_t>(run)];
  if (index == r.first || SamePosition(index, r.first)) return next_[static_cast<size_t>(r.first - 1)];
  if (index == r.last || SamePosition(index, r.last)) return r.step;
  return Measure(runs_[static_cast<size_t>(run - 1)].last, index);
}

bool Statistics::FindWindow(int32_t index, int32_t run, uint32_t window, int32_t* pointer, double first,
                            Window* w) const {
  const uint32_t now = runs_[static_cast<size_t>(run)].time;
  if (run < 1 || now < window) return false;
  const uint32_t limit = now - window;
  int32_t m = *pointer;
  while (m + 1 < run && runs_[static_cast<size_t>(m + 1)].time <= limit) ++m;
  *pointer = m;
  // Times rising through the window and no segment start inside it: the
  // walk ends at the first run back at least `window` seconds earlier.
  if (m >= run || runs_[static_cast<size_t>(m)].time > limit) return false;
  if (m + 1 < run && runs_[static_cast<size_t>(m + 1)].time <= limit) return false;
  if (lastDrop_ > m || lastSegment_ > runs_[static_cast<size_t>(m)].last) return false;
  const Run& end = runs_[static_cast<size_t>(m)];
  w->steps = run - m;
  w->end = end.last;
  uint32_t elapsed = 0;
  uint32_t from = now;
  if (w->steps == 1) {
    w->reference = index;
  } else {
    const Run& above = runs_[static_cast<size_t>(m + 1)];
    w->reference = above.last;
    from = above.time;
    elapsed = now - from;
  }
  w->fraction = static_cast<double>(window - elapsed) / (from - end.time);
  // The partial step counts whole here: the fraction is at most 1.
  const double steps = runs_[static_cast<size_t>(run - 1)].steps - end.steps;
  w->bound = (first + steps + slack_) * (1.0 + 1e-12);
  return true;
}

double Statistics::Covered(int32_t run, double first, const Window& w) const {
  if (w.steps == 1) return 0.0 + w.fraction * first;
  double distance = 0.0;
  distance += first;
  const int32_t m = run - w.steps;
  for (int32_t r = run - 1; r >= m + 2; --r) distance += runs_[static_cast<size_t>(r)].step;
  distance += w.fraction * runs_[static_cast<size_t>(m + 1)].step;
  return distance;
}

void Statistics::Fill(FlightAnalysis* record) {
  const TrackPoint* points = points_;
  const int32_t count = count_;
  FillTimesAndHeights(record);
  for (int32_t i = 0; i < count; ++i) geo_[static_cast<size_t>(i)] = PrepareGeoPoint(Geo(points[i]));
  for (int32_t j = 0; j + 1 < count; ++j) next_[static_cast<size_t>(j)] = Measure(j, j + 1);
  double length = 0.0;
  for (int32_t i = 1; i < count; ++i) length += next_[static_cast<size_t>(i - 1)];
  MeasureRuns();

  const auto stepDistance = [this](int32_t j, int32_t reference) { return Step(j, reference); };
  double top = 0.0, mean = 0.0, sink = 0.0, climb = 0.0;
  const uint32_t topFrom = points[0].dwTime + rules::kTopSpeedWindow;
  const uint32_t meanFrom = points[0].dwTime + rules::kMeanSpeedWindow;
  int32_t run = 0, topPointer = 0, meanPointer = 0;
  for (int32_t i = 1; i < count; ++i) {
    if (runs_[static_cast<size_t>(run)].last < i) {
      ++run;
      if (runs_[static_cast<size_t>(run)].time < runs_[static_cast<size_t>(run - 1)].time) lastDrop_ = run;
    }
    if (IsSegmentStart(points[i - 1])) lastSegment_ = i - 1;
    const bool topWindow = points[i - 1].dwTime > topFrom;
    const bool meanWindow = points[i - 1].dwTime > meanFrom;
    // At a segment start both speeds are 0 and the climb is the last one
    // again: nothing changes.
    if ((!topWindow && !meanWindow) || IsSegmentStart(points[i])) continue;
    const double first = run > 0 ? FirstStep(i, run) : 0.0;
    const bool bounded = bounded_ && std::isfinite(first);
    Window w;
    if (topWindow) {
      if (FindWindow(i, run, rules::kTopSpeedWindow, &topPointer, first, &w)) {
        if (!bounded || rules::kTopSpeedFactor * w.bound > top) {
          top = std::max(top, rules::kTopSpeedFactor * Covered(run, first, w));
        }
      } else {
        double speed;
        TopSpeed(points, i, stepDistance, &speed);
        top = std::max(top, speed);
      }
    }
    if (meanWindow) {
      double speed = 0.0, rate = 0.0;
      if (FindWindow(i, run, rules::kMeanSpeedWindow, &meanPointer, first, &w)) {
        const double from = points[w.reference].lGpsAltitude;
        const double altitude = from + w.fraction * (points[w.end].lGpsAltitude - from);
        rate = (points[i].lGpsAltitude - altitude) * rules::kClimbFactor;
        if (!bounded || rules::kMeanSpeedFactor * w.bound > mean) {
          speed = rules::kMeanSpeedFactor * Covered(run, first, w);
        }
      } else {
        MeanSpeed(points, i, stepDistance, &speed, &rate);
      }
      TakeMeanWindow(speed, rate, &mean, &sink, &climb);
    }
  }
  StoreStatistics(record, length, top, mean, sink, climb);
}

}  // namespace

void CalculateTopSpeed(const TrackPoint* points, int32_t index, double* speed) {
  TopSpeed(points, index, DirectSteps(points), speed);
}

void CalculateMeanSpeed(const TrackPoint* points, int32_t index, double* speed, double* climb) {
  MeanSpeed(points, index, DirectSteps(points), speed, climb);
}

// ---------------------------------------------------------------------------
// Triangle search on sampled points

size_t ClosingTableSize(int32_t count) {
  const size_t n = static_cast<size_t>(count);
  return n * (n + 1) / 2;
}

size_t ClosingRowStart(int32_t count, int32_t row) {
  const size_t n = static_cast<size_t>(count), a = static_cast<size_t>(row);
  return a * (2 * n + 1 - a) / 2;
}

void FillClosingTables(const uint32_t* distance, int32_t count, uint32_t* gap, uint32_t* pair) {
  if (count < 2) return;
  const size_t n = static_cast<size_t>(count);
  const int32_t last = count - 1;
  for (int32_t a = 0; a < count - 1; ++a) {
    const uint32_t* row = distance + static_cast<size_t>(a) * n;
    const size_t here = ClosingRowStart(count, a) - static_cast<size_t>(a);
    const size_t above = a > 0 ? ClosingRowStart(count, a - 1) - static_cast<size_t>(a - 1) : 0;
    uint32_t own = row[last];
    uint32_t ownPair = static_cast<uint32_t>(a) * 65536u + static_cast<uint32_t>(last);
    for (int32_t c = last; c > a; --c) {
      if (row[c] < own) {
        own = row[c];
        ownPair = static_cast<uint32_t>(a) * 65536u + static_cast<uint32_t>(c);
      }
      // The row above holds every pair that starts earlier; on a tie the
      // row's own pair stays.
      if (a > 0 && gap[above + c] < own) {
        gap[here + c] = gap[above + c];
        pair[here + c] = pair[above + c];
      } else {
        gap[here + c] = own;
        pair[here + c] = ownPair;
      }
    }
  }
}

namespace {

// The search keeps the last triangle, in the order first corner, third
// corner, second corner, among those with the greatest score. It is a
// branch and bound that prunes only what cannot reach the best score so far,
// ties included, and keeps the last of the equal ones, so that neither the
// order of the search nor its split between two threads can change which
// one wins.
//
// Bounds come from blocks of consecutive points (16, and 128 above them): for
// each point the greatest and smallest distance into each block, and for
// each pair of small blocks the same over all points of the first. For
// corners a and c the two legs through any b of a block are at most the sum
// of the two greatest distances. A FAI triangle needs more: every side at
// least 28 % of the perimeter, so the perimeter is at most about 3.6 times
// each side, and no side longer than 44 % of it, which the smallest distances
// test; thin, nearly straight triangles are ruled out a block at a time.
template <typename GapEntry>
class TriangleSearch {
 public:
  static constexpr int32_t kBlock = 16;
  static constexpr int32_t kWide = 8;  // small blocks in a large one

  TriangleSearch(const uint32_t* distance, int32_t count, const GapEntry* gap)
      : d_(distance), n_(count), gap_(gap), blocks_((count + kBlock - 1) / kBlock),
        wideBlocks_((blocks_ + kWide - 1) / kWide), near_(Size(count, blocks_)), shape_(Size(count, blocks_) + kWide),
        wide_(Size(count, wideBlocks_)),
        wideInto_(Size(blocks_, wideBlocks_)), blockPairs_(Size(blocks_, blocks_)), order_(Size(blocks_, blocks_)) {
    if (shape_.ok()) std::fill_n(&shape_[Size(count, blocks_)], kWide, Shape{std::numeric_limits<int32_t>::max(), 0});
  }

  bool ok() const {
    return near_.ok() && shape_.ok() && wide_.ok() && wideInto_.ok() && blockPairs_.ok() && order_.ok();
  }

  // The best triangle so far: its score (-1 for none at 0 or above) and corners.
  struct Found {
    int64_t score = -1;
    int32_t a = -1, b = -1, c = -1;
    // Equal scores go to the later triangle in the order a, c, b.
    bool Beats(const Found& other) const {
      if (score != other.score) return score > other.score;
      if (a != other.a) return a > other.a;
      return c != other.c ? c > other.c : b > other.b;
    }
  };

  void Prepare();
  // Prepare in two steps: the spans of each row, as soon as the row is
  // complete, then the rest once every row is.
  void PrepareRow(int32_t x);
  void PrepareBlocks();
  // The best flat (fai = false) or FAI triangle.
  Found Best(bool fai);

 private:
  static constexpr int64_t kNone = std::numeric_limits<int64_t>::min() / 4;

  struct Span {
    uint32_t least;
    uint32_t most;
  };
  // A pair of small blocks A <= C: what the points of A reach into C (the
  // second corner's block) and what the valid corner pairs a in A, c in C
  // hold; then the bounds of any score with corners there.
  struct BlockPair {
    Span into;
    int64_t baseMax;  // side a-c minus closing gap
    int64_t capMax;   // FaiCap(side) minus closing gap
    Span side;
    uint32_t gapMin;
    int64_t flatBound;
    int64_t faiBound;
  };
  // A pair of corners as the inner loops see it.
  struct Corners {
    int32_t a, c;
    const uint32_t* ra;
    const uint32_t* rc;
    uint32_t ac, gap;
    int64_t base;
  };

  // The least and greatest of kBlock distances.
  static Span BlockSpan(const uint32_t* values) {
#if defined(__SSE2__)
    static_assert(kBlock == 16);
    // Unsigned order is signed order with the top bit flipped.
    const __m128i flip = _mm_set1_epi32(INT32_MIN);
    __m128i least = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(values)), flip);
    __m128i most = least;
    for (int32_t i = 4; i < kBlock; i += 4) {
      const __m128i v = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(values + i)), flip);
      const __m128i below = _mm_cmpgt_epi32(least, v), above = _mm_cmpgt_epi32(v, most);
      least = _mm_or_si128(_mm_and_si128(below, v), _mm_andnot_si128(below, least));
      most = _mm_or_si128(_mm_and_si128(above, v), _mm_andnot_si128(above, most));
    }
    uint32_t lows[4], highs[4];
    _mm_storeu_si128(reinterpret_cast<__m128i*>(lows), _mm_xor_si128(least, flip));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(highs), _mm_xor_si128(most, flip));
    return {std::min({lows[0], lows[1], lows[2], lows[3]}), std::max({highs[0], highs[1], highs[2], highs[3]})};
#else
    Span s = {values[0], values[0]};
    for (int32_t i = 1; i < kBlock; ++i) {
      s.least = std::min(s.least, values[i]);
      s.most = std::max(s.most, values[i]);
    }
    return s;
#endif
  }
  static size_t Size(int32_t rows, int32_t columns) { return static_cast<size_t>(rows) * static_cast<size_t>(columns); }
  uint32_t Gap(int32_t a, int32_t c) const { return gap_[ClosingRowStart(n_, a) + static_cast<size_t>(c - a)]; }
  const uint32_t* Row(int32_t a) const { return d_ + Size(a, n_); }
  const Span& Near(int32_t x, int32_t k) const { return near_[Size(x, blocks_) + static_cast<size_t>(k)]; }
  const Span& Wide(int32_t x, int32_t k) const { return wide_[Size(x, wideBlocks_) + static_cast<size_t>(k)]; }
  const Span& WideInto(int32_t A, int32_t K) const { return wideInto_[Size(A, wideBlocks_) + static_cast<size_t>(K)]; }
  BlockPair& Pair(int32_t A, int32_t C) const { return blockPairs_[Size(A, blocks_) + static_cast<size_t>(C)]; }
  int64_t Bound(bool fai, int32_t A, int32_t C) const { return fai ? Pair(A, C).faiBound : Pair(A, C).flatBound; }

  // The greatest perimeter for which `side` still makes the FAI share.
  static int64_t FaiCap(int64_t side) {
    return (side * rules::kFaiSideDenominator + rules::kFaiSideDenominator - 1) / rules::kFaiSideNumerator;
  }
  static bool FaiSides(uint32_t ac, uint32_t ab, uint32_t bc) {
    const int64_t perimeter = static_cast<int64_t>(ac) + ab + bc;
    const int64_t least = perimeter * rules::kFaiSideNumerator / rules::kFaiSideDenominator;
    return ac >= least && ab >= least && bc >= least;
  }
  // The greatest perimeter a FAI triangle can have with its sides in these
  // ranges, or -1 when such sides cannot make one: the shortest side caps the
  // perimeter, and with the other two at 28 % or more no side can be longer
  // than (11 x perimeter + 48) / 25.
  static int64_t FaiMost(Span ac, Span ab, Span bc) {
    const int64_t most = std::min(static_cast<int64_t>(ac.most) + ab.most + bc.most,
                                  FaiCap(std::min({ac.most, ab.most, bc.most})));
    constexpr int64_t kDen = rules::kFaiSideDenominator, kNum = rules::kFaiSideNumerator;
    const int64_t longest = std::max({ac.least, ab.least, bc.least});
    return kDen * longest <= (kDen - 2 * kNum) * most + 2 * (kDen - 1) ? most : -1;
  }

  // Whether corners with sides a-c in `ac` and a closing gap of at least
  // `gap` and a second corner with distances in `ab` and `bc` can reach
  // `need`. The FAI part is FaiMost's test without its divisions, the cap
  // taken unrounded where it bounds the longest side: a little weaker, so it
  // still never shuts out a triangle that reaches `need`.
  static bool Reaches(bool fai, Span ac, uint32_t gap, Span ab, Span bc, int64_t need) {
    const int64_t sum = static_cast<int64_t>(ac.most) + ab.most + bc.most;
    if (!fai) return sum - gap >= need;
    constexpr int64_t kDen = rules::kFaiSideDenominator, kNum = rules::kFaiSideNumerator;
    const int64_t shortest = std::min({ac.most, ab.most, bc.most});
    const int64_t longest = std::max({ac.least, ab.least, bc.least});
    const int64_t cap = kDen * shortest + kDen - 1;  // 7 x FaiCap(shortest), before rounding down
    // The shape test first: it rules out nearly every block that fails.
    return kNum * kDen * longest <= (kDen - 2 * kNum) * cap + 2 * (kDen - 1) * kNum && sum - gap >= need &&
           cap >= kNum * (need + gap) && kDen * longest <= (kDen - 2 * kNum) * sum + 2 * (kDen - 1);
  }
  static constexpr uint32_t kShapeLimit = uint32_t{1} << 21;
  static int32_t ShapeLow(uint32_t least) {
    return static_cast<int32_t>(std::min(least, kShapeLimit)) * rules::kFaiSideNumerator * rules::kFaiSideDenominator;
  }
  static int32_t ShapeHigh(uint32_t most) {
    constexpr int32_t kDen = rules::kFaiSideDenominator, kNum = rules::kFaiSideNumerator;
    return static_cast<int32_t>(std::min(most, kShapeLimit)) * ((kDen - 2 * kNum) * kDen) +
           (kDen - 2 * kNum) * (kDen - 1) + 2 * (kDen - 1) * kNum;
  }
  // Bit i set for each of the kWide small blocks from `k` on that may pass
  // the FAI shape test with the corners of `p`; bits past the last block
  // mean nothing.
  uint32_t Shapes(const Corners& p, int32_t k) const;
  // The same for a pair of corners.
  static bool Open(bool fai, const Corners& p, Span ab, Span bc, int64_t need) {
    return Reaches(fai, {p.ac, p.ac}, p.gap, ab, bc, need);
  }
  bool MakeCorners(bool fai, int32_t a, int32_t c, int64_t need, Corners* p) const;
  // Pass over the second corners of a pair, keeping in `found` what beats it
  // and raising `need` to its score.
  // Only the large blocks of `open` (bit K for block K) are looked at.
  void Scan(bool fai, const Corners& p, uint64_t open, int64_t* need, Found* found) const;
  // The block pairs `part`, `part` + 2, ... of the `candidates` in order_;
  // `shared` carries the best score either half has found.
  void SearchPart(bool fai, int32_t candidates, int32_t part, std::atomic<int64_t>* shared, Found* found) const;

  const uint32_t* d_;
  int32_t n_;
  const GapEntry* gap_;
  int32_t blocks_, wideBlocks_;
  Table<Span> near_;  // point x small block
  // The FAI shape test of Reaches, scaled to 32 bits: per point and small
  // block, 175 x least and 275 x most + 600. A block can pass only where the
  // greatest of the first is at most the least of the second, which Shapes
  // tests four blocks at a time while every distance is below 2^21 m. It
  // reads kWide blocks at once, past a row's end into the next row (or the
  // padding after the last), where no block is in reach.
  struct Shape {
    int32_t low;
    int32_t high;
  };
  Table<Shape> shape_;
  bool shaped_ = true;
  Table<Span> wide_;  // point x large block
  Table<Span> wideInto_;  // small block x large block: what its points reach there
  Table<BlockPair> blockPairs_;
  Table<int32_t> order_;
};

template <typename GapEntry>
void TriangleSearch<GapEntry>::Prepare() {
  for (int32_t x = 0; x < n_; ++x) PrepareRow(x);
  PrepareBlocks();
}

template <typename GapEntry>
void TriangleSearch<GapEntry>::PrepareRow(int32_t x) {
  constexpr Span kEmpty = {std::numeric_limits<uint32_t>::max(), 0};
  auto widen = [](Span* s, Span t) {
    s->least = std::min(s->least, t.least);
    s->most = std::max(s->most, t.most);
  };
  const uint32_t* row = Row(x);
  for (int32_t K = 0; K < wideBlocks_; ++K) wide_[Size(x, wideBlocks_) + static_cast<size_t>(K)] = kEmpty;
  for (int32_t k = 0; k < blocks_; ++k) {
    Span s = kEmpty;
    const int32_t first = k * kBlock, end = std::min(n_, (k + 1) * kBlock);
    if (end - first == kBlock) {
      s = BlockSpan(row + first);
    } else {
      for (int32_t b = first; b < end; ++b) widen(&s, {row[b], row[b]});
    }
    near_[Size(x, blocks_) + static_cast<size_t>(k)] = s;
    widen(&wide_[Size(x, wideBlocks_) + static_cast<size_t>(k / kWide)], s);
    if (s.most >= kShapeLimit) shaped_ = false;
    shape_[Size(x, blocks_) + static_cast<size_t>(k)] = {ShapeLow(s.least), ShapeHigh(s.most)};
  }
}

template <typename GapEntry>
void TriangleSearch<GapEntry>::PrepareBlocks() {
  constexpr Span kEmpty = {std::numeric_limits<uint32_t>::max(), 0};
  auto widen = [](Span* s, Span t) {
    s->least = std::min(s->least, t.least);
    s->most = std::max(s->most, t.most);
  };
  for (int32_t A = 0; A < blocks_; ++A) {
    for (int32_t K = 0; K < wideBlocks_; ++K) {
      Span s = kEmpty;
      for (int32_t x = A * kBlock; x < std::min(n_, (A + 1) * kBlock); ++x) widen(&s, Wide(x, K));
      wideInto_[Size(A, wideBlocks_) + static_cast<size_t>(K)] = s;
    }
  }
  for (int32_t A = 0; A < blocks_; ++A) {
    for (int32_t C = 0; C < blocks_; ++C) {
      BlockPair& pair = Pair(A, C);
      pair = {kEmpty, kNone, kNone, kEmpty, std::numeric_limits<uint32_t>::max(), kNone, kNone};
      for (int32_t x = A * kBlock; x < std::min(n_, (A + 1) * kBlock); ++x) widen(&pair.into, Near(x, C));
    }
  }
  // The corner pairs that close, gathered block by block. A gap only grows
  // along a row, so the first one too wide ends the row. FaiCap(side) - gap
  // is kept as 7 times itself, before rounding down, and divided once.
  for (int32_t a = 0; a + 2 < n_; ++a) {
    const uint32_t* row = Row(a);
    const GapEntry* gaps = gap_ + ClosingRowStart(n_, a) - static_cast<size_t>(a);
    bool closing = true;
    for (int32_t C = (a + 2) / kBlock; C < blocks_ && closing; ++C) {
      int64_t baseMax = kNone, capMax7 = kNone;
      Span side = kEmpty;
      uint32_t gapMin = std::numeric_limits<uint32_t>::max();
      const int32_t to = std::min(n_, (C + 1) * kBlock);
      for (int32_t c = std::max(C * kBlock, a + 2); c < to; ++c) {
        const uint32_t g = gaps[c];
        if (g >= rules::kClosingGap) {
          closing = false;
          break;
        }
        const int64_t v = row[c];
        baseMax = std::max(baseMax, v - g);
        capMax7 = std::max(capMax7, v * rules::kFaiSideDenominator + rules::kFaiSideDenominator - 1 -
                                        static_cast<int64_t>(g) * rules::kFaiSideNumerator);
        side.least = std::min(side.least, row[c]);
        side.most = std::max(side.most, row[c]);
        gapMin = std::min(gapMin, g);
      }
      if (baseMax == kNone) continue;
      BlockPair& pair = Pair(a / kBlock, C);
      pair.baseMax = std::max(pair.baseMax, baseMax);
      const int64_t cap = capMax7 >= 0 ? capMax7 / rules::kFaiSideNumerator
                                       : -((-capMax7 + rules::kFaiSideNumerator - 1) / rules::kFaiSideNumerator);
      pair.capMax = std::max(pair.capMax, cap);
      widen(&pair.side, side);
      pair.gapMin = std::min(pair.gapMin, gapMin);
    }
  }
  for (int32_t A = 0; A < blocks_; ++A) {
    for (int32_t C = A; C < blocks_; ++C) {
      BlockPair& pair = Pair(A, C);
      if (pair.baseMax == kNone) continue;
      for (int32_t k = A; k <= C; ++k) {
        const Span ab = Pair(A, k).into, bc = Pair(C, k).into;
        const int64_t flat = pair.baseMax + ab.most + bc.most;
        pair.flatBound = std::max(pair.flatBound, flat);
        const int64_t most = FaiMost(pair.side, ab, bc);
        if (most >= 0) pair.faiBound = std::max(pair.faiBound, std::min({flat, pair.capMax, most - pair.gapMin}));
      }
    }
  }
}

template <typename GapEntry>
bool TriangleSearch<GapEntry>::MakeCorners(bool fai, int32_t a, int32_t c, int64_t need, Corners* p) const {
  p->gap = Gap(a, c);
  if (p->gap >= rules::kClosingGap) return false;
  p->a = a;
  p->c = c;
  p->ra = Row(a);
  p->rc = Row(c);
  p->ac = p->ra[c];
  p->base = static_cast<int64_t>(p->ac) - p->gap;
  return !fai || FaiCap(p->ac) >= need + p->gap;
}

template <typename GapEntry>
uint32_t TriangleSearch<GapEntry>::Shapes(const Corners& p, int32_t k) const {
  static_assert(kWide == 8);
  const Shape* sa = &shape_[Size(p.a, blocks_) + static_cast<size_t>(k)];
  const Shape* sc = &shape_[Size(p.c, blocks_) + static_cast<size_t>(k)];
  const int32_t acLow = ShapeLow(p.ac), acHigh = ShapeHigh(p.ac);
  uint32_t passing = 0;
#if defined(__SSE2__)
  const __m128i low0 = _mm_set1_epi32(acLow), high0 = _mm_set1_epi32(acHigh);
  for (int32_t half = 0; half < 2; ++half) {
    // Two blocks' (low, high) pairs in each load: lanes low, high, low, high.
    const __m128i a0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(sa + 4 * half));
    const __m128i a1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(sa + 4 * half + 2));
    const __m128i c0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(sc + 4 * half));
    const __m128i c1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(sc + 4 * half + 2));
    // Lows of the four blocks in one register, highs in another.
    const __m128i aLow = _mm_castps_si128(_mm_shuffle_ps(_mm_castsi128_ps(a0), _mm_castsi128_ps(a1), 0x88));
    const __m128i aHigh = _mm_castps_si128(_mm_shuffle_ps(_mm_castsi128_ps(a0), _mm_castsi128_ps(a1), 0xDD));
    const __m128i cLow = _mm_castps_si128(_mm_shuffle_ps(_mm_castsi128_ps(c0), _mm_castsi128_ps(c1), 0x88));
    const __m128i cHigh = _mm_castps_si128(_mm_shuffle_ps(_mm_castsi128_ps(c0), _mm_castsi128_ps(c1), 0xDD));
    auto most = [](__m128i x, __m128i y) {
      const __m128i greater = _mm_cmpgt_epi32(x, y);
      return _mm_or_si128(_mm_and_si128(greater, x), _mm_andnot_si128(greater, y));
    };
    auto least = [](__m128i x, __m128i y) {
      const __m128i greater = _mm_cmpgt_epi32(x, y);
      return _mm_or_si128(_mm_and_si128(greater, y), _mm_andnot_si128(greater, x));
    };
    const __m128i low = most(most(aLow, cLow), low0);
    const __m128i high = least(least(aHigh, cHigh), high0);
    const int failing = _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpgt_epi32(low, high)));
    passing |= static_cast<uint32_t>(~failing & 0xF) << (4 * half);
  }
#else
  for (int32_t i = 0; i < kWide; ++i) {
    const int32_t low = std::max({acLow, sa[i].low, sc[i].low});
    const int32_t high = std::min({acHigh, sa[i].high, sc[i].high});
    if (low <= high) passing |= 1u << i;
  }
#endif
  return passing;
}

template <typename GapEntry>
void TriangleSearch<GapEntry>::Scan(bool fai, const Corners& p, uint64_t open, int64_t* need, Found* found) const {
  const int32_t first = p.a + 1, last = p.c - 1;
  const int32_t wideFirst = first / (kBlock * kWide), wideLast = last / (kBlock * kWide);
  for (int32_t K = wideFirst; K <= wideLast; ++K) {
    if ((open >> K & 1u) == 0) continue;
    const bool shaped = fai && shaped_ && p.ac < kShapeLimit;
    // With the shape test of the small blocks at hand, the large block's own
    // test would rule out little more.
    if (!shaped && !Open(fai, p, Wide(p.a, K), Wide(p.c, K), *need)) continue;
    const int32_t blockFirst = std::max(first / kBlock, K * kWide);
    const int32_t blockLast = std::min(last / kBlock, K * kWide + kWide - 1);
    // The small blocks in reach, less those that fail the FAI shape test,
    // ruled out a large block at a time.
    uint32_t blocks = ((2u << (blockLast - K * kWide)) - 1) & ~((1u << (blockFirst - K * kWide)) - 1);
    if (shaped) blocks &= Shapes(p, K * kWide);
    for (; blocks != 0; blocks &= blocks - 1) {
      const int32_t k = K * kWide + __builtin_ctz(blocks);
      if (!Open(fai, p, Near(p.a, k), Near(p.c, k), *need)) continue;
      const int32_t from = std::max(first, k * kBlock), to = std::min(last, k * kBlock + kBlock - 1);
      for (int32_t b = from; b <= to; ++b) {
        const int64_t score = p.base + p.ra[b] + p.rc[b];
        if (score < *need || (fai && !FaiSides(p.ac, p.ra[b], p.rc[b]))) continue;
        const Found candidate{score, p.a, b, p.c};
        if (candidate.Beats(*found)) *found = candidate;
        *need = score;
      }
    }
  }
}

template <typename GapEntry>
void TriangleSearch<GapEntry>::SearchPart(bool fai, int32_t candidates, int32_t part, std::atomic<int64_t>* shared,
                                Found* found) const {
  int64_t need = rules::kTriangleStart + 1;  // scores below 0 are never kept
  for (int32_t i = part; i < candidates; i += 2) {
    need = std::max(need, shared->load(std::memory_order_relaxed));
    const int32_t slot = order_[static_cast<size_t>(i)];
    const int32_t A = slot / blocks_, C = slot % blocks_;
    if (Bound(fai, A, C) < need) break;
    // The large blocks no pair of this block pair can open, ruled out once.
    uint64_t open = ~uint64_t{0};
    if (wideBlocks_ <= 64) {
      const BlockPair& pair = Pair(A, C);
      open = 0;
      for (int32_t K = 0; K < wideBlocks_; ++K) {
        if (Reaches(fai, pair.side, pair.gapMin, WideInto(A, K), WideInto(C, K), need)) open |= uint64_t{1} << K;
      }
    }
    for (int32_t a = A * kBlock; a < std::min(n_, (A + 1) * kBlock); ++a) {
      for (int32_t c = std::max(C * kBlock, a + 2); c < std::min(n_, (C + 1) * kBlock); ++c) {
        Corners p;
        if (MakeCorners(fai, a, c, need, &p)) Scan(fai, p, open, &need, found);
      }
    }
    // What one half finds prunes the other; the scores only ever rise.
    int64_t known = shared->load(std::memory_order_relaxed);
    while (known < need && !shared->compare_exchange_weak(known, need, std::memory_order_relaxed)) {
    }
  }
}

template <typename GapEntry>
typename TriangleSearch<GapEntry>::Found TriangleSearch<GapEntry>::Best(bool fai) {
  int32_t candidates = 0;
  for (int32_t A = 0; A < blocks_; ++A) {
    for (int32_t C = A; C < blocks_; ++C) {
      if (Bound(fai, A, C) >= 0) order_[static_cast<size_t>(candidates++)] = static_cast<int32_t>(Size(A, blocks_)) + C;
    }
  }
  // Most promising block pairs first, so that the bound soon prunes the rest.
  auto bound = [this, fai](int32_t slot) { return Bound(fai, slot / blocks_, slot % blocks_); };
  std::sort(order_.get(), order_.get() + candidates, [&bound](int32_t x, int32_t y) { return bound(x) > bound(y); });
  std::atomic<int64_t> shared{rules::kTriangleStart + 1};
  Found halves[2];
  RunInParallel([&] { SearchPart(fai, candidates, 0, &shared, &halves[0]); },
                [&] { SearchPart(fai, candidates, 1, &shared, &halves[1]); });
  return halves[1].Beats(halves[0]) ? halves[1] : halves[0];
}

// The search on closing tables of either width; `closing` gives the
// closing pair of the corners a and c as s * 65536 + e.
// The best flat and FAI triangles of a prepared search.
template <typename GapEntry, typename ClosingPair>
void FindTriangles(TriangleSearch<GapEntry>* search, ClosingPair&& closing, SampledTriangles* result) {
  *result = SampledTriangles{};
  result->lFlatScore = rules::kTriangleStart;
  result->lFaiScore = rules::kTriangleStart;
  for (bool fai : {false, true}) {
    const typename TriangleSearch<GapEntry>::Found best = search->Best(fai);
    (fai ? result->lFaiScore : result->lFlatScore) = best.score;
    if (best.score < 0) continue;
    const uint32_t ends = closing(best.a, best.c);
    int32_t* out = fai ? result->anFai : result->anFlat;
    out[0] = static_cast<int32_t>(ends >> 16);
    out[1] = best.a;
    out[2] = best.b;
    out[3] = best.c;
    out[4] = static_cast<int32_t>(ends & 0xFFFFu);
  }
}

// Row a of the closing gaps alone, held to 16 bits (only those below 800 m
// count): a quarter of the memory of both tables, written as the full fill
// writes them, once row a of the distances and row a - 1 of the gaps are
// there.
void FillClosingGapsRow(const uint32_t* distance, int32_t count, int32_t a, uint16_t* gap) {
  if (a >= count - 1) return;
  const int32_t last = count - 1;
  const uint32_t* row = distance + static_cast<size_t>(a) * static_cast<size_t>(count);
  uint16_t* here = gap + ClosingRowStart(count, a) - static_cast<size_t>(a);
  const uint16_t* above = a > 0 ? gap + ClosingRowStart(count, a - 1) - static_cast<size_t>(a - 1) : nullptr;
  // The row's own running minimum from the end, then the row above's,
  // eight at a time.
  uint32_t own = row[last];
  uint16_t held = static_cast<uint16_t>(std::min<uint32_t>(own, 0xFFFFu));
  for (int32_t c = last; c > a; --c) {
    if (row[c] < own) {  // rarely, once the minimum is low
      own = row[c];
      held = static_cast<uint16_t>(std::min<uint32_t>(own, 0xFFFFu));
    }
    here[c] = held;
  }
  if (above == nullptr) return;
  int32_t c = a + 1;
#if defined(__SSE2__)
  for (; c + 7 <= last; c += 8) {
    const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(here + c));
    const __m128i y = _mm_loadu_si128(reinterpret_cast<const __m128i*>(above + c));
    // x - (x - y, held at 0) is the smaller of the two.
    _mm_storeu_si128(reinterpret_cast<__m128i*>(here + c), _mm_sub_epi16(x, _mm_subs_epu16(x, y)));
  }
#endif
  for (; c <= last; ++c) here[c] = std::min(here[c], above[c]);
}

// The pair the closing tables would hold for corners a and c: the closest
// s <= a and e >= c, on ties the greatest s and then the greatest e.
uint32_t ClosingPairOf(const uint32_t* distance, int32_t count, int32_t a, int32_t c) {
  const size_t n = static_cast<size_t>(count);
  uint32_t best = std::numeric_limits<uint32_t>::max();
  uint32_t pair = 0;
  bool found = false;
  for (int32_t s = a; s >= 0; --s) {
    const uint32_t* row = distance + static_cast<size_t>(s) * n;
    for (int32_t e = count - 1; e >= c; --e) {
      if (!found || row[e] < best) {
        found = true;
        best = row[e];
        pair = static_cast<uint32_t>(s) * 65536u + static_cast<uint32_t>(e);
      }
    }
  }
  return pair;
}

}  // namespace

int32_t FindSampledTriangles(const uint32_t* distance, int32_t count, const uint32_t* gap, const uint32_t* pair,
                             SampledTriangles* result) {
  *result = SampledTriangles{};
  result->lFlatScore = rules::kTriangleStart;
  result->lFaiScore = rules::kTriangleStart;
  if (count < 3) return 0;
  TriangleSearch<uint32_t> search(distance, count, gap);
  if (!search.ok()) return -1;
  search.Prepare();
  FindTriangles(
      &search,
      [pair, count](int32_t a, int32_t c) { return pair[ClosingRowStart(count, a) + static_cast<size_t>(c - a)]; },
      result);
  return 0;
}

// ---------------------------------------------------------------------------
// Refinement on the full track

namespace {

// Geodesic distances between candidate positions, each measured once: point
// m1 of the set at index i1 to point m2 at index i2, both within reach of
// where the search put them.
class LegMemo {
 public:
  LegMemo(const TrackPoint* points, const int32_t* origin, int32_t size) : points_(points) {
    for (int32_t m = 0; m < size; ++m) origin_[m] = origin[m];
  }
  double operator()(int32_t m1, int32_t i1, int32_t m2, int32_t i2) {
    const int32_t slot = ((m1 * kMaxSet + m2) * kSpan + (i1 - origin_[m1] + rules::kRefineReach)) * kSpan +
                         (i2 - origin_[m2] + rules::kRefineReach);
    if (!known_[slot]) {
      value_[slot] = Distance(points_[i1], points_[i2]);
      known_[slot] = true;
    }
    return value_[slot];
  }

 private:
  static constexpr int32_t kMaxSet = 5;  // points in the largest set
  static constexpr int32_t kSpan = 2 * rules::kRefineReach + 1;
  static constexpr int32_t kSlots = kMaxSet * kMaxSet * kSpan * kSpan;

  const TrackPoint* points_;
  int32_t origin_[kMaxSet] = {};
  double value_[kSlots];
  bool known_[kSlots] = {};
};

// Tries every point of the set at its index and the two on either side,
// nested from the first point to the last, indices strictly increasing and
// leaving room for the later points. The greatest score of a qualifying
// combination wins, ties to the combination tried last; without one the
// indices stay.
template <int32_t kSize, typename Score>
void Refine(const FlightAnalysis* record, int32_t* const* index, Score&& score) {
  const int32_t count = record->nPoints;
  int32_t origin[kSize], chosen[kSize], best[kSize];
  for (int32_t m = 0; m < kSize; ++m) origin[m] = *index[m];
  LegMemo legs(record->pPoints, origin, kSize);
  bool found = false;
  double bestScore = 0.0;
  auto visit = [&](auto& self, int32_t m) -> void {
    for (int32_t offset = -rules::kRefineReach; offset <= rules::kRefineReach; ++offset) {
      const int32_t i = origin[m] + offset;
      if (i < 0 || i > count - kSize + m || (m > 0 && i <= chosen[m - 1])) continue;
      chosen[m] = i;
      if (m + 1 < kSize) {
        self(self, m + 1);
        continue;
      }
      double value;
      if (score(legs, chosen, &value) && (!found || value >= bestScore)) {
        found = true;
        bestScore = value;
        std::copy(chosen, chosen + kSize, best);
      }
    }
  };
  visit(visit, 0);
  if (!found) return;
  for (int32_t m = 0; m < kSize; ++m) *index[m] = best[m];
}

template <int32_t kSize>
void RefineLegs(const FlightAnalysis* record, int32_t* const* index) {
  Refine<kSize>(record, index, [](LegMemo& legs, const int32_t* at, double* value) {
    double sum = legs(0, at[0], 1, at[1]);
    for (int32_t m = 1; m + 1 < kSize; ++m) sum += legs(m, at[m], m + 1, at[m + 1]);
    *value = sum;
    return true;
  });
}

void RefineTriangle(const FlightAnalysis* record, int32_t* const* index, bool fai) {
  Refine<5>(record, index, [fai](LegMemo& legs, const int32_t* at, double* value) {
    const double closing = legs(0, at[0], 4, at[4]);
    if (!(closing < rules::kClosingGapGeodesic)) return false;
    const double first = legs(1, at[1], 2, at[2]);
    const double second = legs(2, at[2], 3, at[3]);
    const double third = legs(3, at[3], 1, at[1]);
    const double perimeter = first + second + third;
    if (fai) {
      const double least = rules::kFaiSideShare * perimeter;
      if (first < least || second < least || third < least) return false;
    }
    *value = perimeter - closing;
    return true;
  });
}

}  // namespace

void CheckTp0Distance(const FlightAnalysis* record, int32_t* start, int32_t* end) {
  int32_t* index[] = {start, end};
  RefineLegs<2>(record, index);
}

void CheckTp1Distance(const FlightAnalysis* record, int32_t* start, int32_t* tp, int32_t* end) {
  int32_t* index[] = {start, tp, end};
  RefineLegs<3>(record, index);
}

void CheckTp2Distance(const FlightAnalysis* record, int32_t* start, int32_t* tp1, int32_t* tp2, int32_t* end) {
  int32_t* index[] = {start, tp1, tp2, end};
  RefineLegs<4>(record, index);
}

void CheckTp3Distance(const FlightAnalysis* record, int32_t* start, int32_t* tp1, int32_t* tp2, int32_t* tp3,
                      int32_t* end) {
  int32_t* index[] = {start, tp1, tp2, tp3, end};
  RefineLegs<5>(record, index);
}

void CheckOutAndReturn(const FlightAnalysis* record, int32_t* start, int32_t* tp, int32_t* end) {
  int32_t* index[] = {start, tp, end};
  Refine<3>(record, index, [](LegMemo& legs, const int32_t* at, double* value) {
    const double closing = legs(0, at[0], 2, at[2]);
    if (closing > rules::kClosingGapGeodesic) return false;  // 800.0 itself counts here
    *value = 2.0 * legs(0, at[0], 1, at[1]) - closing;
    return true;
  });
}

void CheckFlatTriangle(const FlightAnalysis* record, int32_t* start, int32_t* tp1, int32_t* tp2, int32_t* tp3,
                       int32_t* end) {
  int32_t* index[] = {start, tp1, tp2, tp3, end};
  RefineTriangle(record, index, false);
}

void CheckFaiTriangle(const FlightAnalysis* record, int32_t* start, int32_t* tp1, int32_t* tp2, int32_t* tp3,
                      int32_t* end) {
  int32_t* index[] = {start, tp1, tp2, tp3, end};
  RefineTriangle(record, index, true);
}

// ---------------------------------------------------------------------------
// The analysis

namespace {

constexpr uint32_t kFarAway = 0xFFFFFFFFu;  // planar distance beyond 32 bits

void ClearResults(FlightAnalysis* record) {
  const int32_t sizes[] = {5, 4, 3, 2, 3, 5, 5};
  DistanceResult* results[] = {&record->tFivePoint,    &record->tFourPoint,    &record->tThreePoint,
                               &record->tOpenDistance, &record->tOutAndReturn, &record->tFlatTriangle,
                               &record->tFaiTriangle};
  for (int32_t k = 0; k < 7; ++k) {
    *results[k] = DistanceResult{};
    results[k]->nPoints = sizes[k];
  }
}

// Indices, legs from each point to the next and their sum.
void StoreLegs(const FlightAnalysis* record, const int32_t* index, DistanceResult* out) {
  const TrackPoint* points = record->pPoints;
  double sum = 0.0;
  for (int32_t m = 0; m < out->nPoints; ++m) out->anIndex[m] = index[m];
  for (int32_t m = 0; m + 1 < out->nPoints; ++m) {
    out->adDistance[m] = Distance(points[index[m]], points[index[m + 1]]);
    sum += out->adDistance[m];
  }
  out->dSum = sum;
}

void StoreOutAndReturn(const FlightAnalysis* record, const int32_t* index, DistanceResult* out) {
  const TrackPoint* points = record->pPoints;
  for (int32_t m = 0; m < 3; ++m) out->anIndex[m] = index[m];
  out->adDistance[0] = Distance(points[index[0]], points[index[1]]);
  out->adDistance[1] = Distance(points[index[0]], points[index[2]]);
  out->dSum = 2.0 * out->adDistance[0] - out->adDistance[1];
}

void StoreTriangle(const FlightAnalysis* record, const int32_t* index, DistanceResult* out) {
  const TrackPoint* points = record->pPoints;
  for (int32_t m = 0; m < 5; ++m) out->anIndex[m] = index[m];
  out->adDistance[0] = Distance(points[index[1]], points[index[2]]);
  out->adDistance[1] = Distance(points[index[2]], points[index[3]]);
  out->adDistance[2] = Distance(points[index[3]], points[index[1]]);
  out->adDistance[3] = Distance(points[index[0]], points[index[4]]);
  out->dSum = out->adDistance[0] + out->adDistance[1] + out->adDistance[2] - out->adDistance[3];
}

// The sampled points: every point up to the limit, else exactly the limit's
// number spread evenly, the first point always among them.
int32_t SamplePoints(int32_t count, int32_t* sample) {
  if (count <= rules::kSampleLimit) {
    for (int32_t i = 0; i < count; ++i) sample[i] = i;
    return count;
  }
  int64_t accumulator = count;
  int32_t taken = 0;
  for (int32_t i = 0; i < count && taken < rules::kSampleLimit; ++i) {
    accumulator += rules::kSampleLimit - 1;
    if (accumulator >= count) {
      accumulator -= count;
      sample[taken++] = i;
    }
  }
  return taken;
}

// The greatest distance from each point to a later one and from an earlier
// one, with the partner (the first found on ties; at first the neighbour).
struct Partners {
  explicit Partners(int32_t n) : toDistance(n), toPoint(n), fromDistance(n), fromPoint(n) {}
  bool ok() const { return toDistance.ok() && toPoint.ok() && fromDistance.ok() && fromPoint.ok(); }
  Table<uint32_t> toDistance;
  Table<int32_t> toPoint;
  Table<uint32_t> fromDistance;
  Table<int32_t> fromPoint;
};

uint32_t RoundedPlanarMetres(double metres) { return metres < 4294967296.0 ? static_cast<uint32_t>(metres) : kFarAway; }

// Distances from point a to the points after it, in metres rounded half up.
void MeasureRow(const double* east, const double* north, int32_t n, int32_t a, uint32_t* row) {
  int32_t b = a + 1;
#if defined(__SSE2__)
  // Two at a time, each rounded exactly as one at a time; a pair with 2^31 m
  // or more (or no number) one at a time. Nothing else in this loop, so that
  // the square roots overlap.
  const __m128d eastA = _mm_set1_pd(east[a]), northA = _mm_set1_pd(north[a]), half = _mm_set1_pd(0.5);
  const __m128d signedLimit = _mm_set1_pd(2147483648.0);
  for (; b + 1 < n; b += 2) {
    const __m128d dx = _mm_sub_pd(eastA, _mm_loadu_pd(east + b));
    const __m128d dy = _mm_sub_pd(northA, _mm_loadu_pd(north + b));
    const __m128d metres = _mm_add_pd(_mm_sqrt_pd(_mm_add_pd(_mm_mul_pd(dx, dx), _mm_mul_pd(dy, dy))), half);
    if (_mm_movemask_pd(_mm_cmplt_pd(metres, signedLimit)) == 3) {
      _mm_storel_epi64(reinterpret_cast<__m128i*>(row + b), _mm_cvttpd_epi32(metres));
    } else {
      double each[2];
      _mm_storeu_pd(each, metres);
      row[b] = RoundedPlanarMetres(each[0]);
      row[b + 1] = RoundedPlanarMetres(each[1]);
    }
  }
#endif
  for (; b < n; ++b) {
    const double dx = east[a] - east[b], dy = north[a] - north[b];
    row[b] = RoundedPlanarMetres(std::sqrt(dx * dx + dy * dy) + 0.5);
  }
}

// The table of sampled distances, made kTile rows at a time: each row from
// the diagonal on, then copied into the rows of the later points, since
// (x - y) squared equals (y - x) squared; the kTile rows stay in the cache
// while each later row takes its kTile values at once, where one column at
// a time would not. The partners come along: the greatest distance to a
// later point as each row is measured, the greatest from an earlier point
// in the order of the earlier points.
//
// A second thread may measure tiles from the last one back while the first
// works forward: a tile is claimed by whichever thread comes first, and the
// first thread waits only for a tile the second is measuring.
class DistanceTable {
 public:
  DistanceTable(const double* east, const double* north, int32_t n, uint32_t* distance, Partners* partners)
      : east_(east), north_(north), n_(n), distance_(distance), partners_(partners), helped_(Tiles() - 1) {}

  template <typename RowDone>
  void Fill(RowDone&& rowDone) {
    const size_t width = static_cast<size_t>(n_);
    uint32_t* from = partners_->fromDistance.get();
    for (int32_t b = 0; b < n_; ++b) {
      from[b] = 0;
      partners_->fromPoint[b] = b - 1;
    }
    for (int32_t tile = 0; tile < Tiles(); ++tile) {
      uint8_t expected = kFree;
      if (claims_[tile].compare_exchange_strong(expected, kClaimed, std::memory_order_acq_rel)) {
        Measure(tile);
      } else {
        while (claims_[tile].load(std::memory_order_acquire) != kMeasured) std::this_thread::yield();
      }
      const int32_t first = tile * kTile, end = std::min(n_, first + kTile);
      // Into each later row, its part of the tile's columns: a cache line.
      for (int32_t b = first + 1; b < n_; ++b) {
        uint32_t* into = distance_ + static_cast<size_t>(b) * width;
        uint32_t most = from[b];
        int32_t point = partners_->fromPoint[b];
        for (int32_t a = first; a < std::min(end, b); ++a) {
          const uint32_t value = distance_[static_cast<size_t>(a) * width + static_cast<size_t>(b)];
          into[a] = value;
          if (value > most) {
            most = value;
            point = a;
          }
        }
        from[b] = most;
        partners_->fromPoint[b] = point;
      }
      // The tile's rows are whole now: the rows before filled in the rest.
      for (int32_t a = first; a < end; ++a) rowDone(a);
    }
  }

  // From the second thread: measures the last tile nobody has claimed;
  // false once the first thread has come that far.
  bool Help() {
    if (helped_ < 0) return false;
    const int32_t tile = helped_--;
    uint8_t expected = kFree;
    if (!claims_[tile].compare_exchange_strong(expected, kClaimed, std::memory_order_acq_rel)) {
      helped_ = -1;  // the first thread claims in order: it has all before
      return false;
    }
    Measure(tile);
    claims_[tile].store(kMeasured, std::memory_order_release);
    return true;
  }

 private:
  static constexpr int32_t kTile = 16;
  static constexpr uint8_t kFree = 0, kClaimed = 1, kMeasured = 2;

  int32_t Tiles() const { return (n_ + kTile - 1) / kTile; }

  void Measure(int32_t tile) {
    for (int32_t a = tile * kTile; a < std::min(n_, (tile + 1) * kTile); ++a) {
      uint32_t* row = distance_ + static_cast<size_t>(a) * static_cast<size_t>(n_);
      row[a] = 0;
      MeasureRow(east_, north_, n_, a, row);
      uint32_t to = 0;
      int32_t toPoint = a + 1;
      for (int32_t b = a + 1; b < n_; ++b) {
        if (row[b] > to) {
          to = row[b];
          toPoint = b;
        }
      }
      partners_->toDistance[a] = to;
      partners_->toPoint[a] = toPoint;
    }
  }

  const double* east_;
  const double* north_;
  int32_t n_;
  uint32_t* distance_;
  Partners* partners_;
  int32_t helped_;  // the next tile the second thread tries, downwards
  std::array<std::atomic<uint8_t>, (rules::kSampleLimit + kTile - 1) / kTile> claims_{};
};

// The last i from `from` to `to` with the greatest x[i] + y[i], and that sum
// in `sum`; -1 for an empty range. The sums must stay below 2^32.
int32_t LastGreatestSum(const uint32_t* x, const uint32_t* y, int32_t from, int32_t to, int64_t* sum) {
  if (from > to) return -1;
  uint32_t best = 0;
  int32_t i = from;
#if defined(__SSE2__)
  // Unsigned order is signed order with the top bit flipped.
  const __m128i flip = _mm_set1_epi32(INT32_MIN);
  __m128i most = flip;
  for (; i + 3 <= to; i += 4) {
    const __m128i s = _mm_xor_si128(_mm_add_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(x + i)),
                                                  _mm_loadu_si128(reinterpret_cast<const __m128i*>(y + i))),
                                    flip);
    const __m128i greater = _mm_cmpgt_epi32(s, most);
    most = _mm_or_si128(_mm_and_si128(greater, s), _mm_andnot_si128(greater, most));
  }
  uint32_t lanes[4];
  _mm_storeu_si128(reinterpret_cast<__m128i*>(lanes), _mm_xor_si128(most, flip));
  for (uint32_t lane : lanes) best = std::max(best, lane);
#endif
  for (; i <= to; ++i) best = std::max(best, x[i] + y[i]);
  *sum = best;
  int32_t j = to;
#if defined(__SSE2__)
  const __m128i wanted = _mm_set1_epi32(static_cast<int32_t>(best));
  for (; j - 3 >= from; j -= 4) {
    const __m128i s = _mm_add_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(x + j - 3)),
                                    _mm_loadu_si128(reinterpret_cast<const __m128i*>(y + j - 3)));
    const int mask = _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(s, wanted)));
    for (int lane = 3; lane >= 0; --lane) {
      if ((mask >> lane & 1) != 0) return j - 3 + lane;
    }
  }
#endif
  for (; j >= from; --j) {
    if (x[j] + y[j] == best) return j;
  }
  return -1;
}

// The four- and five-point routes through the turnpoints found, with the
// start and finish that go best with their first and last turnpoint.
void StoreFour(const Partners& p, int32_t t1, int32_t t2, int32_t* four) {
  four[0] = p.fromPoint[t1];
  four[1] = t1;
  four[2] = t2;
  four[3] = p.toPoint[t2];
}

void StoreFive(const Partners& p, int32_t t1, int32_t t2, int32_t t3, int32_t* five) {
  five[0] = p.fromPoint[t1];
  five[1] = t1;
  five[2] = t2;
  five[3] = t3;
  five[4] = p.toPoint[t3];
}

// Open distance, 3, 4 and 5 points on the sampled points, ties to the last
// candidate examined. Writes sampled indices.
// The 4- and 5-point searches of FindSampledDistances over 32-bit sums.
void FindSampledDistancesBySums(const uint32_t* distance, int32_t n, const Partners& p, int32_t* four,
                                int32_t* five) {
  const size_t width = static_cast<size_t>(n);
  const uint32_t* to = p.toDistance.get();
  const uint32_t* from = p.fromDistance.get();
  // The best way on from a turnpoint is the same for both: found once.
  int64_t bestFour = -1, bestFive = -1;
  for (int32_t t = 1; t + 2 < n; ++t) {
    const uint32_t* row = distance + static_cast<size_t>(t) * width;
    int64_t after = -1;
    const int32_t next = LastGreatestSum(row, to, t + 1, n - 2, &after);
    if (next >= 0 && from[t] + after >= bestFour) {
      bestFour = from[t] + after;
      StoreFour(p, t, next, four);
    }
    if (t < 2) continue;
    int64_t before = -1;
    const int32_t previous = LastGreatestSum(from, row, 1, t - 1, &before);
    if (before + after >= bestFive) {
      bestFive = before + after;
      StoreFive(p, previous, t, next, five);
    }
  }
}

void FindSampledDistances(const uint32_t* distance, int32_t n, const Partners& p, int32_t* open, int32_t* three,
                          int32_t* four, int32_t* five) {
  const size_t width = static_cast<size_t>(n);
  auto d = [distance, width](int32_t a, int32_t b) {
    return static_cast<int64_t>(distance[static_cast<size_t>(a) * width + static_cast<size_t>(b)]);
  };
  int64_t best = -1;
  for (int32_t a = 0; a + 1 < n; ++a) {
    if (p.toDistance[a] >= best) {
      best = p.toDistance[a];
      open[0] = a;
      open[1] = p.toPoint[a];
    }
  }
  best = -1;
  for (int32_t t = 1; t + 1 < n; ++t) {
    const int64_t sum = static_cast<int64_t>(p.fromDistance[t]) + p.toDistance[t];
    if (sum >= best) {
      best = sum;
      three[0] = p.fromPoint[t];
      three[1] = t;
      three[2] = p.toPoint[t];
    }
  }
  // Below 2^31 metres every sum of two distances has 32 bits: both searches
  // below then take the greatest sums four at a time.
  uint32_t longest = 0;
  for (int32_t a = 0; a < n; ++a) longest = std::max(longest, p.toDistance[a]);
  if (longest < 0x80000000u) {
    FindSampledDistancesBySums(distance, n, p, four, five);
    return;
  }
  best = -1;
  for (int32_t t1 = 1; t1 + 2 < n; ++t1) {
    const int64_t into = p.fromDistance[t1];
    const uint32_t* row = distance + static_cast<size_t>(t1) * width;
    int64_t rowBest = -1;
    int32_t rowPoint = -1;
    for (int32_t t2 = t1 + 1; t2 + 1 < n; ++t2) {
      const int64_t rest = static_cast<int64_t>(row[t2]) + p.toDistance[t2];
      if (rest >= rowBest) {
        rowBest = rest;
        rowPoint = t2;
      }
    }
    if (rowPoint >= 0 && into + rowBest >= best) {
      best = into + rowBest;
      StoreFour(p, t1, rowPoint, four);
    }
  }
  best = -1;
  for (int32_t t2 = 2; t2 + 2 < n; ++t2) {
    int64_t before = -1, after = -1;
    int32_t t1 = -1, t3 = -1;
    for (int32_t t = 1; t < t2; ++t) {
      const int64_t v = p.fromDistance[t] + d(t2, t);
      if (v >= before) {
        before = v;
        t1 = t;
      }
    }
    for (int32_t t = t2 + 1; t + 1 < n; ++t) {
      const int64_t v = d(t2, t) + p.toDistance[t];
      if (v >= after) {
        after = v;
        t3 = t;
      }
    }
    if (before + after >= best) {
      best = before + after;
      StoreFive(p, t1, t2, t3, five);
    }
  }
}

// Greatest 2 d(a, b) - d(a, c) over a < b < c with d(a, c) below the gap; for
// each pair the best b is the last greatest d(a, b) so far along the row.
// The last c from `from` on with row[c] below the closing gap, or -1.
int32_t LastClosing(const uint32_t* row, int32_t from, int32_t n) {
  int32_t c = n - 1;
#if defined(__SSE2__)
  // Unsigned order is signed order with the top bit flipped.
  const __m128i flip = _mm_set1_epi32(INT32_MIN);
  const __m128i limit = _mm_set1_epi32(static_cast<int32_t>(rules::kClosingGap ^ 0x80000000u));
  for (; c - 3 >= from; c -= 4) {
    const __m128i v = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(row + c - 3)), flip);
    if (_mm_movemask_ps(_mm_castsi128_ps(_mm_cmplt_epi32(v, limit))) != 0) break;
  }
#endif
  for (; c >= from; --c) {
    if (row[c] < rules::kClosingGap) return c;
  }
  return -1;
}

bool FindSampledOutAndReturn(const uint32_t* distance, int32_t n, int32_t* corners) {
  int64_t best = rules::kOutAndReturnStart;
  for (int32_t a = 0; a + 2 < n; ++a) {
    const uint32_t* row = distance + static_cast<size_t>(a) * static_cast<size_t>(n);
    int64_t out = -1;
    int32_t turn = -1;
    // Only ends that close count; a row without one has nothing to give.
    const int32_t end = LastClosing(row, a + 2, n);
    for (int32_t c = a + 2; c <= end; ++c) {
      if (row[c - 1] >= out) {
        out = row[c - 1];
        turn = c - 1;
      }
      if (row[c] >= rules::kClosingGap) continue;
      const int64_t score = 2 * out - row[c];
      if (score >= best) {
        best = score;
        corners[0] = a;
        corners[1] = turn;
        corners[2] = c;
      }
    }
  }
  return best >= 0;
}

// The middle of the track's west-east extent: the map projection's meridian.
double CentralMeridian(const TrackPoint* points, int32_t count) {
  int32_t westArc = points[0].lLongitude, eastArc = points[0].lLongitude;
  for (int32_t i = 1; i < count; ++i) {
    westArc = std::min(westArc, points[i].lLongitude);
    eastArc = std::max(eastArc, points[i].lLongitude);
  }
  double lat, westRadians, eastRadians;
  ConvertArcToGeoPos(0, westArc, &lat, &westRadians);
  ConvertArcToGeoPos(0, eastArc, &lat, &eastRadians);
  return (westRadians + eastRadians) / 2.0;
}

void ProjectSample(const TrackPoint* points, const int32_t* sample, int32_t n, double centralMeridian,
                   double* east, double* north) {
  for (int32_t k = 0; k < n; ++k) {
    const MapPos map = ConvertGeoToMapPos(Geo(points[sample[k]]), centralMeridian);
    east[k] = map.x;
    north[k] = map.y;
  }
}

}  // namespace

void AnalyzeStatistics(FlightAnalysis* record) {
  if (record->pPoints == nullptr || record->nPoints < 1) return;
  Statistics statistics(record->pPoints, record->nPoints);
  if (statistics.ok()) {
    statistics.Fill(record);
  } else {
    FillStatistics(record);
  }
}

int32_t SearchSampledDistances(const FlightAnalysis* record, SampledDistances* found) {
  *found = SampledDistances{};
  const TrackPoint* points = record->pPoints;
  const int32_t count = record->nPoints;
  if (points == nullptr || count < 2) return 0;
  const double centralMeridian = CentralMeridian(points, count);
  const int32_t limit = std::min(count, rules::kSampleLimit);
  Table<int32_t> sample(static_cast<size_t>(limit));
  Table<double> east(static_cast<size_t>(limit)), north(static_cast<size_t>(limit));
  Table<uint32_t> distance(static_cast<size_t>(limit) * static_cast<size_t>(limit));
  Partners partners(limit);
  if (!sample.ok() || !east.ok() || !north.ok() || !distance.ok() || !partners.ok()) return -1;
  const int32_t n = SamplePoints(count, sample.get());
  ProjectSample(points, sample.get(), n, centralMeridian, east.get(), north.get());
  DistanceTable(east.get(), north.get(), n, distance.get(), &partners).Fill([](int32_t) {});
  FindSampledDistances(distance.get(), n, partners, found->anOpen, found->anThree, found->anFour, found->anFive);
  found->bOutAndReturn = FindSampledOutAndReturn(distance.get(), n, found->anOutAndReturn) ? 1 : 0;
  auto toFull = [&sample](int32_t* index, int32_t size) {
    for (int32_t m = 0; m < size; ++m) index[m] = sample[index[m]];
  };
  toFull(found->anOpen, 2);
  toFull(found->anThree, 3);
  toFull(found->anFour, 4);
  toFull(found->anFive, 5);
  if (found->bOutAndReturn != 0) toFull(found->anOutAndReturn, 3);
  return 0;
}

int32_t AnalyzeTrack(FlightAnalysis* record) {
  std::printf("Computing statistics\n");
  ClearResults(record);
  const TrackPoint* points = record->pPoints;
  const int32_t count = record->nPoints;
  if (points == nullptr || count < 1) return 0;
  // Every table is taken here, before any work is shared with a thread.
  Statistics statistics(points, count);
  auto fillStatistics = [&statistics, record] {
    if (statistics.ok()) {
      statistics.Fill(record);
    } else {
      FillStatistics(record);
    }
  };
  if (count < 2) {
    fillStatistics();
    return 0;
  }

  const double centralMeridian = CentralMeridian(points, count);

  const int32_t limit = std::min(count, rules::kSampleLimit);
  Table<int32_t> sample(static_cast<size_t>(limit));
  Table<double> east(static_cast<size_t>(limit)), north(static_cast<size_t>(limit));
  Table<uint32_t> distance(static_cast<size_t>(limit) * static_cast<size_t>(limit));
  Table<uint16_t> gap(ClosingTableSize(limit));
  Partners partners(limit);
  if (!sample.ok() || !east.ok() || !north.ok() || !distance.ok() || !gap.ok() || !partners.ok()) {
    fillStatistics();
    std::printf("Memory allocation error\n");
    return -1;
  }
  const int32_t n = SamplePoints(count, sample.get());
  std::optional<TriangleSearch<uint16_t>> search;
  if (n >= 3) search.emplace(distance.get(), n, gap.get());
  const bool searchable = !search || search->ok();

  // The statistics beside the sampled distances, then the distance results
  // beside the preparation of the triangle search; each writes only its own
  // results. Each row of distances, once complete, gives its closing gaps
  // and its spans for the triangle search, in row order. When the statistics
  // of a long track take longer than the table, the table's thread does
  // that for each row while it is at hand; otherwise the statistics' thread
  // follows the table row by row once it is done, until the table is, and
  // the rest comes beside the distance results. Whenever the statistics'
  // thread would wait for the table, it measures part of it.
  const bool rowsAlong = count > 4 * rules::kSampleLimit;
  const bool preparing = search && searchable;
  auto prepareRow = [&](int32_t a) {
    FillClosingGapsRow(distance.get(), n, a, gap.get());
    search->PrepareRow(a);
  };
  std::atomic<int32_t> rowsMade{0};  // rows of the table complete
  std::atomic<bool> projected{false}, tableMade{false};
  DistanceTable fill(east.get(), north.get(), n, distance.get(), &partners);
  int32_t rowsPrepared = 0;
  RunInParallel(
      [&] {
        ProjectSample(points, sample.get(), n, centralMeridian, east.get(), north.get());
        projected.store(true, std::memory_order_release);
        fill.Fill([&](int32_t a) {
          if (preparing && rowsAlong) prepareRow(a);
          rowsMade.store(a + 1, std::memory_order_release);
        });
        tableMade.store(true, std::memory_order_release);
      },
      [&] {
        fillStatistics();
        if (preparing && rowsAlong) rowsPrepared = n;
        const bool following = preparing && !rowsAlong;
        // Until the table is made: each row as soon as it is complete, when
        // this thread prepares them (a row is complete once the table's
        // thread has gone past it), else a tile of the table.
        while (!tableMade.load(std::memory_order_acquire)) {
          if (following && rowsPrepared < rowsMade.load(std::memory_order_acquire)) {
            prepareRow(rowsPrepared++);
          } else if (projected.load(std::memory_order_acquire) && fill.Help()) {
            continue;
          } else if (following || !projected.load(std::memory_order_acquire)) {
            std::this_thread::yield();
          } else {
            break;
          }
        }
      });

  auto toFull = [&sample](int32_t* index, int32_t size) {
    for (int32_t m = 0; m < size; ++m) index[m] = sample[index[m]];
  };
  int32_t outAndReturn[3];
  bool returned = false;
  SampledTriangles triangles{};
  triangles.lFlatScore = rules::kTriangleStart;
  triangles.lFaiScore = rules::kTriangleStart;
  RunInParallel(
      [&] {
        int32_t open[2] = {}, three[3] = {}, four[4] = {}, five[5] = {};
        FindSampledDistances(distance.get(), n, partners, open, three, four, five);
        toFull(open, 2);
        toFull(three, 3);
        toFull(four, 4);
        toFull(five, 5);
        CheckTp0Distance(record, &open[0], &open[1]);
        CheckTp1Distance(record, &three[0], &three[1], &three[2]);
        CheckTp2Distance(record, &four[0], &four[1], &four[2], &four[3]);
        CheckTp3Distance(record, &five[0], &five[1], &five[2], &five[3], &five[4]);
        StoreLegs(record, open, &record->tOpenDistance);
        StoreLegs(record, three, &record->tThreePoint);
        StoreLegs(record, four, &record->tFourPoint);
        StoreLegs(record, five, &record->tFivePoint);
        returned = FindSampledOutAndReturn(distance.get(), n, outAndReturn);
        if (returned) {
          toFull(outAndReturn, 3);
          CheckOutAndReturn(record, &outAndReturn[0], &outAndReturn[1], &outAndReturn[2]);
          StoreOutAndReturn(record, outAndReturn, &record->tOutAndReturn);
        }
      },
      [&] {
        if (!preparing) return;
        for (int32_t a = rowsPrepared; a < n; ++a) prepareRow(a);
        search->PrepareBlocks();
      });
  // The triangle search shares itself between both cores.
  if (search && searchable) {
    const uint32_t* table = distance.get();
    FindTriangles(
        &*search, [table, n](int32_t a, int32_t c) { return ClosingPairOf(table, n, a, c); }, &triangles);
  }

  std::printf("Finding greatest out-and-return (gap = %um)\n", rules::kClosingGap);
  std::printf("Finding greatest triangles (gap = %um)\n", rules::kClosingGap);
  if (!searchable) {
    std::printf("Memory allocation error\n");
    ClearResults(record);
    return -1;
  }
  if (triangles.lFlatScore >= 0) {
    int32_t* t = triangles.anFlat;
    toFull(t, 5);
    CheckFlatTriangle(record, &t[0], &t[1], &t[2], &t[3], &t[4]);
    StoreTriangle(record, t, &record->tFlatTriangle);
  }
  if (triangles.lFaiScore >= 0) {
    int32_t* t = triangles.anFai;
    toFull(t, 5);
    CheckFaiTriangle(record, &t[0], &t[1], &t[2], &t[3], &t[4]);
    StoreTriangle(record, t, &record->tFaiTriangle);
  }
  return 0;
}
