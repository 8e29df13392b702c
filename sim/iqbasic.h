// The IQ Basic as the instrument sees it: three product values as
// little-endian hexadecimal, a text flight list counted from 0, flights as
// IGC text.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "sim/sim.h"

namespace sim::iqbasic {

constexpr int32_t kBaud = 57600;

// Family faults, by name: the answer's value gets one hexadecimal digit too many.
constexpr char kOddSerial[] = "odd-serial";
constexpr char kOddType[] = "odd-type";
constexpr char kOddVersion[] = "odd-version";
extern const char kFaultHelp[];

class IqBasicInstrument : public Instrument {
 public:
  explicit IqBasicInstrument(InstrumentSettings settings);
  void Receive(uint8_t byte, Line& line) override;

  // Read these after Simulator::Stop(): each command without its CR LF.
  const std::vector<std::string>& commands() const { return commands_; }
  // The list line of flight `index` as the instrument sends it (without CR LF).
  std::string ListLine(size_t index) const;

 private:
  void Answer(const std::string& command, Line& line);
  std::string ValueAnswer(int number, uint32_t value, const char* fault) const;
  bool HasFault(const char* name) const;

  InstrumentSettings settings_;
  std::string pending_;
  std::vector<std::string> commands_;
};

// "1.3.07" as the instrument counts it: 1307.
uint32_t VersionNumber(const std::string& text);

std::unique_ptr<Instrument> Create(const InstrumentSettings& settings);

}  // namespace sim::iqbasic
