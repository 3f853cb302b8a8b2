// What a fuzz target is made of besides fuzz_one and make_seeds, which it
// defines: inputs cut into values, oracles, seeds and libFuzzer's entry points.
#ifndef VELPROBE_FUZZ_FUZZ_H_
#define VELPROBE_FUZZ_FUZZ_H_

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

#include "protocol/memory_stream.h"

namespace velprobe {

// Input hands out the bytes of one input; what is missing is zero or empty.
struct Input {
  std::string_view bytes;

  std::uint8_t byte() {
    return bytes.empty() ? 0 : static_cast<std::uint8_t>(take(1)[0]);
  }
  std::string_view take(std::size_t size) {
    const std::string_view taken = bytes.substr(0, size);
    bytes.remove_prefix(taken.size());
    return taken;
  }
};

void fuzz_one(Input input);
void make_seeds();

// REQUIRE ends the run when what must hold does not; the trace names the line.
#define REQUIRE(condition) ((condition) ? void() : std::abort())

inline BerStreamPtr stream_of(std::string_view bytes) {
  BerStreamPtr stream;
  REQUIRE(!memory_stream_open(stream, bytes));
  return stream;
}

inline const std::uint8_t* data_of(std::string_view text) {
  return reinterpret_cast<const std::uint8_t*>(text.data());
}

inline std::string seed_path;

// add_seed puts an input into the folder of the run.
inline void add_seed(std::string_view bytes) {
  static int num_seeds;
  std::ofstream(seed_path + std::to_string(num_seeds++)) << bytes;
}

}  // namespace velprobe

// libFuzzer calls this before it reads the folder that comes last. No seeds
// where that is a single input.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  velprobe::seed_path = std::string((*argv)[*argc - 1]) + "/seed-";
  velprobe::make_seeds();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  velprobe::fuzz_one({{reinterpret_cast<const char*>(data), size}});
  return 0;
}

#endif  // VELPROBE_FUZZ_FUZZ_H_
