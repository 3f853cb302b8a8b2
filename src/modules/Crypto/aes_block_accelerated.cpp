// The AES path on the processor's own instructions, where it has any.
#include "aes_block.h"

#if defined(__x86_64__)
#include "aes_lanes_x86.h"
#define VELPROBE_HAS_AES_LANES
#elif defined(__aarch64__) && defined(__AARCH64EL__)
#include "aes_lanes_arm.h"
#define VELPROBE_HAS_AES_LANES
#endif

#ifdef VELPROBE_HAS_AES_LANES

#include <array>

namespace velprobe {
namespace {

using RoundKey = Block;

VELPROBE_AES_TARGET inline RoundKey round_key_of(const std::uint32_t* words) {
  return swap_words(load(words));
}

template <int kLanes>
struct Lanes {
  VELPROBE_AES_TARGET explicit Lanes(const std::array<Block, kLanes>& blocks)
      : lanes(blocks) {}

  VELPROBE_AES_TARGET const std::array<Block, kLanes>& blocks() const {
    return lanes;
  }

  VELPROBE_AES_TARGET void add(Block key) {
    for (Block& lane : lanes) lane = lane ^ key;
  }

  template <bool kDecrypt>
  VELPROBE_AES_TARGET void full_round(Block key) {
    for (Block& lane : lanes) lane = velprobe::full_round<kDecrypt>(lane, key);
  }

  template <bool kDecrypt>
  VELPROBE_AES_TARGET void final_round(Block key) {
    for (Block& lane : lanes) lane = velprobe::final_round<kDecrypt>(lane, key);
  }

  std::array<Block, kLanes> lanes;
};

}  // namespace
}  // namespace velprobe

#include "aes_modes.h"

namespace velprobe {
namespace {

constexpr AesPath kAccelerated =
    make_path(kAcceleratedName, substitute_word, inverse_mix_columns);

}  // namespace

const AesPath* accelerated_aes_path() {
  return is_supported() ? &kAccelerated : nullptr;
}

}  // namespace velprobe

#else

namespace velprobe {

const AesPath* accelerated_aes_path() {
  return nullptr;
}

}  // namespace velprobe

#endif
