// AES: what padEncrypt makes, padDecrypt undoes; any bytes go through
// padDecrypt without harm.
#include "fuzz.h"
#include "modules/Crypto/rijndael-api-fst.h"

namespace velprobe {

void fuzz_one(Input input) {
  const std::uint8_t choice = input.byte();
  const std::uint8_t mode = choice & 1 ? kModeCbc : kModeEcb;
  const int bits = 128 + 64 * (choice / 2 % 3);
  std::string hex(kMaxKeyMaterial, '0');
  for (char& digit : hex) digit = "0123456789abcdef"[input.byte() & 15];
  keyInstance encrypt_key, decrypt_key;
  cipherInstance cipher, start;
  REQUIRE(keyInit(&encrypt_key, kDirEncrypt, bits, hex.c_str()) == 1);
  REQUIRE(keyInit(&decrypt_key, kDirDecrypt, bits, hex.c_str()) == 1);
  REQUIRE(cipherInit(&start, mode, hex.c_str()) == 1);

  const std::string text(input.bytes);
  const int size = static_cast<int>(text.size());
  std::string secret(text.size() + 16, '\0'), plain(secret);
  const auto unpad = [&](const std::string& bytes, int length) {
    cipher = start;
    return padDecrypt(&cipher, &decrypt_key, bytes_of(bytes), length,
                      reinterpret_cast<std::uint8_t*>(plain.data()));
  };
  REQUIRE(unpad(text, size) <= size);
  if (size == 0) return;

  const int padded = padEncrypt(&start, &encrypt_key, bytes_of(text), size,
                                reinterpret_cast<std::uint8_t*>(secret.data()));
  REQUIRE(padded == 16 * (size / 16 + 1));
  const int back = unpad(secret, padded);
  // ECB refuses the full block of padding that follows whole blocks.
  const bool refused = mode == kModeEcb && size % 16 == 0;
  REQUIRE(back == (refused ? kBadData : size));
  REQUIRE(refused || plain.compare(0, text.size(), text) == 0);
}

void make_seeds() {
  for (char choice = 0; choice < 6; ++choice)
    add_seed(choice + std::string(96, 'a'));
}

}  // namespace velprobe
