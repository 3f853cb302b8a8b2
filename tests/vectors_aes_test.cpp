// AES against the public vectors: CAVP known answers, multi-block messages and
// Monte Carlo chains; padding; CFB1 over whole blocks. On every path.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "aes_objects.h"
#include "vectors.h"

namespace velprobe {
namespace {

constexpr struct {
  const char* name;
  std::uint8_t mode;
} kModes[] = {{"ECB", kModeEcb}, {"CBC", kModeCbc}, {"CFB1", kModeCfb1}};

class AesVectors : public AesPathTest {};

INSTANTIATE_TEST_SUITE_P(Paths, AesVectors, testing::ValuesIn(aes_paths()),
                         aes_path_name);

// Case is one vector made ready to run in its section's direction.
struct Case {
  Case(const Vector& vector, std::uint8_t mode)
      : direction(vector.section == "DECRYPT" ? kDirDecrypt : kDirEncrypt),
        input(vector[direction ? "CIPHERTEXT" : "PLAINTEXT"]),
        output(vector[direction ? "PLAINTEXT" : "CIPHERTEXT"]),
        key(new_key(vector["KEY"], direction)),
        cipher(new_cipher(mode, vector["IV"])) {}

  // run takes whole blocks on from where the chain stands.
  std::string run(const std::string& text) {
    return run_blocks(direction, &cipher, key, text);
  }

  std::uint8_t direction;
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

// last_of_chain gives the output of step 999 of the AESAVS Monte Carlo tests,
// whose steps feed on the outputs of earlier ones. A step of CFB1 is one bit:
// its inputs are the given bit, the vector's bits, then the outputs.
std::string last_of_chain(Case& test, std::uint8_t mode) {
  std::string before = vector_of(test.cipher);
  if (mode == kModeCfb1) {
    std::string inputs = test.input + bytes_to_bits(before), outputs;
    while (outputs.size() < 1000) {
      outputs += bytes_to_bits(
          test.run(bits_to_bytes(inputs.substr(outputs.size(), 128))));
      inputs += outputs.substr(outputs.size() - 128);
    }
    return outputs.substr(999, 1);
  }
  std::string input = from_hex(test.input), output;
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
      for (const char* size : {"128", "192", "256"}) {
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

TEST_P(AesVectors, Padding) {
  SKIP_WITHOUT_VECTORS();
  int num_cases = 0;
  for (const Vector& vector :
       read_vectors("wycheproof/aes_cbc_pkcs5_test.json")) {
    if (vector["result"].empty()) continue;
    ++num_cases;
    SCOPED_TRACE(vector.where);
    const std::string cipher_text = from_hex(vector["ct"]);
    const std::string plain = from_hex(vector["msg"]);
    const bool is_valid = vector["result"] == "valid";
    cipherInstance cipher = new_cipher(kModeCbc, vector["iv"]);
    if (is_valid && !plain.empty()) {
      const keyInstance key = new_key(vector["key"], kDirEncrypt);
      EXPECT_EQ(run(padEncrypt, &cipher, key, plain, 1), cipher_text);
    }
    const keyInstance key = new_key(vector["key"], kDirDecrypt);
    const std::string refusal = cipher_text.empty() ? "" : "failed -8";
    EXPECT_EQ(run(padDecrypt, &cipher, key, cipher_text, 1),
              is_valid ? plain : refusal);
  }
  EXPECT_EQ(num_cases, 216);
}

}  // namespace
}  // namespace velprobe
