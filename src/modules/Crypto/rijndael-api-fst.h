// AES (FIPS 197) behind key objects and cipher objects: ECB, CBC and 1-bit
// cipher feedback on whole blocks, a padded pair of operations on bytes, and a
// run of a chosen number of rounds on one block.
//
// It encrypts but does not authenticate, ECB shows which blocks are equal, and
// padDecrypt tells bad padding apart from good: use it where the agent protocol
// asks for it, not in new designs. Time and memory accesses depend neither on
// key nor on data, on any processor; what shows are lengths, where a text ends,
// and the verdicts: bad digits, bad padding, and how long good padding is.
//
// Results are positive on success, 0 when there is no input (null, or a length
// below 1), else one of the negative codes below; the state's checks come
// before those of the data. Output may be the same memory as input; other
// overlaps are not allowed. The callers own the objects and wipe them; what the
// operations themselves keep of keys and plain text in memory is wiped before
// they return.
#ifndef VELPROBE_MODULES_CRYPTO_RIJNDAEL_API_FST_H_
#define VELPROBE_MODULES_CRYPTO_RIJNDAEL_API_FST_H_

#include <cstdint>

#pragma GCC visibility push(default)
namespace velprobe {

inline constexpr std::uint8_t kDirEncrypt = 0;
inline constexpr std::uint8_t kDirDecrypt = 1;

inline constexpr std::uint8_t kModeEcb = 1;
inline constexpr std::uint8_t kModeCbc = 2;
inline constexpr std::uint8_t kModeCfb1 = 3;

inline constexpr int kBadKeyDir = -1;       // a direction above 1
inline constexpr int kBadKeyMaterial = -2;  // key length or hexadecimal digit
inline constexpr int kBadKeyInstance = -3;  // no key object
inline constexpr int kBadCipherMode = -4;   // cipherInit: a mode not 1, 2 or 3
// No cipher or key object, a key without a schedule or of the wrong direction,
// or a mode that the operation does not offer.
inline constexpr int kBadCipherState = -5;
inline constexpr int kBadIv = -7;    // hexadecimal digit
inline constexpr int kBadData = -8;  // padded length or padding

inline constexpr int kMaxKeyMaterial = 64;
inline constexpr int kMaxRounds = 14;

struct keyInstance {
  std::uint8_t direction = kDirEncrypt;
  std::int32_t keyLen = 0;  // bits: 128, 192 or 256
  char keyMaterial[kMaxKeyMaterial + 1] = {};
  std::int32_t Nr = 0;  // rounds; 0 while there is no schedule
  // Round keys for the direction, and always for encryption (CFB1). A word has
  // the first byte of its column on top. Decryption is in the order and form of
  // the equivalent inverse cipher (FIPS 197, section 5.3.5).
  std::uint32_t rk[4 * (kMaxRounds + 1)] = {};
  std::uint32_t ek[4 * (kMaxRounds + 1)] = {};
};

struct cipherInstance {
  std::uint8_t mode = 0;
  std::uint8_t IV[16] = {};  // where the chain stands
};

// keyInit makes key ready for a direction. key_bits is 128, 192 or 256, and
// key_material at least key_bits / 4 hexadecimal digits in either case, which
// are kept. Returns 1, or kBadKeyInstance, kBadKeyDir or kBadKeyMaterial, found
// in this order; a key with a bad digit is left without a schedule.
[[nodiscard]] int keyInit(keyInstance* key, std::uint8_t direction,
                          int key_bits, const char* key_material);

// cipherInit sets the mode, and the vector from 32 hexadecimal digits or, when
// iv is null, to zero. Returns 1, kBadCipherState without a cipher object,
// kBadCipherMode with nothing changed, or kBadIv, with the bytes before the bad
// digit already in place.
[[nodiscard]] int cipherInit(cipherInstance* cipher, std::uint8_t mode,
                             const char* iv);

// blockEncrypt encrypts the whole blocks of input_bits bits and returns their
// number of bits. In CBC and CFB1 the cipher's vector carries the chain on to
// the next call. Else 0 or kBadCipherState, which is also the result for a key
// of decrypt direction, in every mode.
[[nodiscard]] int blockEncrypt(cipherInstance* cipher, const keyInstance* key,
                               const std::uint8_t* input, int input_bits,
                               std::uint8_t* output);

// blockDecrypt is the inverse of blockEncrypt, with a key of decrypt direction;
// CFB1 takes a key of either.
[[nodiscard]] int blockDecrypt(cipherInstance* cipher, const keyInstance* key,
                               const std::uint8_t* input, int input_bits,
                               std::uint8_t* output);

// padEncrypt encrypts input_bytes bytes and 1 to 16 further ones, each of the
// value of their number, up to the next whole block, and returns the number of
// output bytes: 16 * (input_bytes / 16 + 1), for which output has space. The
// cipher's vector stays as it was. Else 0; kBadCipherState, also in CFB1;
// kBadData when the result would not fit an int.
[[nodiscard]] int padEncrypt(const cipherInstance* cipher,
                             const keyInstance* key, const std::uint8_t* input,
                             int input_bytes, std::uint8_t* output);

// padDecrypt decrypts input_bytes bytes and returns how many remain without the
// padding; no more are written. CBC accepts 1 to 16 bytes of padding; ECB 0 to
// 15, so that it refuses the full block which padEncrypt adds to whole blocks.
// In CBC the cipher's vector becomes the last cipher block but one, if there is
// one. Else 0; kBadCipherState, also in CFB1; kBadData for a length that is not
// a multiple of 16 or bad padding, after which every plain block but the last
// is in output.
[[nodiscard]] int padDecrypt(cipherInstance* cipher, const keyInstance* key,
                             const std::uint8_t* input, int input_bytes,
                             std::uint8_t* output);

// cipherUpdateRounds runs the given number of rounds on one 16-byte block in
// the key's direction and returns 1; the mode and the length do not matter.
// With all the key's rounds it is the whole cipher. With fewer the directions
// do not mirror each other: encryption is that many full rounds, decryption one
// full round less and then a final round without its round key. More than all
// leave out the last step of each: encryption its final round, decryption the
// final round key. Else 0, kBadCipherState, or kBadKeyDir for a key of neither
// direction.
[[nodiscard]] int cipherUpdateRounds(const cipherInstance* cipher,
                                     const keyInstance* key,
                                     const std::uint8_t* input, int input_bytes,
                                     std::uint8_t* output, int rounds);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_MODULES_CRYPTO_RIJNDAEL_API_FST_H_
