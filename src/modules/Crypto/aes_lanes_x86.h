// One step of AES on the instructions of x86-64 processors. Only for
// aes_block_accelerated.cpp.
#ifndef VELPROBE_MODULES_CRYPTO_AES_LANES_X86_H_
#define VELPROBE_MODULES_CRYPTO_AES_LANES_X86_H_

#include <immintrin.h>

#define VELPROBE_AES_TARGET [[gnu::target("aes,ssse3")]]

namespace velprobe {
namespace {

inline constexpr const char* kAcceleratedName = "aesni";

// The plain __m128i as a template argument loses its attributes.
struct Block {
  __m128i bytes;

  VELPROBE_AES_TARGET friend Block operator^(Block a, Block b) {
    return {_mm_xor_si128(a.bytes, b.bytes)};
  }
};

inline bool is_supported() {
  return __builtin_cpu_supports("aes") && __builtin_cpu_supports("ssse3");
}

VELPROBE_AES_TARGET inline Block load(const void* bytes) {
  return {_mm_loadu_si128(static_cast<const __m128i*>(bytes))};
}

VELPROBE_AES_TARGET inline void store(Block block, void* bytes) {
  _mm_storeu_si128(static_cast<__m128i*>(bytes), block.bytes);
}

VELPROBE_AES_TARGET inline Block block_of(std::uint64_t high,
                                          std::uint64_t low) {
  return {_mm_set_epi64x(static_cast<long long>(__builtin_bswap64(low)),
                         static_cast<long long>(__builtin_bswap64(high)))};
}

VELPROBE_AES_TARGET inline unsigned top_bit(Block block) {
  return static_cast<unsigned>(_mm_cvtsi128_si32(block.bytes)) >> 7 & 1;
}

VELPROBE_AES_TARGET inline Block append_bit(Block block, Block stream) {
  const __m128i bit =
      _mm_and_si128(_mm_srli_epi64(stream.bytes, 7), _mm_cvtsi32_si128(1));
  return {_mm_xor_si128(block.bytes, _mm_slli_si128(bit, 15))};
}

// swap_words turns four words with the first byte on top into the byte order of
// the block, and back.
VELPROBE_AES_TARGET inline Block swap_words(Block words) {
  return {_mm_shuffle_epi8(
      words.bytes,
      _mm_set_epi8(12, 13, 14, 15, 8, 9, 10, 11, 4, 5, 6, 7, 0, 1, 2, 3))};
}

template <bool kDecrypt>
VELPROBE_AES_TARGET inline Block full_round(Block block, Block key) {
  if constexpr (kDecrypt) return {_mm_aesdec_si128(block.bytes, key.bytes)};
  return {_mm_aesenc_si128(block.bytes, key.bytes)};
}

template <bool kDecrypt>
VELPROBE_AES_TARGET inline Block final_round(Block block, Block key) {
  if constexpr (kDecrypt) return {_mm_aesdeclast_si128(block.bytes, key.bytes)};
  return {_mm_aesenclast_si128(block.bytes, key.bytes)};
}

VELPROBE_AES_TARGET inline std::uint32_t substitute_word(std::uint32_t word) {
  const __m128i words = _mm_set1_epi32(static_cast<int>(word));
  return static_cast<std::uint32_t>(
      _mm_cvtsi128_si32(_mm_aeskeygenassist_si128(words, 0)));
}

VELPROBE_AES_TARGET inline void inverse_mix_columns(std::uint32_t* round_key) {
  const Block key = swap_words(load(round_key));
  store(swap_words({_mm_aesimc_si128(key.bytes)}), round_key);
}

}  // namespace
}  // namespace velprobe

#endif  // VELPROBE_MODULES_CRYPTO_AES_LANES_X86_H_
