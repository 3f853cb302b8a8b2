#include "aes_block.h"

#include <algorithm>
#include <bit>

#include "../../util/byte_order.h"

namespace velprobe {
namespace {

const AesPath* forced_path = nullptr;

const AesPath& path_by_processor() {
  const AesPath* accelerated = accelerated_aes_path();
  return accelerated != nullptr ? *accelerated : portable_aes_path();
}

// next_round_constant doubles in the field of FIPS 197, section 4.2.
std::uint32_t next_round_constant(std::uint32_t constant) {
  return constant << 1 ^ (constant >> 31) * 0x1b000000u;
}

}  // namespace

const AesPath& aes_path() {
  static const AesPath& chosen = path_by_processor();
  return forced_path != nullptr ? *forced_path : chosen;
}

void force_aes_path(const AesPath* path) {
  forced_path = path;
}

// FIPS 197, figure 11.
int expand_aes_key(const std::uint8_t* key, int key_bits,
                   std::uint32_t (&schedule)[kAesScheduleWords]) {
  const auto substitute = aes_path().substitute_word;
  const int key_words = key_bits / 32;
  const int rounds = key_words + 6;
  std::uint32_t constant = 0x01000000;

  std::ranges::fill(schedule, 0u);
  for (int i = 0; i < key_words; ++i) {
    schedule[i] = load_big_endian(key + 4 * i);
  }
  for (int i = key_words; i < 4 * (rounds + 1); ++i) {
    std::uint32_t word = schedule[i - 1];
    if (i % key_words == 0) {
      word = substitute(std::rotl(word, 8)) ^ constant;
      constant = next_round_constant(constant);
    } else if (key_words > 6 && i % key_words == 4) {
      word = substitute(word);
    }
    schedule[i] = schedule[i - key_words] ^ word;
  }
  return rounds;
}

void invert_aes_schedule(const std::uint32_t (&encryption)[kAesScheduleWords],
                         int rounds,
                         std::uint32_t (&decryption)[kAesScheduleWords]) {
  std::ranges::fill(decryption, 0u);
  for (int round = 0; round <= rounds; ++round) {
    std::uint32_t* round_key = decryption + 4 * round;
    std::copy_n(encryption + 4 * (rounds - round), 4, round_key);
    if (round > 0 && round < rounds) {
      aes_path().inverse_mix_columns(round_key);
    }
  }
}

}  // namespace velprobe
