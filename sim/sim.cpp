#include "sim/sim.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/time.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace sim {

namespace {

constexpr int kPollMilliseconds = 20;
constexpr size_t kPacedChunk = 32;

std::string Trim(const std::string& text) {
  size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) return "";
  size_t end = text.find_last_not_of(" \t\r\n");
  return text.substr(begin, end - begin + 1);
}

bool ParseNumber(const std::string& text, int64_t* value) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  long long v = std::strtoll(text.c_str(), &end, 10);
  if (*end != '\0' || errno != 0 || v < 0) return false;
  *value = v;
  return true;
}

bool ParseReal(const std::string& text, double* value) {
  std::string t = Trim(text);
  if (t.empty()) return false;
  char* end = nullptr;
  *value = std::strtod(t.c_str(), &end);
  return *end == '\0';
}

int TwoDigits(const std::string& text, size_t at) {
  if (at + 2 > text.size() || text[at] < '0' || text[at] > '9' || text[at + 1] < '0' || text[at + 1] > '9') {
    return -1;
  }
  return (text[at] - '0') * 10 + (text[at + 1] - '0');
}

}  // namespace

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::string part;
  std::istringstream in(text);
  while (std::getline(in, part, separator)) parts.push_back(part);
  if (!text.empty() && text.back() == separator) parts.emplace_back();
  return parts;
}

uint64_t NowMicros() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  return static_cast<uint64_t>(tv.tv_sec) * 1000000u + static_cast<uint64_t>(tv.tv_usec);
}

bool ParseLineFault(FaultKind kind, const std::string& text, LineFault* fault) {
  std::vector<std::string> parts = Split(text, ':');
  size_t wanted = kind == FaultKind::kPause ? 3 : 2;
  if (parts.size() != wanted) return false;
  int64_t reply = 0, offset = 0, milliseconds = 0;
  if (!ParseNumber(parts[0], &reply) || !ParseNumber(parts[1], &offset)) return false;
  if (wanted == 3 && !ParseNumber(parts[2], &milliseconds)) return false;
  if (reply > 1000000 || milliseconds > 3600000) return false;
  *fault = LineFault{kind, static_cast<int>(reply), offset, static_cast<int>(milliseconds)};
  return true;
}

void Line::BeginReply() {
  ++reply_;
  replyOffset_ = 0;
  gone_ = false;
}

void Line::Note(const std::string& text) {
  if (trace_) trace_(text);
}

int32_t Line::Speed() const {
  // A pseudo-terminal has one set of settings: the program's end shows here.
  termios settings{};
  if (fd_ < 0 || tcgetattr(fd_, &settings) != 0) return 0;
  switch (cfgetispeed(&settings)) {
    case B4800:
      return 4800;
    case B9600:
      return 9600;
    case B19200:
      return 19200;
    case B38400:
      return 38400;
    case B57600:
      return 57600;
    case B115200:
      return 115200;
    default:
      return 0;
  }
}

bool Line::Stopping() const { return stop_ != nullptr && stop_->load(); }

void Line::Pace(size_t bytes) {
  if (baud_ <= 0) return;
  // Ten bits a byte: start, eight data bits, stop.
  auto duration = [this](uint64_t count) { return count * 10000000u / static_cast<uint64_t>(baud_); };
  uint64_t now = NowMicros();
  // After a pause in the conversation the line starts afresh, without
  // catching up on the idle time.
  if (pacedBytes_ == 0 || now > paceStart_ + duration(pacedBytes_) + 50000u) {
    paceStart_ = now;
    pacedBytes_ = 0;
  }
  pacedBytes_ += bytes;
  uint64_t due = paceStart_ + duration(pacedBytes_);
  while (now < due && !stop_->load()) {
    usleep(static_cast<useconds_t>(due - now < 20000 ? due - now : 20000));
    now = NowMicros();
  }
}

