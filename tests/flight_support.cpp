#include "flight_support.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <numbers>
#include <random>
#include <sstream>
#include <utility>

#include "core/run.h"
#include "geo/time.h"
#include "geo/conv.h"

namespace flights {

namespace {

constexpr double kDeg = std::numbers::pi / 180.0;
constexpr double kBaseLatitude = 46.0;
constexpr double kBaseLongitude = 7.0;

bool Digits(const std::string& s, size_t from, size_t count) {
  if (s.size() < from + count) return false;
  for (size_t i = from; i < from + count; ++i) {
    if (!std::isdigit(static_cast<unsigned char>(s[i]))) return false;
  }
  return true;
}

int Number(const std::string& s, size_t from, size_t count) { return std::stoi(s.substr(from, count)); }

// The first point starts a segment; equal times or segment starts every
// n-th point, as the shape asks.
std::vector<TrackPoint> Decorated(std::vector<TrackPoint> points, const Synthetic& shape) {
  points[0].dwFlags = kTrackPointNewSegment;
  for (size_t i = 1; i < points.size(); ++i) {
    if (shape.equalTimeEvery > 0 && i % static_cast<size_t>(shape.equalTimeEvery) == 0) {
      points[i].dwTime = points[i - 1].dwTime;
    }
    if (shape.segmentEvery > 0 && i % static_cast<size_t>(shape.segmentEvery) == 0) {
      points[i].dwFlags |= kTrackPointNewSegment;
    }
  }
  return points;
}

constexpr uint32_t kStartTime = 1000000000;  // 2021-09-14

}  // namespace

TrackPoint PointAt(uint32_t time, Place place, int32_t altitudeMetres) {
  const double lat = kBaseLatitude + place.north / 111132.9;
  const double lon = kBaseLongitude + place.east / (111319.5 * std::cos(kBaseLatitude * kDeg));
  TrackPoint p{};
  p.dwTime = time;
  ConvertGeoToArcPos(lat * kDeg, lon * kDeg, &p.lLatitude, &p.lLongitude);
  p.lGpsAltitude = altitudeMetres * 10;
  p.lPressureAltitude = altitudeMetres;
  return p;
}

std::vector<TrackPoint> ReadIgcFixes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::vector<TrackPoint> points;
  std::string line;
  SystemTime date{2000, 1, 1, 0, 0, 0};
  bool haveDate = false;
  int previousSecond = -1;
  uint32_t dayOffset = 0;
  while (std::getline(file, line)) {
    if (!haveDate && line.rfind("HFDTE", 0) == 0) {
      size_t at = 5;
      while (at < line.size() && !std::isdigit(static_cast<unsigned char>(line[at]))) ++at;
      if (Digits(line, at, 6)) {
        date.wDay = static_cast<uint32_t>(Number(line, at, 2));
        date.wMonth = static_cast<uint32_t>(Number(line, at + 2, 2));
        int year = Number(line, at + 4, 2);
        date.wYear = static_cast<uint32_t>(year < 80 ? 2000 + year : 1900 + year);
        haveDate = true;
      }
      continue;
    }
    if (line.empty() || line[0] != 'B') continue;
    if (!Digits(line, 1, 6) || !Digits(line, 7, 7) || !Digits(line, 15, 8) || !Digits(line, 30, 5)) continue;
    if ((line[14] != 'N' && line[14] != 'S') || (line[23] != 'E' && line[23] != 'W')) continue;
    int second = Number(line, 1, 2) * 3600 + Number(line, 3, 2) * 60 + Number(line, 5, 2);
    if (previousSecond >= 0 && second < previousSecond - 43200) dayOffset += 86400;
    previousSecond = second;
    double lat = Number(line, 7, 2) + Number(line, 9, 5) / 60000.0;
    double lon = Number(line, 15, 3) + Number(line, 18, 5) / 60000.0;
    if (line[14] == 'S') lat = -lat;
    if (line[23] == 'W') lon = -lon;
    TrackPoint p{};
    p.dwTime = ConvertSystemTimeToGpsTime(&date) + static_cast<uint32_t>(second) + dayOffset;
    ConvertGeoToArcPos(lat * kDeg, lon * kDeg, &p.lLatitude, &p.lLongitude);
    p.lGpsAltitude = std::stoi(line.substr(30, 5)) * 10;
    p.lPressureAltitude = Digits(line, 25, 5) ? std::stoi(line.substr(25, 5)) : 0;
    if (points.empty()) p.dwFlags = kTrackPointNewSegment;
    points.push_back(p);
  }
  return points;
}

std::vector<TrackPoint> Path(const std::vector<Place>& corners, double step, uint32_t seconds) {
  std::vector<TrackPoint> points;
  uint32_t time = kStartTime;
  for (size_t k = 0; k + 1 < corners.size(); ++k) {
    const Place a = corners[k], b = corners[k + 1];
    const double length = std::hypot(b.east - a.east, b.north - a.north);
    const int steps = std::max(1, static_cast<int>(std::ceil(length / step)));
    for (int s = 0; s < steps; ++s) {
      const double f = static_cast<double>(s) / steps;
      points.push_back(PointAt(time, {a.east + f * (b.east - a.east), a.north + f * (b.north - a.north)}, 1000));
      time += seconds;
    }
  }
  points.push_back(PointAt(time, corners.back(), 1000));
  points[0].dwFlags = kTrackPointNewSegment;
  return points;
}

