// SPDX-License-Identifier: MIT
// Feeds the measurement with frames that are hostile from the first byte on, or only from a deeper
// layer on, and lets every view show the result.
#include <cstddef>
#include <cstdint>

#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/hostile_frames.h"

using namespace ipplay::measure;
using namespace ipplay::measure::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input({data, size});
  const std::uint32_t choice = input.Number(1);
  Measurement measurement(SettingsBy(choice));
  std::int64_t time_ns = std::int64_t{input.Number(4)} << 30;
  while (!input.IsEmpty()) {
    // From 1 ns to minutes, and now and then back in time.
    const std::uint32_t step = input.Number(2);
    time_ns += std::int64_t{step & 0x3FF} << (step >> 11);
    if ((step & 0x7FF) == 0x7FF) {
      time_ns -= 1'000'000;
    }
    const Frame frame = NextFrame(input);
    measurement.Add(frame.link, {time_ns, {frame.bytes, frame.wire_length}});
  }
  measurement.Finish();
  CheckSums(measurement);
  // The views cost a hundred times as much as the rest. A choice would draw the fuzzer to them.
  if (size % 64 == 0) {
    ShowAll(measurement);
  }
  return 0;
}
