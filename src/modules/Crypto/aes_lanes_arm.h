// One step of AES on the instructions of ARMv8 processors. Only for
// aes_block_accelerated.cpp.
#ifndef VELPROBE_MODULES_CRYPTO_AES_LANES_ARM_H_
#define VELPROBE_MODULES_CRYPTO_AES_LANES_ARM_H_

#include <arm_neon.h>
#include <sys/auxv.h>

#define VELPROBE_AES_TARGET [[gnu::target("+crypto")]]

namespace velprobe {
namespace {

inline constexpr const char* kAcceleratedName = "armv8";

struct Block {
  uint8x16_t bytes;

  VELPROBE_AES_TARGET friend Block operator^(Block a, Block b) {
    return {veorq_u8(a.bytes, b.bytes)};
  }
};

inline bool is_supported() {
  constexpr unsigned long kHasAes = 1UL << 3;  // HWCAP_AES
  return (getauxval(AT_HWCAP) & kHasAes) != 0;
}

VELPROBE_AES_TARGET inline Block load(const void* bytes) {
  return {vld1q_u8(static_cast<const std::uint8_t*>(bytes))};
}

VELPROBE_AES_TARGET inline void store(Block block, void* bytes) {
  vst1q_u8(static_cast<std::uint8_t*>(bytes), block.bytes);
}

VELPROBE_AES_TARGET inline Block block_of(std::uint64_t high,
                                          std::uint64_t low) {
  const uint64x2_t halves = vcombine_u64(vcreate_u64(high), vcreate_u64(low));
  return {vrev64q_u8(vreinterpretq_u8_u64(halves))};
}

VELPROBE_AES_TARGET inline unsigned top_bit(Block block) {
  return static_cast<unsigned>(vgetq_lane_u8(block.bytes, 0)) >> 7;
}

VELPROBE_AES_TARGET inline Block append_bit(Block block, Block stream) {
  const uint8x16_t bits = vshrq_n_u8(stream.bytes, 7);
  return {veorq_u8(block.bytes, vextq_u8(vdupq_n_u8(0), bits, 1))};
}

// swap_words turns four words with the first byte on top into the byte order of
// the block, and back.
VELPROBE_AES_TARGET inline Block swap_words(Block words) {
  return {vrev32q_u8(words.bytes)};
}

// The instructions add a key before the substitution. Adding zero there and the
// key of the round at its end keeps to the rounds of FIPS 197.
template <bool kDecrypt>
VELPROBE_AES_TARGET inline uint8x16_t substitute_and_shift(Block block) {
  if constexpr (kDecrypt) return vaesdq_u8(block.bytes, vdupq_n_u8(0));
  return vaeseq_u8(block.bytes, vdupq_n_u8(0));
}

template <bool kDecrypt>
VELPROBE_AES_TARGET inline Block full_round(Block block, Block key) {
  const uint8x16_t shifted = substitute_and_shift<kDecrypt>(block);
  return Block{kDecrypt ? vaesimcq_u8(shifted) : vaesmcq_u8(shifted)} ^ key;
}

template <bool kDecrypt>
VELPROBE_AES_TARGET inline Block final_round(Block block, Block key) {
  return Block{substitute_and_shift<kDecrypt>(block)} ^ key;
}

// With the same four bytes in every column, shifting rows changes nothing.
VELPROBE_AES_TARGET inline std::uint32_t substitute_word(std::uint32_t word) {
  const Block words{vreinterpretq_u8_u32(vdupq_n_u32(word))};
  return vgetq_lane_u32(
      vreinterpretq_u32_u8(substitute_and_shift<false>(words)), 0);
}

VELPROBE_AES_TARGET inline void inverse_mix_columns(std::uint32_t* round_key) {
  const Block key = swap_words(load(round_key));
  store(swap_words({vaesimcq_u8(key.bytes)}), round_key);
}

}  // namespace
}  // namespace velprobe

#endif  // VELPROBE_MODULES_CRYPTO_AES_LANES_ARM_H_
