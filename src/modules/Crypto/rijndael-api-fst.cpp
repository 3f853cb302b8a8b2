#include "rijndael-api-fst.h"

#include <algorithm>
#include <cstddef>

#include "aes_block.h"
#include "constant_time.h"
#include "crypto_assert.h"
#include "wipe.h"

namespace velprobe {
namespace {

constexpr char kSource[] = "modules/Crypto/c/rijndael-api-fst";
constexpr int kBlockBytes = static_cast<int>(kAesBlockSize);
constexpr int kBlockBits = 8 * kBlockBytes;

static_assert(kMaxRounds == kAesMaxRounds);

// HexDigit is a digit's value; the mask is zero for any other character.
struct HexDigit {
  explicit HexDigit(unsigned character) {
    const unsigned letter = (character | 0x20) - 'a';
    const std::uint64_t is_number = mask_of(character - '0' < 10);
    const std::uint64_t is_letter = mask_of(letter < 6);
    is_good = is_number | is_letter;
    value = chosen(is_number, character - '0', letter + 10);
  }

  std::uint64_t is_good;
  unsigned value;
};

// text_length is strnlen for a secret text: only its end shows.
std::size_t text_length(const char* text, std::size_t most) {
  std::size_t length = 0;
  while (length < most && revealed(text[length] != '\0')) ++length;
  return length;
}

// parse_hex fills bytes up to the first pair that is not two digits, and tells
// whether there was none such. The text may end early, where its NUL stands for
// the digits that are missing.
bool parse_hex(const char* text, std::uint8_t* bytes, std::size_t num_bytes) {
  const std::size_t length = text_length(text, 2 * num_bytes);
  const auto digit_at = [&](std::size_t at) {
    return HexDigit(at < length ? static_cast<unsigned char>(text[at]) : 0);
  };
  std::uint64_t is_good = ~std::uint64_t{0};
  for (std::size_t i = 0; i < num_bytes; ++i) {
    const HexDigit high = digit_at(2 * i);
    const HexDigit low = digit_at(2 * i + 1);
    is_good &= high.is_good & low.is_good;
    const auto byte = static_cast<std::uint8_t>(high.value << 4 | low.value);
    bytes[i] = chosen(is_good, byte, bytes[i]);
  }
  return revealed(is_good != 0);
}

bool is_key_length(int bits) {
  return bits == 128 || bits == 192 || bits == 256;
}

bool has_schedule(const keyInstance& key) {
  return is_key_length(key.keyLen) && key.Nr == key.keyLen / 32 + 6;
}

// is_usable tells whether an operation can start. The modes on offer are ECB up
// to last_mode.
bool is_usable(const cipherInstance* cipher, const keyInstance* key,
               std::uint8_t direction, std::uint8_t last_mode) {
  if (cipher == nullptr || key == nullptr || !has_schedule(*key)) return false;
  if (cipher->mode < kModeEcb || cipher->mode > last_mode) return false;
  const bool takes_either = cipher->mode == kModeCfb1;
  return key->direction == direction ||
         (takes_either && key->direction == kDirEncrypt);
}

// crypt runs the cipher's mode over whole blocks.
void crypt(const cipherInstance& cipher, const keyInstance& key,
           std::uint8_t direction, std::uint8_t* vector,
           const std::uint8_t* input, int blocks, std::uint8_t* output) {
  const AesSchedule schedule{cipher.mode == kModeCfb1 ? key.ek : key.rk,
                             key.Nr};
  aes_path().modes[cipher.mode - kModeEcb][direction](
      schedule, vector, input, output, static_cast<std::size_t>(blocks));
}

int crypt_bits(cipherInstance* cipher, const keyInstance* key,
               std::uint8_t direction, const std::uint8_t* input,
               int input_bits, std::uint8_t* output) {
  if (!is_usable(cipher, key, direction, kModeCfb1)) return kBadCipherState;
  if (input == nullptr || input_bits < 1) return 0;
  const int blocks = input_bits / kBlockBits;
  crypt(*cipher, *key, direction, cipher->IV, input, blocks, output);
  return blocks * kBlockBits;
}

// is_padding_good looks at every byte whatever it finds, so that its timing
// does not tell where the padding went wrong. The verdict itself shows.
bool is_padding_good(const std::uint8_t (&block)[kAesBlockSize],
                     std::uint8_t mode) {
  const unsigned pad_len = block[kBlockBytes - 1];
  const unsigned shortest = mode == kModeCbc ? 1 : 0;
  // Below the shortest, the difference wraps.
  std::uint64_t wrong = mask_of(pad_len - shortest >= kAesBlockSize);
  for (unsigned i = 0; i < kAesBlockSize; ++i) {
    const std::uint64_t is_padding = mask_of(i + pad_len >= kAesBlockSize);
    wrong |= is_padding & (block[i] ^ pad_len);
  }
  return revealed(wrong == 0);
}

}  // namespace

int keyInit(keyInstance* key, std::uint8_t direction, int key_bits,
            const char* key_material) {
  const ClearsTraces clears_traces;
  if (key == nullptr) return kBadKeyInstance;
  if (direction > kDirDecrypt) return kBadKeyDir;
  if (!is_key_length(key_bits) || key_material == nullptr) {
    return kBadKeyMaterial;
  }

  key->direction = direction;
  key->keyLen = key_bits;
  key->Nr = 0;
  const std::size_t digits =
      text_length(key_material, static_cast<std::size_t>(key_bits / 4));
  std::ranges::fill(key->keyMaterial, '\0');
  std::copy_n(key_material, digits, key->keyMaterial);

  Wiped<std::uint8_t[kMaxKeyMaterial / 2]> bytes;
  if (!parse_hex(key->keyMaterial, bytes.value,
                 static_cast<std::size_t>(key_bits / 8))) {
    return kBadKeyMaterial;
  }
  key->Nr = expand_aes_key(bytes.value, key_bits, key->ek);
  if (direction == kDirEncrypt) {
    std::ranges::copy(key->ek, key->rk);
  } else {
    invert_aes_schedule(key->ek, key->Nr, key->rk);
  }
  return 1;
}

int cipherInit(cipherInstance* cipher, std::uint8_t mode, const char* iv) {
  const ClearsTraces clears_traces;
  if (cipher == nullptr) return kBadCipherState;
  if (mode < kModeEcb || mode > kModeCfb1) return kBadCipherMode;
  cipher->mode = mode;
  if (iv == nullptr) {
    std::ranges::fill(cipher->IV, std::uint8_t{0});
    return 1;
  }
  return parse_hex(iv, cipher->IV, kAesBlockSize) ? 1 : kBadIv;
}

int blockEncrypt(cipherInstance* cipher, const keyInstance* key,
                 const std::uint8_t* input, int input_bits,
                 std::uint8_t* output) {
  const ClearsTraces clears_traces;
  return crypt_bits(cipher, key, kDirEncrypt, input, input_bits, output);
}

int blockDecrypt(cipherInstance* cipher, const keyInstance* key,
                 const std::uint8_t* input, int input_bits,
                 std::uint8_t* output) {
  const ClearsTraces clears_traces;
  return crypt_bits(cipher, key, kDirDecrypt, input, input_bits, output);
}

int padEncrypt(const cipherInstance* cipher, const keyInstance* key,
               const std::uint8_t* input, int input_bytes,
               std::uint8_t* output) {
  const ClearsTraces clears_traces;
  if (!is_usable(cipher, key, kDirEncrypt, kModeCbc)) return kBadCipherState;
  if (input == nullptr || input_bytes < 1) return 0;
  const int blocks = input_bytes / kBlockBytes;
  const int whole = blocks * kBlockBytes;
  if (whole > INT32_MAX - kBlockBytes) return kBadData;

  Wiped<std::uint8_t[kAesBlockSize]> vector;
  std::ranges::copy(cipher->IV, vector.value);
  crypt(*cipher, *key, kDirEncrypt, vector.value, input, blocks, output);

  const int tail = input_bytes - whole;
  const int padLen = kBlockBytes - tail;
  VELPROBE_ASSERT(kSource, padLen > 0 && padLen <= 16);
  Wiped<std::uint8_t[kAesBlockSize]> last;
  std::ranges::fill(last.value, static_cast<std::uint8_t>(padLen));
  std::copy_n(input + whole, tail, last.value);
  crypt(*cipher, *key, kDirEncrypt, vector.value, last.value, 1,
        output + whole);
  return whole + kBlockBytes;
}

int padDecrypt(cipherInstance* cipher, const keyInstance* key,
               const std::uint8_t* input, int input_bytes,
               std::uint8_t* output) {
  const ClearsTraces clears_traces;
  if (!is_usable(cipher, key, kDirDecrypt, kModeCbc)) return kBadCipherState;
  if (input == nullptr || input_bytes < 1) return 0;
  if (input_bytes % kBlockBytes != 0) return kBadData;
  const int before = input_bytes - kBlockBytes;
  crypt(*cipher, *key, kDirDecrypt, cipher->IV, input, before / kBlockBytes,
        output);

  // The last cipher block never reaches the cipher's vector.
  Wiped<std::uint8_t[kAesBlockSize]> vector;
  std::ranges::copy(cipher->IV, vector.value);
  Wiped<std::uint8_t[kAesBlockSize]> last;
  crypt(*cipher, *key, kDirDecrypt, vector.value, input + before, 1,
        last.value);
  if (!is_padding_good(last.value, cipher->mode)) return kBadData;
  const int tail = kBlockBytes - revealed(last.value[kBlockBytes - 1]);
  std::copy_n(last.value, tail, output + before);
  return before + tail;
}

int cipherUpdateRounds(const cipherInstance* cipher, const keyInstance* key,
                       const std::uint8_t* input, int, std::uint8_t* output,
                       int rounds) {
  const ClearsTraces clears_traces;
  if (cipher == nullptr || key == nullptr) return kBadCipherState;
  if (key->direction > kDirDecrypt) return kBadKeyDir;
  if (!has_schedule(*key)) return kBadCipherState;
  if (input == nullptr) return 0;

  const bool encrypt = key->direction == kDirEncrypt;
  const int full_rounds = encrypt ? std::min(rounds, key->Nr - 1)
                                  : std::clamp(rounds, 0, key->Nr) - 1;
  const AesEnding early = encrypt ? AesEnding::kNone : AesEnding::kKeyless;
  const AesEnding ending = rounds == key->Nr ? AesEnding::kKeyed : early;
  Wiped<std::uint8_t[kAesBlockSize]> block;
  std::copy_n(input, kAesBlockSize, block.value);
  aes_path().rounds[key->direction](AesSchedule{key->rk, key->Nr}, block.value,
                                    full_rounds, ending);
  std::ranges::copy(block.value, output);
  return 1;
}

}  // namespace velprobe
