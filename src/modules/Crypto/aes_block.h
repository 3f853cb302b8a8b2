// The AES block transform (FIPS 197) and its modes, on whole blocks, behind one
// table that each path fills: a portable one, and one on the processor's own
// AES instructions. Time and memory accesses of neither depend on key or data.
// Internal to this folder and its tests: it checks nothing.
#ifndef VELPROBE_MODULES_CRYPTO_AES_BLOCK_H_
#define VELPROBE_MODULES_CRYPTO_AES_BLOCK_H_

#include <cstddef>
#include <cstdint>

namespace velprobe {

inline constexpr std::size_t kAesBlockSize = 16;
inline constexpr int kAesMaxRounds = 14;
inline constexpr std::size_t kAesScheduleWords = 4 * (kAesMaxRounds + 1);

// AesSchedule borrows 4 * (rounds + 1) round-key words in the order of use,
// each with the first byte of its column on top. For decryption they belong to
// the equivalent inverse cipher (FIPS 197, section 5.3.5).
struct AesSchedule {
  const std::uint32_t* words;
  int rounds;  // 10, 12 or 14
};

// AesEnding says how a run of rounds ends: without the final round, with its
// substitution and row shift alone, or with its round key as well.
enum class AesEnding { kNone, kKeyless, kKeyed };

// An AesModeFunction takes blocks whole blocks from input to output, which are
// the same memory or do not overlap. A chaining mode starts from the 16 bytes
// at vector and leaves there what a further call needs to go on.
using AesModeFunction = void (*)(const AesSchedule& schedule,
                                 std::uint8_t* vector,
                                 const std::uint8_t* input,
                                 std::uint8_t* output, std::size_t blocks);

// An AesRoundsFunction adds the first round key to one block in place, runs
// full_rounds rounds with their column mixing (none when negative), and ends
// with the round key that comes next.
using AesRoundsFunction = void (*)(const AesSchedule& schedule,
                                   std::uint8_t* block, int full_rounds,
                                   AesEnding ending);

// AesPath is one implementation. Pairs are indexed by direction: 0 encrypts, 1
// decrypts. CFB1 takes the encryption schedule in both.
struct AesPath {
  const char* name;
  AesModeFunction modes[3][2];  // ECB, CBC, CFB1
  AesRoundsFunction rounds[2];
  // SubWord of FIPS 197, section 5.2.
  std::uint32_t (*substitute_word)(std::uint32_t word);
  // InvMixColumns on the four words of one round key.
  void (*inverse_mix_columns)(std::uint32_t* round_key);
};

// portable_aes_path runs anywhere.
const AesPath& portable_aes_path();

// accelerated_aes_path is null where the processor has no AES instructions that
// a path is written for.
const AesPath* accelerated_aes_path();

// aes_path is the path in use: the accelerated one where there is one. Chosen
// once.
const AesPath& aes_path();

// force_aes_path makes aes_path return the given path; null goes back to the
// choice by processor. For tests and benchmarks.
void force_aes_path(const AesPath* path);

// expand_aes_key computes the encryption schedule for key_bits / 8 key bytes
// and returns the number of rounds. Words beyond the schedule become 0.
int expand_aes_key(const std::uint8_t* key, int key_bits,
                   std::uint32_t (&schedule)[kAesScheduleWords]);

// invert_aes_schedule computes the decryption schedule from the encryption
// schedule.
void invert_aes_schedule(const std::uint32_t (&encryption)[kAesScheduleWords],
                         int rounds,
                         std::uint32_t (&decryption)[kAesScheduleWords]);

}  // namespace velprobe

#endif  // VELPROBE_MODULES_CRYPTO_AES_BLOCK_H_
