// Writes the seeds that have to be built rather than copied: replay scripts
// of emulated Syride instruments, SYS'Nav memory images and SYS'Evolution
// containers, all made from the tests' fixtures.
//   make_seeds <repository> <output folder>
// Each seed goes to <output folder>/<target>/<name>.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "../../tests/usb_emulator.h"
#include "serial_replay.h"
#include "sim/sim.h"
#include "usb_replay.h"

namespace {

using Bytes = std::vector<uint8_t>;
using fuzz::usb::ReplayFault;
using fuzz::usb::ReplayModel;
using fuzz::usb::ScriptWriter;

std::filesystem::path outFolder;

void Write(const std::string& target, const std::string& name, const Bytes& bytes) {
  std::filesystem::path folder = outFolder / target;
  std::filesystem::create_directories(folder);
  std::ofstream file(folder / name, std::ios::binary);
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!file) throw std::runtime_error("cannot write " + (folder / name).string());
}

// The first `count` seconds of the SYS'Nav memory image of the tests' flight.
Bytes NavMemory(const std::filesystem::path& root, size_t count, bool newFormat) {
  Bytes memory =
      usbemu::ReadBytes((root / "tests/data/syride" / (newFormat ? "forth.new.mem" : "forth.old.mem")).string());
  memory.resize(syride::FlightMemorySize(static_cast<uint32_t>(count), newFormat));
  return memory;
}

void PutLe32(Bytes& out, uint32_t value) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

// The container's header chunk: the unpacked size, then filler up to 16 bytes.
usbemu::Chunk SizeChunk(uint32_t size) {
  Bytes data;
  PutLe32(data, size);
  data.resize(16, 0);
  return {1, 0, data};
}

void SyrideSeeds(const std::filesystem::path& root) {
  const uint32_t start = 1696686848;  // 2023-10-07 13:54:08 UTC, the first fix of the flight

  // Memory images for the decoder: setup byte, duration, image.
  for (bool newFormat : {false, true}) {
    Bytes seed = {static_cast<uint8_t>(newFormat ? 1 : 0), 44, 1};  // 300 s
    Bytes memory = NavMemory(root, 300, newFormat);
    seed.insert(seed.end(), memory.begin(), memory.end());
    Write("syride_memory", newFormat ? "nav-new-300s" : "nav-old-300s", seed);
  }

  // One SYS'Nav flight over one sector; the same with a refused answer.
  for (bool fault : {false, true}) {
    ScriptWriter nav(ReplayModel::kNav, false, 1);
    if (fault) nav.Fault(ReplayFault::kBadStatus, 4);
    nav.Version(1, 20);
    nav.Serial(4711);
    nav.FlightCount(1);
    nav.NavEntry(start, 130, 3);
    nav.Byte(255);  // the last sector of the chain
    nav.Bytes(NavMemory(root, 130, false));
    Write("syride_download", fault ? "nav-old-one-refused-answer" : "nav-old-one", nav.script());
  }

  // Each way the USB platform can fail.
  for (uint8_t part = 0; part <= static_cast<uint8_t>(fuzz::usb::PlatformFault::kNoFunction); ++part) {
    ScriptWriter broken(ReplayModel::kNav, false, 1);
    broken.Fault(ReplayFault::kPlatform, part);
    broken.Version(1, 21);
    broken.Serial(4715);
    broken.FlightCount(0);
    Write("syride_download", "platform-fault-" + std::to_string(part), broken.script());
  }

  // Two SYS'Nav flights, all downloaded.
  ScriptWriter bulk(ReplayModel::kNav, true, 0);
  bulk.Version(1, 21);
  bulk.Serial(4712);
  bulk.FlightCount(2);
  bulk.NavEntry(start, 90, 3);
  bulk.NavEntry(start + 90, 100, 7);
  bulk.Byte(255);
  bulk.Bytes(NavMemory(root, 90, true));
  bulk.Byte(255);
  bulk.Bytes(NavMemory(root, 100, true));
  Write("syride_download", "nav-new-all", bulk.script());

  ScriptWriter v3(ReplayModel::kNavV3, false, 1);
  v3.Version(3, 16);
  v3.Serial(4713);
  v3.FlightCount(1);
  v3.NavEntry(start, 150, 1);
  v3.Bytes(NavMemory(root, 150, true));
  Write("syride_download", "v3-new-one", v3.script());

  // SYS'Evolution: an IGC text stored; a flight's first 128 KiB compressed
  // (with a stored tail); a damaged IGC text compressed.
  const Bytes igc = usbemu::ReadBytes((root / "tests/data/igc/pg-skytraxx-13min.igc").string());
  const Bytes stored = usbemu::Container({SizeChunk(static_cast<uint32_t>(igc.size())), {17, 0, igc}});
  const Bytes compressed =
      usbemu::ReadBytes((root / "tests/data/fastlz/sixpack/evolution-head-131092.l2.6pk").string());
  const Bytes block = usbemu::ReadBytes((root / "tests/data/fastlz/raw/igc-syride-navv3.igc.l1.flz").string());
  const Bytes original = usbemu::ReadBytes((root / "tests/data/fastlz/raw/igc-syride-navv3.igc").string());
  Write("syride_container", "igc-stored", stored);
  Write("syride_container", "igc-compressed", compressed);
  Write("syride_container", "damaged-igc-compressed",
        usbemu::Container({SizeChunk(static_cast<uint32_t>(original.size())), {17, 1, block}}));
  // Stored and compressed chunks in one container, after a skipped chunk.
  Bytes head(igc.begin(), igc.begin() + 100);
  Write("syride_container", "mixed-chunks",
        usbemu::Container({{99, 0, {1, 2, 3}},
                           SizeChunk(static_cast<uint32_t>(head.size() + original.size())),
                           {17, 0, head},
                           {17, 1, block}}));

  for (const Bytes* container : {&stored, &compressed}) {
    ScriptWriter evolution(ReplayModel::kEvolution, false, 1);
    evolution.Version(2, 35);
    evolution.Serial(4714);
    Bytes waypointBlock(512, 0);
    for (size_t i = 508; i < 512; ++i) waypointBlock[i] = 0xFE;
    evolution.Bytes(waypointBlock);
    evolution.FlightCount(1);
    evolution.EvolutionEntry(start, 780, 12, static_cast<uint32_t>(container->size()));
    evolution.Bytes(*container);
    Write("syride_download", container == &stored ? "evolution-stored" : "evolution-compressed", evolution.script());
  }
}

