// AES against the public vectors: CAVP known answers, multi-block messages and
// Monte Carlo chains; padding; CFB1 over whole blocks. On every path.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "aes_paths.h"
#include "modules/Crypto/c/rijndael-api-fst.h"
#include "vectors.h"

namespace velprobe {
namespace {

constexpr struct {
  const char* name;
  std::uint8_t mode;
} kModes[] = {{"ECB", kModeEcb}, {"CBC", kModeCbc}, {"CFB1", kModeCfb1}};

constexpr const char* kKeySizes[] = {"128", "192", "256"};

class AesVectors : public AesPathTest {};

INSTANTIATE_TEST_SUITE_P(Paths, AesVectors, testing::ValuesIn(aes_paths()),
                         aes_path_name);

// Case is one vector made ready to run in its section's direction.
struct Case {
  Case(const Vector& vector, std::uint8_t mode)
      : decrypts(vector.section == "DECRYPT"),
        input(vector[decrypts ? "CIPHERTEXT" : "PLAINTEXT"]),
        output(vector[decrypts ? "PLAINTEXT" : "CIPHERTEXT"]) {
    const std::string& text = vector["KEY"];
    EXPECT_EQ(keyInit(&key, decrypts ? kDirDecrypt : kDirEncrypt,
                      4 * static_cast<int>(text.size()), text.c_str()),
              1);
    const std::string& iv = vector["IV"];
    EXPECT_EQ(cipherInit(&cipher, mode, iv.empty() ? nullptr : iv.c_str()), 1);
  }

  // run takes whole blocks through the cipher object and leaves it where the
  // chain stands.
  std::string run(std::string text) {
    auto* bytes = reinterpret_cast<std::uint8_t*>(text.data());
    const int bits = 8 * static_cast<int>(text.size());
    const auto operation = decrypts ? blockDecrypt : blockEncrypt;
    EXPECT_EQ(operation(&cipher, &key, bytes, bits, bytes), bits);
    return text;
  }

  std::string vector() const {
    return {reinterpret_cast<const char*>(cipher.IV), sizeof cipher.IV};
  }

  bool decrypts;
  std::string input;
  std::string output;
  keyInstance key;
  cipherInstance cipher;
};

std::string bits_to_bytes(const std::string& bits) {
  std::string bytes((bits.size() + 127) / 128 * 16, '\0');
  for (std::size_t i = 0; i < bits.size(); ++i) {
    if (bits[i] == '1') bytes[i / 8] |= static_cast<char>(0x80 >> i % 8);
  }
  return bytes;
}

std::string bytes_to_bits(const std::string& bytes) {
  std::string bits;
  for (std::size_t i = 0; i < 8 * bytes.size(); ++i) {
    bits += (bytes[i / 8] >> (7 - i % 8) & 1) != 0 ? '1' : '0';
  }
  return bits;
}

// Feedback is causal: bits that fill up a block do not change those before.
std::string answer(Case& test, std::uint8_t mode) {
  if (mode != kModeCfb1) return to_hex(test.run(from_hex(test.input)));
  return bytes_to_bits(test.run(bits_to_bytes(test.input)))
      .substr(0, test.output.size());
}

// last_bit_of_chain is last_of_chain for CFB1, where a step is one bit: its
// inputs are the given bit, the vector's bits, then the outputs.
std::string last_bit_of_chain(Case& test) {
  std::string inputs = test.input + bytes_to_bits(test.vector());
  std::string outputs;
  while (outputs.size() < 1000) {
    outputs += bytes_to_bits(
        test.run(bits_to_bytes(inputs.substr(outputs.size(), 128))));
    inputs += outputs.substr(outputs.size() - 128);
  }
  return outputs.substr(999, 1);
}

// last_of_chain gives the output of step 999 of the AESAVS Monte Carlo tests,
// whose steps feed on the outputs of earlier ones.
std::string last_of_chain(Case& test, std::uint8_t mode) {
  if (mode == kModeCfb1) return last_bit_of_chain(test);
  std::string input = from_hex(test.input);
  std::string before = test.vector();
  std::string output;
  for (int step = 0; step < 1000; ++step) {
    output = test.run(input);
    input = mode == kModeCbc ? std::exchange(before, output) : output;
  }
  return to_hex(output);
}

TEST_P(AesVectors, KnownAnswersAndMonteCarlo) {
  SKIP_WITHOUT_VECTORS();
  for (const auto& [name, mode] : kModes) {
    for (const char* kind : {"KAT/*GFSbox", "KAT/*KeySbox", "KAT/*VarKey",
                             "KAT/*VarTxt", "MMT/*MMT", "MCT/*MCT"}) {
      for (const char* size : kKeySizes) {
        std::string file = std::string("aes-cavp/") + kind + size + ".rsp";
        file.replace(file.find('*'), 1, name);
        const bool is_chain = *kind == 'M' && kind[1] == 'C';
        for (const Vector& vector : read_vectors(file)) {
          Case test(vector, mode);
          ASSERT_EQ(is_chain ? last_of_chain(test, mode) : answer(test, mode),
                    test.output)
              << vector.where;
        }
      }
    }
  }
}

TEST_P(AesVectors, FeedbackOverWholeBlocks) {
  SKIP_WITHOUT_VECTORS();
  for (const Vector& vector :
       read_vectors("generated/aes-cfb1-whole-blocks.rsp")) {
    Case test(vector, kModeCfb1);
    ASSERT_EQ(to_hex(test.run(from_hex(test.input))), test.output)
        << vector.where;
    ASSERT_EQ(to_hex(test.vector()), vector["NEXTIV"]) << vector.where;
  }
}

using Bytes = std::vector<std::uint8_t>;

Bytes to_bytes(const std::string& hex) {
  const std::string text = from_hex(hex);
  return {text.begin(), text.end()};
}

TEST_P(AesVectors, Padding) {
  SKIP_WITHOUT_VECTORS();
  int num_cases = 0;
  for (const Vector& vector :
       read_vectors("wycheproof/aes_cbc_pkcs5_test.json")) {
    if (vector["result"].empty()) continue;
    ++num_cases;
    const int key_bits = 4 * static_cast<int>(vector["key"].size());
    Bytes cipher_text = to_bytes(vector["ct"]);
    cipherInstance cipher;
    keyInstance key;
    cipherInit(&cipher, kModeCbc, vector["iv"].c_str());
    const bool is_valid = vector["result"] == "valid";
    Bytes plain = to_bytes(vector["msg"]);
    if (is_valid && !plain.empty()) {
      keyInit(&key, kDirEncrypt, key_bits, vector["key"].c_str());
      Bytes output(plain.size() + 16);
      const int size =
          padEncrypt(&cipher, &key, plain.data(),
                     static_cast<int>(plain.size()), output.data());
      output.resize(static_cast<std::size_t>(size));
      ASSERT_EQ(output, cipher_text) << vector.where;
    }

    keyInit(&key, kDirDecrypt, key_bits, vector["key"].c_str());
    const int size =
        padDecrypt(&cipher, &key, cipher_text.data(),
                   static_cast<int>(cipher_text.size()), cipher_text.data());
    const int refusal = cipher_text.empty() ? 0 : kBadData;
    ASSERT_EQ(size, is_valid ? static_cast<int>(plain.size()) : refusal)
        << vector.where;
    if (!is_valid) continue;
    cipher_text.resize(plain.size());
    ASSERT_EQ(cipher_text, plain) << vector.where;
  }
  EXPECT_EQ(num_cases, 216);
}

}  // namespace
}  // namespace velprobe
