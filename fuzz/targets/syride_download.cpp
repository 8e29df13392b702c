// A whole Syride download, one track or all, against an emulated instrument
// whose answers replay the input (layout in usb_replay.h): identification,
// flight list, memory readers, the decoders and the IGC reader behind them.

#include <cstdint>

#include "core/run.h"
#include "fuzz_support.h"
#include "targets.h"
#include "usb_replay.h"

int fuzz::target::SyrideDownload(const uint8_t* data, size_t size) {
  const fuzz::usb::ReplayResult result = fuzz::usb::RunSyrideReplay(data, size);
  FUZZ_CHECK(result.status == 0 || result.status == -1);
  FUZZ_CHECK(tGps.nTrackPoints >= 0 && tGps.nTrackPoints <= tGps.nTrackCapacity);
  if (result.bulk && result.status == 0) {
    // Each flight is let go once it has been handed on.
    FUZZ_CHECK(tGps.pTrackPoints == nullptr && tGps.pbRawLog == nullptr);
  } else if (!result.bulk && result.status == 0 && result.model == fuzz::usb::ReplayModel::kEvolution) {
    FUZZ_CHECK(tGps.nTrackPoints > 0 && tGps.nRawLogLength > 0);
  }
  return 0;
}