std::string ReadText(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (!file && !file.eof()) throw std::runtime_error("cannot read " + path.string());
  return text;
}

// Each serial action's conversation with the simulated instrument of its
// family, holding two short flights and a few waypoints.
void SerialSeeds(const std::filesystem::path& root) {
  const std::string iq = ReadText(root / "tests/data/igc/pg-iqbasic-8s.igc");
  const std::string sky = ReadText(root / "tests/data/igc/pg-skytraxx-13min.igc");
  std::vector<sim::SimWaypoint> waypoints;
  if (!sim::ReadOziWaypoints(ReadText(root / "tests/data/waypoints/golden.wpt"), &waypoints)) {
    throw std::runtime_error("cannot read the seed waypoints");
  }
  const std::vector<replay::Action>& actions = replay::Actions();
  for (size_t a = 0; a < actions.size(); ++a) {
    const std::string name = actions[a].name;
    const std::string family = name.substr(0, name.find('-'));
    const sim::Family* f = sim::FindFamily(family);
    if (f == nullptr) throw std::runtime_error("no simulated family " + family);
    sim::InstrumentSettings settings{.flights = {iq, sky}, .waypoints = waypoints};
    if (family == "flymaster" && name.find("new") == std::string::npos) settings.firmware = "2.01";
    sim::Simulator simulator(f->create(settings), 0);
    if (simulator.Start() != 0) throw std::runtime_error(simulator.error());
    // -f2, the older of the two flights.
    const std::string script = replay::Record(a, 3, simulator.path());
    simulator.Settle();
    simulator.Stop();
    if (script.size() <= 2) throw std::runtime_error("nothing recorded for " + name);
    Write("serial_download", name, Bytes(script.begin(), script.end()));
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: make_seeds <repository> <output folder>\n");
    return 2;
  }
  try {
    outFolder = argv[2];
    SyrideSeeds(argv[1]);
    SerialSeeds(argv[1]);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_seeds: %s\n", error.what());
    return 1;
  }
  return 0;
}
