#include "analysis_reference.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <functional>
#include <unordered_map>

#include "core/run.h"
#include "geo/conv.h"

namespace reference {

namespace {

GeoPos Geo(const TrackPoint& point) {
  GeoPos g;
  ConvertArcToGeoPos(point.lLatitude, point.lLongitude, &g.latitude, &g.longitude);
  return g;
}

double Dist(const TrackPoint& a, const TrackPoint& b) {
  double d = 0.0;
  CalcDistance(Geo(a), Geo(b), &d);
  return d;
}

bool Flagged(const TrackPoint& p) { return (p.dwFlags & 1u) != 0; }

// Dist between two fixes, each pair measured once: the windowed walks ask for
// the same pairs again and again.
class PairDistances {
 public:
  explicit PairDistances(const TrackPoint* p) : p_(p) {}
  double operator()(int32_t a, int32_t b) {
    auto [it, fresh] = known_.try_emplace(static_cast<uint64_t>(static_cast<uint32_t>(a)) << 32 | static_cast<uint32_t>(b));
    if (fresh) it->second = Dist(p_[a], p_[b]);
    return it->second;
  }

 private:
  const TrackPoint* p_;
  std::unordered_map<uint64_t, double> known_;
};

// --- trim ------------------------------------------------------------------

int32_t Earliest(const TrackPoint* p, int32_t i, int32_t floor, int32_t prepend) {
  int32_t k = i;
  while (k - 1 >= floor && p[i].dwTime - p[k - 1].dwTime <= static_cast<uint32_t>(prepend)) k = k - 1;
  return k;
}

// --- statistics --------------------------------------------------------------

// Returns the distance covered walking back over `window` seconds.
double Walk(const TrackPoint* p, PairDistances& dist, int32_t i, uint32_t window, double* altitude) {
  double covered = 0.0;
  double alt = p[i].lGpsAltitude;
  uint64_t elapsed = 0;
  int32_t ref = i;
  for (int32_t j = i - 1; j >= 0; j--) {
    double d = dist(j, ref);
    uint32_t dt = p[ref].dwTime - p[j].dwTime;
    if (dt == 0) {
      if (Flagged(p[j])) break;
      continue;
    }
    if (elapsed + dt >= window) {
      double f = static_cast<double>(window - elapsed) / dt;
      covered += f * d;
      alt = p[ref].lGpsAltitude + f * (static_cast<double>(p[j].lGpsAltitude) - p[ref].lGpsAltitude);
      break;
    }
    covered += d;
    elapsed += dt;
    ref = j;
    alt = p[j].lGpsAltitude;
    if (Flagged(p[j])) break;
  }
  *altitude = alt;
  return covered;
}

// --- sampled tables -----------------------------------------------------------

struct Triangular {
  int32_t n = 0;
  std::vector<size_t> rowStart;
  std::vector<uint32_t> cells;
  void Init(int32_t count) {
    n = count;
    rowStart.assign(static_cast<size_t>(count), 0);
    size_t at = 0;
    for (int32_t a = 0; a < count; a++) {
      rowStart[static_cast<size_t>(a)] = at;
      at += static_cast<size_t>(count - a);
    }
    cells.assign(at, 0);
  }
  uint32_t& At(int32_t a, int32_t b) { return cells[rowStart[static_cast<size_t>(a)] + static_cast<size_t>(b - a)]; }
  // Row a indexed by the column itself (columns a .. n-1).
  const uint32_t* Row(int32_t a) const { return cells.data() + rowStart[static_cast<size_t>(a)] - a; }
};

uint32_t Round(double metres) {
  double v = metres + 0.5;
  if (!(v < 4294967296.0)) return 0xFFFFFFFFu;
  return static_cast<uint32_t>(v);
}


// The sampled indices and their map positions.
void Sample(const TrackPoint* p, int32_t n, std::vector<int32_t>* idx, std::vector<MapPos>* map) {
  double west = 1e9, east = -1e9;
  for (int32_t i = 0; i < n; i++) {
    double lon = Geo(p[i]).longitude;
    if (lon < west) west = lon;
    if (lon > east) east = lon;
  }
  double meridian = (west + east) / 2.0;
  idx->clear();
  if (n <= 2000) {
    for (int32_t i = 0; i < n; i++) idx->push_back(i);
  } else {
    int64_t acc = n;
    for (int32_t i = 0; i < n; i++) {
      acc += 1999;
      if (acc >= n) {
        acc -= n;
        idx->push_back(i);
      }
    }
  }
  map->clear();
  for (int32_t k : *idx) map->push_back(ConvertGeoToMapPos(Geo(p[k]), meridian));
}

double Planar(const MapPos& a, const MapPos& b) {
  double dx = a.x - b.x;
  double dy = a.y - b.y;
  return std::sqrt(dx * dx + dy * dy);
}

void Closing(Triangular& d, Triangular* gap, Triangular* pair) {
  const int32_t n = d.n;
  gap->Init(n);
  pair->Init(n);
  if (n < 2) return;
  uint32_t best = 0, bestPair = 0;
  for (int32_t c = n - 1; c >= 1; c--) {
    if (c == n - 1 || d.At(0, c) < best) {
      best = d.At(0, c);
      bestPair = static_cast<uint32_t>(c);
    }
    gap->At(0, c) = best;
    pair->At(0, c) = bestPair;
  }
  for (int32_t a = 1; a <= n - 2; a++) {
    uint32_t own = 0, ownPair = 0;
    for (int32_t c = n - 1; c >= a + 1; c--) {
      if (c == n - 1 || d.At(a, c) < own) {
        own = d.At(a, c);
        ownPair = static_cast<uint32_t>(a) * 65536u + static_cast<uint32_t>(c);
      }
      uint32_t value = own, which = ownPair;
      if (gap->At(a - 1, c) < value) {
        value = gap->At(a - 1, c);
        which = pair->At(a - 1, c);
      }
      gap->At(a, c) = value;
      pair->At(a, c) = which;
    }
  }
}

void Triangles(Triangular& d, Triangular& gap, Triangular& pair, SampledTriangles* out) {
  const int32_t n = d.n;
  // A full copy, so that the distances to the third corner are read along a row.
  // Each point's longest leg bounds the two legs through b.
  std::vector<uint32_t> square(static_cast<size_t>(n) * static_cast<size_t>(n)), longest(static_cast<size_t>(n));
  for (int32_t a = 0; a < n; a++) {
    for (int32_t b = a; b < n; b++) {
      square[static_cast<size_t>(a) * static_cast<size_t>(n) + static_cast<size_t>(b)] = d.At(a, b);
      square[static_cast<size_t>(b) * static_cast<size_t>(n) + static_cast<size_t>(a)] = d.At(a, b);
      longest[a] = std::max(longest[a], d.At(a, b)), longest[b] = std::max(longest[b], d.At(a, b));
    }
  }
  int64_t flat = -1, fai = -1;
  int32_t f[5] = {}, g[5] = {};
  for (int32_t a = 0; a <= n - 3; a++) {
    const uint32_t* rowA = d.Row(a);
    const uint32_t* gaps = gap.Row(a);
    const uint32_t* pairs = pair.Row(a);
    for (int32_t c = a + 2; c <= n - 1; c++) {
      if (gaps[c] >= 800) continue;
      int32_t s = static_cast<int32_t>(pairs[c] >> 16);
      int32_t e = static_cast<int32_t>(pairs[c] & 0xFFFF);
      int64_t closing = gaps[c];
      int64_t ac = rowA[c];
      // No b can reach the FAI score found, nor so the flat one, which is never below it.
      if (ac + longest[a] + longest[c] - closing < fai) continue;
      const uint32_t* rowC = square.data() + static_cast<size_t>(c) * static_cast<size_t>(n);
      for (int32_t b = a + 1; b < c; b++) {
        int64_t ab = rowA[b], bc = rowC[b];
        int64_t perimeter = ac + ab + bc;
        int64_t score = perimeter - closing;
        if (score >= flat) {
          flat = score;
          int32_t t[5] = {s, a, b, c, e};
          std::memcpy(f, t, sizeof t);
        }
        if (score >= fai) {
          int64_t least = (perimeter * 7) / 25;
          if (ac >= least && ab >= least && bc >= least) {
            fai = score;
            int32_t t[5] = {s, a, b, c, e};
            std::memcpy(g, t, sizeof t);
          }
        }
      }
    }
  }
  *out = SampledTriangles{};
  out->lFlatScore = flat;
  out->lFaiScore = fai;
  if (flat >= 0) std::memcpy(out->anFlat, f, sizeof f);
  if (fai >= 0) std::memcpy(out->anFai, g, sizeof g);
}

Triangular FromSquare(const std::vector<uint32_t>& square, int32_t n) {
  Triangular t;
  t.Init(n);
  for (int32_t a = 0; a < n; a++) {
    for (int32_t b = a; b < n; b++) t.At(a, b) = square[static_cast<size_t>(a) * static_cast<size_t>(n) + static_cast<size_t>(b)];
  }
  return t;
}

// --- refinement ----------------------------------------------------------------

using Scorer = std::function<bool(const std::vector<int32_t>&, bool, double, double*)>;

void Refine(const FlightAnalysis* r, std::vector<int32_t>* idx, const Scorer& score) {
  const int32_t k = static_cast<int32_t>(idx->size());
  const int32_t n = r->nPoints;
  std::vector<int32_t> at(static_cast<size_t>(k)), best;
  double bestScore = 0.0;
  bool found = false;
  std::function<void(int32_t)> level = [&](int32_t m) {
    for (int32_t off = -2; off <= 2; off++) {
      int32_t i = (*idx)[static_cast<size_t>(m)] + off;
      if (i < 0) continue;
      if (i > n - k + m) continue;
      if (m > 0 && i <= at[static_cast<size_t>(m - 1)]) continue;
      at[static_cast<size_t>(m)] = i;
      if (m < k - 1) {
        level(m + 1);
      } else {
        double s;
        if (score(at, found, bestScore, &s)) {
          found = true;
          bestScore = s;
          best = at;
        }
      }
    }
  };
  level(0);
  if (found) *idx = best;
}

void RefineSum(const FlightAnalysis* r, std::vector<int32_t>* idx) {
  const TrackPoint* p = r->pPoints;
  Refine(r, idx, [p](const std::vector<int32_t>& at, bool found, double best, double* s) {
    double sum = 0.0;
    for (size_t m = 0; m + 1 < at.size(); m++) sum += Dist(p[at[m]], p[at[m + 1]]);
    *s = sum;
    return !found || sum >= best;
  });
}

void Store(const FlightAnalysis* r, const std::vector<int32_t>& idx, DistanceResult* out) {
  const TrackPoint* p = r->pPoints;
  double sum = 0.0;
  for (size_t m = 0; m < idx.size(); m++) out->anIndex[m] = idx[m];
  for (size_t m = 0; m + 1 < idx.size(); m++) {
    out->adDistance[m] = Dist(p[idx[m]], p[idx[m + 1]]);
    sum += out->adDistance[m];
  }
  out->dSum = sum;
}

void RefineTriangle(const FlightAnalysis* r, std::vector<int32_t>* idx, bool fai) {
  const TrackPoint* p = r->pPoints;
  Refine(r, idx, [p, fai](const std::vector<int32_t>& at, bool found, double best, double* s) {
    double closing = Dist(p[at[0]], p[at[4]]);
    if (!(closing < 800.0)) return false;
    double l1 = Dist(p[at[1]], p[at[2]]);
    double l2 = Dist(p[at[2]], p[at[3]]);
    double l3 = Dist(p[at[3]], p[at[1]]);
    double score = l1 + l2 + l3 - closing;
    if (found && !(score >= best)) return false;
    if (fai) {
      double perimeter = l1 + l2 + l3;
      if (l1 < 0.28 * perimeter || l2 < 0.28 * perimeter || l3 < 0.28 * perimeter) return false;
    }
    *s = score;
    return true;
  });
}

void StoreTriangle(const FlightAnalysis* r, const std::vector<int32_t>& idx, DistanceResult* out) {
  const TrackPoint* p = r->pPoints;
  for (int m = 0; m < 5; m++) out->anIndex[m] = idx[static_cast<size_t>(m)];
  out->adDistance[0] = Dist(p[idx[1]], p[idx[2]]);
  out->adDistance[1] = Dist(p[idx[2]], p[idx[3]]);
  out->adDistance[2] = Dist(p[idx[3]], p[idx[1]]);
  out->adDistance[3] = Dist(p[idx[0]], p[idx[4]]);
  out->dSum = out->adDistance[0] + out->adDistance[1] + out->adDistance[2] - out->adDistance[3];
}

}  // namespace

int32_t TrimTrack() {
  TrackPoint* p = tGps.pTrackPoints;
  const int32_t n = tGps.nTrackPoints;
  if (p == nullptr || n < 1) return 0;
  double dist = 0.0;  // one value through the whole trim; a failed measurement leaves it
  auto measure = [&](int32_t a, int32_t b) {
    CalcDistance(Geo(p[a]), Geo(p[b]), &dist);
    return dist;
  };
  std::printf("\nTrack trim results:\n");
  PrintTrimInformation(0, "First logged position");

  int32_t start = 0;
  if (tGps.nTrimLocationInterval != 0 && tGps.nTrimLocationDistance != 0 && n >= 2) {
    for (int32_t s = 0; s <= n - 2; s++) {
      int32_t e = s;
      for (int32_t j = s + 1; j < n; j++) {
        if (p[j].dwTime - p[s].dwTime > static_cast<uint32_t>(tGps.nTrimLocationInterval)) break;
        e = j;
      }
      bool rejected = false;
      if (e > s) {
        for (int32_t a = s; a < e && !rejected; a++) {
          for (int32_t b = a + 1; b <= e && !rejected; b++) {
            if (measure(a, b) > tGps.nTrimLocationDistance) rejected = true;
          }
        }
      }
      if (!rejected) {
        start = e;
        break;
      }
    }
  }
  PrintTrimInformation(start, "Start point");

  int32_t speedTakeoff = start;
  if (tGps.nTrimTakeoffInterval != 0 && tGps.nTrimTakeoffDistance != 0 && n - start >= 2) {
    for (int32_t i = start; i <= n - 2; i++) {
      int32_t j = -1;
      for (int32_t k = i + 1; k < n; k++) {
        if (p[k].dwTime - p[i].dwTime >= static_cast<uint32_t>(tGps.nTrimTakeoffInterval)) {
          j = k;
          break;
        }
      }
      if (j < 0) continue;
      if (measure(i, j) >= tGps.nTrimTakeoffDistance) {
        PrintTrimInformation(i, "Speed takeoff detected");
        speedTakeoff = Earliest(p, i, start, tGps.nTrimTakeoffPrepend);
        PrintTrimInformation(speedTakeoff, "Speed takeoff");
        break;
      }
    }
  }

  int32_t boxTakeoff = start;
  if (tGps.nTrimTakeoffBoxRadius != 0 && tGps.nTrimTakeoffBoxHeight != 0 && n - start >= 2) {
    int64_t h = static_cast<int64_t>(tGps.nTrimTakeoffBoxHeight) * 10;
    for (int32_t i = start; i < n; i++) {
      const char* why = nullptr;
      if (measure(i, start) >= tGps.nTrimTakeoffBoxRadius) {
        why = "Box exit takeoff detected (distance from start point)";
      } else if (static_cast<int64_t>(p[i].lGpsAltitude) - p[start].lGpsAltitude >= h) {
        why = "Box exit takeoff detected (altitude above start point)";
      } else if (static_cast<int64_t>(p[start].lGpsAltitude) - p[i].lGpsAltitude >= h) {
        why = "Box exit takeoff detected (altitude below start point)";
      }
      if (why != nullptr) {
        PrintTrimInformation(i, why);
        boxTakeoff = Earliest(p, i, start, tGps.nTrimTakeoffBoxPrepend);
        PrintTrimInformation(boxTakeoff, "Box exit takeoff");
        break;
      }
    }
  }

  int32_t takeoff = speedTakeoff < boxTakeoff ? speedTakeoff : boxTakeoff;
  PrintTrimInformation(takeoff, "Takeoff");

  int32_t landing = n - 1;
  if (tGps.nTrimLandingInterval != 0 && tGps.nTrimLandingDistance != 0 && n - takeoff >= 2) {
    for (int32_t i = n - 1; i >= takeoff; i--) {
      int32_t j = -1;
      for (int32_t k = i - 1; k >= takeoff; k--) {
        if (p[i].dwTime - p[k].dwTime >= static_cast<uint32_t>(tGps.nTrimLandingInterval)) {
          j = k;
          break;
        }
      }
      if (j < 0) continue;
      if (measure(j, i) >= tGps.nTrimLandingDistance) {
        PrintTrimInformation(i, "Landing detected");
        landing = i;
        for (int32_t k = i + 1; k < n; k++) {
          if (p[k].dwTime - p[i].dwTime > static_cast<uint32_t>(tGps.nTrimLandingAppend)) break;
          landing = k;
        }
        break;
      }
    }
  }
  PrintTrimInformation(landing, "Landing");
  PrintTrimInformation(n - 1, "Last logged position\n");

  int32_t kept = landing - takeoff + 1;
  TrackPoint* copy = static_cast<TrackPoint*>(std::malloc(sizeof(TrackPoint) * static_cast<size_t>(kept)));
  if (copy == nullptr) {
    std::printf("Memory allocation error\n");
    return -1;
  }
  for (int32_t i = 0; i < kept; i++) copy[i] = p[takeoff + i];
  std::free(tGps.pTrackPoints);
  tGps.pTrackPoints = copy;
  tGps.nTrackPoints = kept;
  tGps.nTrackCapacity = kept;
  return 0;
}

std::vector<uint32_t> SampledDistances(const TrackPoint* points, int32_t count, int32_t* sampled) {
  std::vector<int32_t> idx;
  std::vector<MapPos> map;
  Sample(points, count, &idx, &map);
  const size_t n = idx.size();
  std::vector<uint32_t> square(n * n);
  for (size_t a = 0; a < n; a++) {
    for (size_t b = 0; b < n; b++) square[a * n + b] = Round(Planar(map[std::min(a, b)], map[std::max(a, b)]));
  }
  *sampled = static_cast<int32_t>(n);
  return square;
}

void FillClosingTables(const std::vector<uint32_t>& distance, int32_t count, std::vector<uint32_t>* gap,
                       std::vector<uint32_t>* pair) {
  Triangular d = FromSquare(distance, count), g, q;
  Closing(d, &g, &q);
  *gap = g.cells;
  *pair = q.cells;
}

SampledTriangles FindSampledTriangles(const std::vector<uint32_t>& distance, int32_t count) {
  Triangular d = FromSquare(distance, count), g, q;
  Closing(d, &g, &q);
  SampledTriangles out;
  Triangles(d, g, q, &out);
  return out;
}

int32_t AnalyzeTrack(FlightAnalysis* r) {
  std::printf("Computing statistics\n");
  DistanceResult* all[] = {&r->tFivePoint,    &r->tFourPoint,    &r->tThreePoint, &r->tOpenDistance,
                           &r->tOutAndReturn, &r->tFlatTriangle, &r->tFaiTriangle};
  const int32_t sizes[] = {5, 4, 3, 2, 3, 5, 5};
  for (int k = 0; k < 7; k++) {
    *all[k] = DistanceResult{};
    all[k]->nPoints = sizes[k];
  }
  const TrackPoint* p = r->pPoints;
  const int32_t n = r->nPoints;
  if (p == nullptr || n < 1) return 0;

  // Statistics.
  r->dwStartTime = p[0].dwTime;
  r->dwEndTime = p[n - 1].dwTime;
  r->dwDuration = r->dwEndTime - r->dwStartTime;
  int32_t low = 1000000, high = -1000000;
  for (int32_t i = 0; i < n; i++) {
    if (p[i].lGpsAltitude < low) low = p[i].lGpsAltitude;
    if (p[i].lGpsAltitude > high) high = p[i].lGpsAltitude;
  }
  r->nLowestAltitude = static_cast<int32_t>((static_cast<int64_t>(low) + 5) / 10);
  r->nHighestAltitude = static_cast<int32_t>((static_cast<int64_t>(high) + 5) / 10);
  double length = 0.0, top = 0.0, mean = 0.0, sink = 0.0, climbBest = 0.0, climb = 0.0;
  PairDistances pairs(p);
  for (int32_t i = 1; i < n; i++) {
    length += pairs(i - 1, i);
    if (p[i - 1].dwTime > p[0].dwTime + 10u) {
      double speed = 0.0;
      if (!Flagged(p[i])) {
        double alt;
        speed = 0.36 * Walk(p, pairs, i, 10, &alt);
      }
      if (speed > top) top = speed;
    }
    if (p[i - 1].dwTime > p[0].dwTime + 60u) {
      double speed = 0.0;
      if (!Flagged(p[i])) {
        double alt;
        speed = 0.06 * Walk(p, pairs, i, 60, &alt);
        climb = (p[i].lGpsAltitude - alt) * 0.001666667;
      }
      if (speed > mean) mean = speed;
      if (climb < sink) sink = climb;
      if (climb > climbBest) climbBest = climb;
    }
  }
  r->dTrackLength = length;
  r->dTopSpeed = top;
  r->dMeanSpeed = mean;
  r->dWorstSink = sink;
  r->dBestClimb = climbBest;
  r->dAverageSpeed = 3.6 * length / r->dwDuration;
  if (n < 2) return 0;

  // Sampling and the planar table.
  std::vector<int32_t> idx;
  std::vector<MapPos> map;
  Sample(p, n, &idx, &map);
  const int32_t N = static_cast<int32_t>(idx.size());
  Triangular d;
  d.Init(N);
  std::vector<uint32_t> maxTo(static_cast<size_t>(N), 0), maxFrom(static_cast<size_t>(N), 0);
  std::vector<int32_t> to(static_cast<size_t>(N)), from(static_cast<size_t>(N));
  for (int32_t a = 0; a < N; a++) {
    to[static_cast<size_t>(a)] = a + 1;
    from[static_cast<size_t>(a)] = a - 1;
  }
  for (int32_t a = 0; a < N; a++) {
    for (int32_t b = a; b < N; b++) {
      uint32_t v = Round(Planar(map[static_cast<size_t>(a)], map[static_cast<size_t>(b)]));
      d.At(a, b) = v;
      if (b == a) continue;
      if (v > maxTo[static_cast<size_t>(a)]) {
        maxTo[static_cast<size_t>(a)] = v;
        to[static_cast<size_t>(a)] = b;
      }
      if (v > maxFrom[static_cast<size_t>(b)]) {
        maxFrom[static_cast<size_t>(b)] = v;
        from[static_cast<size_t>(b)] = a;
      }
    }
  }
  auto full = [&idx](std::vector<int32_t> v) {
    for (int32_t& x : v) x = idx[static_cast<size_t>(x)];
    return v;
  };

  // Open distance, 3, 4 and 5 points.
  int64_t best = -1;
  std::vector<int32_t> open = {0, 0}, three = {0, 0, 0}, four = {0, 0, 0, 0}, five = {0, 0, 0, 0, 0};
  for (int32_t a = 0; a <= N - 2; a++) {
    if (maxTo[static_cast<size_t>(a)] >= best) {
      best = maxTo[static_cast<size_t>(a)];
      open = {a, to[static_cast<size_t>(a)]};
    }
  }
  best = -1;
  for (int32_t t = 1; t <= N - 2; t++) {
    int64_t s = static_cast<int64_t>(maxFrom[static_cast<size_t>(t)]) + maxTo[static_cast<size_t>(t)];
    if (s >= best) {
      best = s;
      three = {from[static_cast<size_t>(t)], t, to[static_cast<size_t>(t)]};
    }
  }
  best = -1;
  for (int32_t t1 = 1; t1 <= N - 3; t1++) {
    for (int32_t t2 = t1 + 1; t2 <= N - 2; t2++) {
      int64_t s = static_cast<int64_t>(maxFrom[static_cast<size_t>(t1)]) + d.At(t1, t2) + maxTo[static_cast<size_t>(t2)];
      if (s >= best) {
        best = s;
        four = {from[static_cast<size_t>(t1)], t1, t2, to[static_cast<size_t>(t2)]};
      }
    }
  }
  best = -1;
  for (int32_t t2 = 2; t2 <= N - 3; t2++) {
    int64_t b1 = -1, b3 = -1;
    int32_t t1 = 0, t3 = 0;
    for (int32_t t = 1; t <= t2 - 1; t++) {
      int64_t v = static_cast<int64_t>(maxFrom[static_cast<size_t>(t)]) + d.At(t, t2);
      if (v >= b1) {
        b1 = v;
        t1 = t;
      }
    }
    for (int32_t t = t2 + 1; t <= N - 2; t++) {
      int64_t v = static_cast<int64_t>(d.At(t2, t)) + maxTo[static_cast<size_t>(t)];
      if (v >= b3) {
        b3 = v;
        t3 = t;
      }
    }
    if (b1 + b3 >= best) {
      best = b1 + b3;
      five = {from[static_cast<size_t>(t1)], t1, t2, t3, to[static_cast<size_t>(t3)]};
    }
  }
  open = full(open);
  three = full(three);
  four = full(four);
  five = full(five);
  RefineSum(r, &open);
  RefineSum(r, &three);
  RefineSum(r, &four);
  RefineSum(r, &five);
  Store(r, open, &r->tOpenDistance);
  Store(r, three, &r->tThreePoint);
  Store(r, four, &r->tFourPoint);
  Store(r, five, &r->tFivePoint);

  // Out-and-return.
  std::printf("Finding greatest out-and-return (gap = 800m)\n");
  best = -999999999;
  std::vector<int32_t> oar = {0, 0, 0};
  for (int32_t a = 0; a <= N - 3; a++) {
    const uint32_t* rowA = d.Row(a);
    for (int32_t c = a + 2; c <= N - 1; c++) {
      if (rowA[c] >= 800) continue;
      for (int32_t b = a + 1; b < c; b++) {
        int64_t score = 2 * static_cast<int64_t>(rowA[b]) - rowA[c];
        if (score >= best) {
          best = score;
          oar = {a, b, c};
        }
      }
    }
  }
  if (best >= 0) {
    oar = full(oar);
    Refine(r, &oar, [p](const std::vector<int32_t>& at, bool found, double bestScore, double* s) {
      double closing = Dist(p[at[0]], p[at[2]]);
      if (closing > 800.0) return false;
      double score = 2 * Dist(p[at[0]], p[at[1]]) - closing;
      *s = score;
      return !found || score >= bestScore;
    });
    DistanceResult* out = &r->tOutAndReturn;
    for (int m = 0; m < 3; m++) out->anIndex[m] = oar[static_cast<size_t>(m)];
    out->adDistance[0] = Dist(p[oar[0]], p[oar[1]]);
    out->adDistance[1] = Dist(p[oar[0]], p[oar[2]]);
    out->dSum = 2 * out->adDistance[0] - out->adDistance[1];
  }

  // Triangles.
  std::printf("Finding greatest triangles (gap = 800m)\n");
  Triangular gap, pair;
  Closing(d, &gap, &pair);
  SampledTriangles t;
  Triangles(d, gap, pair, &t);
  if (t.lFlatScore >= 0) {
    std::vector<int32_t> v = full(std::vector<int32_t>(t.anFlat, t.anFlat + 5));
    RefineTriangle(r, &v, false);
    StoreTriangle(r, v, &r->tFlatTriangle);
  }
  if (t.lFaiScore >= 0) {
    std::vector<int32_t> v = full(std::vector<int32_t>(t.anFai, t.anFai + 5));
    RefineTriangle(r, &v, true);
    StoreTriangle(r, v, &r->tFaiTriangle);
  }
  return 0;
}

}  // namespace reference