bool Line::WriteAll(const char* data, size_t size) {
  while (size > 0) {
    if (stop_->load()) return false;
    pollfd p{fd_, POLLOUT, 0};
    int ready = poll(&p, 1, kPollMilliseconds);
    if (ready < 0 && errno != EINTR) return false;
    // Nobody has the terminal open any more: the program is gone.
    if (p.revents & (POLLHUP | POLLERR)) return false;
    if (!(p.revents & POLLOUT)) continue;
    ssize_t n = write(fd_, data, size);
    if (n < 0) {
      if (errno == EAGAIN || errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

int64_t Line::Position(const LineFault& fault) const {
  if (fault.reply == 0) return sessionOffset_;
  return fault.reply == reply_ ? replyOffset_ : -1;
}

bool Line::Send(std::string_view bytes) {
  size_t i = 0;
  while (i < bytes.size() && !gone_) {
    // Up to the next fault position, at most one paced chunk at a time.
    size_t run = bytes.size() - i;
    if (baud_ > 0 && run > kPacedChunk) run = kPacedChunk;
    bool flip = false;
    for (const LineFault& f : faults_) {
      int64_t at = Position(f);
      if (at < 0) continue;
      if (f.kind == FaultKind::kCut && f.offset <= at) return true;  // silent for the rest
      if (f.offset == at && f.kind == FaultKind::kPause) {
        for (int waited = 0; waited < f.milliseconds && !stop_->load(); waited += 10) usleep(10000);
        pacedBytes_ = 0;
      }
      if (f.offset == at && f.kind == FaultKind::kFlip) flip = true;
      if (f.offset > at && static_cast<uint64_t>(f.offset - at) < run) run = static_cast<size_t>(f.offset - at);
    }
    std::string piece(bytes.substr(i, run));
    if (flip) piece[0] = static_cast<char>(piece[0] ^ 1);
    Pace(run);
    if (!WriteAll(piece.data(), piece.size())) {
      gone_ = true;
      return false;
    }
    i += run;
    replyOffset_ += static_cast<int64_t>(run);
    sessionOffset_ += static_cast<int64_t>(run);
  }
  return !gone_;
}

Simulator::Simulator(std::unique_ptr<Instrument> instrument, int32_t baud, std::vector<LineFault> faults)
    : instrument_(std::move(instrument)) {
  line_.baud_ = baud;
  line_.faults_ = std::move(faults);
  line_.stop_ = &stop_;
}

Simulator::~Simulator() { Stop(); }

int Simulator::Start() {
  master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (master_ < 0) {
    error_ = std::string("posix_openpt: ") + std::strerror(errno);
    return -1;
  }
  char name[128];
  if (grantpt(master_) != 0 || unlockpt(master_) != 0 || ptsname_r(master_, name, sizeof name) != 0) {
    error_ = std::string("pseudo-terminal set-up: ") + std::strerror(errno);
    close(master_);
    master_ = -1;
    return -1;
  }
  int flags = fcntl(master_, F_GETFL);
  fcntl(master_, F_SETFL, flags | O_NONBLOCK);
  path_ = name;
  line_.fd_ = master_;
  stop_ = false;
  thread_ = std::thread([this] { Serve(); });
  return 0;
}

void Simulator::Stop() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  if (master_ >= 0) {
    close(master_);
    master_ = -1;
  }
}

void Simulator::Settle(int limitMs) {
  if (!thread_.joinable()) return;
  int ticket = ++settleRequests_;
  for (int waited = 0; waited < limitMs && settled_.load() < ticket; waited += 5) usleep(5000);
}

void Simulator::Serve() {
  char buffer[4096];
  // Reads one chunk and hands it on; the result of the read.
  auto take = [this, &buffer]() {
    ssize_t n = read(master_, buffer, sizeof buffer);
    if (n <= 0) return n;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      received_.push_back(Chunk{NowMicros(), std::string(buffer, static_cast<size_t>(n))});
    }
    for (ssize_t i = 0; i < n && !stop_; ++i) instrument_->Receive(static_cast<uint8_t>(buffer[i]), line_);
    return n;
  };
  while (!stop_) {
    pollfd p{master_, POLLIN, 0};
    int ready = poll(&p, 1, kPollMilliseconds);
    if (ready > 0 && (p.revents & POLLIN) && take() > 0) continue;
    int requested = settleRequests_.load();
    if (settled_.load() < requested) {
      // A read flushes what is still on its way into the terminal's queue;
      // it fails with EIO only once the program has closed its end and
      // everything it sent has been taken.
      ssize_t n = take();
      if (n > 0) continue;
      if (n < 0 && errno == EIO) settled_ = requested;
    }
    // No program on the other end: wait for the next one.
    if (ready > 0) usleep(10000);
  }
}

std::vector<Chunk> Simulator::Received() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return received_;
}

std::string Simulator::ReceivedBytes() const {
  std::string all;
  for (const Chunk& c : Received()) all += c.bytes;
  return all;
}

PortLink::PortLink(const std::string& name, const std::string& target) : path_("/dev/cu." + name), target_(target) {
  char existing[256];
  ssize_t n = readlink(path_.c_str(), existing, sizeof existing - 1);
  if (n >= 0) {
    // Only a link to a pseudo-terminal (one of ours, maybe left by a run
    // that was killed) is replaced.
    if (std::strncmp(existing, "/dev/pts/", 9) != 0) {
      error_ = path_ + " exists and is not a simulator link";
      return;
    }
    unlink(path_.c_str());
  } else if (errno != ENOENT) {
    error_ = path_ + " exists and is not a link";
    return;
  }
  if (symlink(target_.c_str(), path_.c_str()) != 0) {
    error_ = "cannot create " + path_ + ": " + std::strerror(errno);
    return;
  }
  ok_ = true;
}

PortLink::~PortLink() {
  if (!ok_) return;
  char existing[256];
  ssize_t n = readlink(path_.c_str(), existing, sizeof existing - 1);
  if (n >= 0 && std::string(existing, static_cast<size_t>(n)) == target_) unlink(path_.c_str());
}

bool ReadWholeFile(const std::string& path, std::string* text) {
  std::ifstream f(path, std::ios::binary);
  if (!f) return false;
  std::ostringstream s;
  s << f.rdbuf();
  *text = s.str();
  return true;
}

bool ReadOziWaypoints(const std::string& text, std::vector<SimWaypoint>* waypoints) {
  if (text.rfind("OziExplorer Waypoint File", 0) != 0) return false;
  std::istringstream in(text);
  std::string line;
  for (int i = 0; i < 4; ++i) {
    if (!std::getline(in, line)) return false;
  }
  while (std::getline(in, line)) {
    if (Trim(line).empty()) continue;
    std::vector<std::string> fields = Split(line, ',');
    if (fields.size() < 15) return false;
    SimWaypoint w;
    w.id = Trim(fields[1]);
    w.name = Trim(fields[10]);
    double feet = 0;
    if (!ParseReal(fields[2], &w.latitude) || !ParseReal(fields[3], &w.longitude) || !ParseReal(fields[14], &feet) ||
        !(std::fabs(w.latitude) < 90 && std::fabs(w.longitude) < 180 && std::fabs(feet) < 1e6)) {
      return false;
    }
    w.altitude = feet == -777 ? 0 : static_cast<int32_t>(feet * 0.3048 + (feet < 0 ? -0.5 : 0.5));
    waypoints->push_back(w);
  }
  return true;
}

uint8_t NmeaChecksum(std::string_view sentence) {
  uint8_t x = 0;
  size_t start = !sentence.empty() && sentence[0] == '$' ? 1 : 0;
  for (size_t i = start; i < sentence.size() && sentence[i] != '*'; ++i) x ^= static_cast<uint8_t>(sentence[i]);
  return x;
}

bool CommandBody(const std::string& command, std::string* body) {
  auto hex = [](char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
  };
  size_t star = command.find('*');
  if (command.empty() || command[0] != '$' || star == std::string::npos || star + 3 != command.size()) return false;
  int high = hex(command[star + 1]), low = hex(command[star + 2]);
  if (high < 0 || low < 0 || NmeaChecksum(command) != high * 16 + low) return false;
  *body = command.substr(1, star - 1);
  return true;
}

double ParseAngle(const std::string& text, const std::string& hemisphere, char negative) {
  double value = std::strtod(text.c_str(), nullptr);
  double degrees = std::floor(value / 100.0);
  double result = degrees + (value - degrees * 100.0) / 60.0;
  return hemisphere == std::string(1, negative) ? -result : result;
}

std::string TrimRight(std::string text) {
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

FlightSummary SummarizeFlight(const std::string& igc) {
  FlightSummary summary;
  std::istringstream in(igc);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.rfind("HFDTE", 0) == 0 && summary.year == 0) {
      size_t at = line.compare(5, 5, "DATE:") == 0 ? 10 : 5;
      int day = TwoDigits(line, at), month = TwoDigits(line, at + 2), year = TwoDigits(line, at + 4);
      if (day > 0 && month > 0 && year >= 0) {
        summary.day = day;
        summary.month = month;
        summary.year = year;
      }
    } else if (line.rfind("HFPLT", 0) == 0 && summary.pilot.empty()) {
      size_t colon = line.find(':');
      if (colon != std::string::npos) summary.pilot = Trim(line.substr(colon + 1));
    } else if (line.size() >= 7 && line[0] == 'B') {
      int h = TwoDigits(line, 1), m = TwoDigits(line, 3), s = TwoDigits(line, 5);
      if (h < 0 || m < 0 || s < 0) continue;
      int32_t second = h * 3600 + m * 60 + s;
      if (summary.firstSecond < 0) summary.firstSecond = second;
      summary.lastSecond = second;
    }
  }
  return summary;
}

}  // namespace sim