std::vector<TrackPoint> Thermalling(const Synthetic& shape, double area) {
  std::mt19937 random(shape.seed);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  std::vector<TrackPoint> points;
  double altitude = 1500.0;
  Place centre{area / 2, area / 2};
  Place here = centre;
  double radius = 50.0, angle = 0.0;
  int thermalLeft = 0;
  bool gliding = false;
  for (int32_t i = 0; i < shape.points; ++i) {
    if (gliding) {
      double dx = centre.east - here.east, dy = centre.north - here.north;
      double gap = std::hypot(dx, dy);
      if (gap <= radius + 12.0) {
        gliding = false;
        angle = std::atan2(here.north - centre.north, here.east - centre.east);
        thermalLeft = 120 + static_cast<int>(unit(random) * 300);
      } else {
        here.east += 12.0 * dx / gap;
        here.north += 12.0 * dy / gap;
        altitude -= 1.0;
      }
    } else {
      angle += 10.0 / radius;
      centre.east = std::min(area - radius, std::max(radius, centre.east + 0.8));
      here = {centre.east + radius * std::cos(angle), centre.north + radius * std::sin(angle)};
      altitude += 1.5 + unit(random);
      if (--thermalLeft <= 0) {
        gliding = true;
        radius = 40.0 + 40.0 * unit(random);
        centre = {radius + unit(random) * (area - 2 * radius), radius + unit(random) * (area - 2 * radius)};
      }
    }
    Place noisy{here.east + 3.0 * (unit(random) - 0.5), here.north + 3.0 * (unit(random) - 0.5)};
    points.push_back(PointAt(kStartTime + static_cast<uint32_t>(i), noisy, static_cast<int32_t>(altitude)));
  }
  return Decorated(std::move(points), shape);
}

std::vector<TrackPoint> RandomWalk(const Synthetic& shape) {
  std::mt19937 random(shape.seed);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  std::vector<TrackPoint> points;
  Place here{0.0, 0.0};
  double heading = 0.0, altitude = 2000.0;
  for (int32_t i = 0; i < shape.points; ++i) {
    heading += (unit(random) - 0.5) * 1.0;
    const double step = 5.0 + 10.0 * unit(random);
    here.east += step * std::sin(heading);
    here.north += step * std::cos(heading);
    altitude += (unit(random) - 0.5) * 6.0;
    points.push_back(PointAt(kStartTime + static_cast<uint32_t>(i), here, static_cast<int32_t>(altitude)));
  }
  return Decorated(std::move(points), shape);
}

std::vector<TrackPoint> StraightGlide(const Synthetic& shape) {
  std::mt19937 random(shape.seed);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  std::vector<TrackPoint> points;
  for (int32_t i = 0; i < shape.points; ++i) {
    Place here{2.0 * (unit(random) - 0.5), 10.0 * i + 2.0 * (unit(random) - 0.5)};
    points.push_back(PointAt(kStartTime + static_cast<uint32_t>(i), here, 3000 - i / 10));
  }
  return Decorated(std::move(points), shape);
}

std::vector<TrackPoint> OutAndReturnFlight(const Synthetic& shape) {
  std::mt19937 random(shape.seed);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  std::vector<TrackPoint> points;
  const int32_t turn = shape.points * 2 / 5;
  double north = 0.0;
  for (int32_t i = 0; i < shape.points; ++i) {
    const bool circling = i % 300 < 60;
    double east = 0.0;
    if (circling) {
      east = 60.0 * std::sin(i / 6.0);
    } else {
      north += i < turn ? 10.0 : -8.0;
    }
    Place here{east + 2.0 * (unit(random) - 0.5), north + 2.0 * (unit(random) - 0.5)};
    points.push_back(PointAt(kStartTime + static_cast<uint32_t>(i), here, 1500 + (i % 300)));
  }
  return Decorated(std::move(points), shape);
}

std::vector<TrackPoint> TriangleFlight(const Synthetic& shape) {
  std::mt19937 random(shape.seed);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  const double side = shape.points * 10.0 / 3.3;
  const Place corners[] = {{0, 0}, {side, 0}, {side / 2, side * 0.85}, {0, 0}};
  std::vector<TrackPoint> points;
  Place here = corners[0];
  int leg = 0;
  int32_t circle = 0;
  for (int32_t i = 0; i < shape.points; ++i) {
    const Place target = corners[std::min(leg + 1, 3)];
    const double dx = target.east - here.east, dy = target.north - here.north;
    const double gap = std::hypot(dx, dy);
    Place shown = here;
    if (circle > 0) {
      --circle;
      shown = {here.east + 50.0 * std::cos(circle / 5.0), here.north + 50.0 * std::sin(circle / 5.0)};
    } else if (gap < 10.0) {
      leg = std::min(leg + 1, 2);
      circle = 60;
    } else {
      here.east += 10.0 * dx / gap;
      here.north += 10.0 * dy / gap;
      shown = here;
    }
    Place noisy{shown.east + 4.0 * (unit(random) - 0.5), shown.north + 4.0 * (unit(random) - 0.5)};
    points.push_back(PointAt(kStartTime + static_cast<uint32_t>(i), noisy, 1200 + i % 500));
  }
  return Decorated(std::move(points), shape);
}

void LoadTrack(const std::vector<TrackPoint>& points) {
  std::free(tGps.pTrackPoints);
  const size_t bytes = sizeof(TrackPoint) * std::max<size_t>(points.size(), 1);
  tGps.pTrackPoints = static_cast<TrackPoint*>(std::malloc(bytes));
  if (!points.empty()) std::memcpy(tGps.pTrackPoints, points.data(), sizeof(TrackPoint) * points.size());
  tGps.nTrackPoints = static_cast<int32_t>(points.size());
  tGps.nTrackCapacity = static_cast<int32_t>(std::max<size_t>(points.size(), 1));
}

std::vector<TrackPoint> LoadedTrack() {
  return std::vector<TrackPoint>(tGps.pTrackPoints, tGps.pTrackPoints + tGps.nTrackPoints);
}

}  // namespace flights
