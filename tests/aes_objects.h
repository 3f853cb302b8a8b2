// What the AES tests share: objects made from hexadecimal texts, operations on
// texts, and a fixture that runs on every path that this processor has.
#ifndef VELPROBE_TESTS_AES_OBJECTS_H_
#define VELPROBE_TESTS_AES_OBJECTS_H_

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "modules/Crypto/c/aes_block.h"
#include "modules/Crypto/c/rijndael-api-fst.h"

namespace velprobe {

inline keyInstance new_key(const std::string& hex, std::uint8_t direction) {
  keyInstance key;
  const int bits = 4 * static_cast<int>(hex.size());
  EXPECT_EQ(keyInit(&key, direction, bits, hex.c_str()), 1);
  return key;
}

inline cipherInstance new_cipher(std::uint8_t mode, const std::string& vector) {
  cipherInstance cipher;
  const char* text = vector.empty() ? nullptr : vector.c_str();
  EXPECT_EQ(cipherInit(&cipher, mode, text), 1);
  return cipher;
}

inline std::string vector_of(const cipherInstance& cipher) {
  return {reinterpret_cast<const char*>(cipher.IV), sizeof cipher.IV};
}

// run calls one of the four operations, whose lengths count `units` to a byte,
// and checks that it writes no more than it says.
template <class Operation, class Cipher>
std::string run(Operation operation, Cipher* cipher, const keyInstance& key,
                const std::string& text, int units) {
  std::string output(text.size() + 16, '\x7e');
  const int result = operation(
      cipher, &key, reinterpret_cast<const std::uint8_t*>(text.data()),
      static_cast<int>(text.size()) * units,
      reinterpret_cast<std::uint8_t*>(output.data()));
  if (result < 0) return "failed " + std::to_string(result);
  const auto size = static_cast<std::size_t>(result / units);
  EXPECT_EQ(output.substr(size), std::string(output.size() - size, '\x7e'));
  return output.substr(0, size);
}

inline std::string run_blocks(std::uint8_t direction, cipherInstance* cipher,
                              const keyInstance& key, const std::string& text) {
  return run(direction == kDirEncrypt ? blockEncrypt : blockDecrypt, cipher,
             key, text, 8);
}

class AesPathTest : public testing::TestWithParam<const AesPath*> {
 protected:
  void SetUp() override { force_aes_path(GetParam()); }
  void TearDown() override { force_aes_path(nullptr); }
};

inline std::vector<const AesPath*> aes_paths() {
  if (accelerated_aes_path() == nullptr) return {&portable_aes_path()};
  return {&portable_aes_path(), accelerated_aes_path()};
}

inline std::string aes_path_name(
    const testing::TestParamInfo<const AesPath*>& path) {
  return path.param->name;
}

}  // namespace velprobe

#endif  // VELPROBE_TESTS_AES_OBJECTS_H_
