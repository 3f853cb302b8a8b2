#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>

#include "modules/Crypto/aes_block.h"
#include "modules/Crypto/rijndael-api-fst.h"
#include "support/bytes.h"
#include "support/vectors.h"

namespace velprobe {
namespace {

keyInstance new_key(const std::string& hex, std::uint8_t direction) {
  keyInstance key;
  const int bits = 4 * static_cast<int>(hex.size());
  EXPECT_EQ(keyInit(&key, direction, bits, hex.c_str()), 1);
  return key;
}

cipherInstance new_cipher(std::uint8_t mode, const std::string& vector) {
  cipherInstance cipher;
  const char* text = vector.empty() ? nullptr : vector.c_str();
  EXPECT_EQ(cipherInit(&cipher, mode, text), 1);
  return cipher;
}

std::string vector_of(const cipherInstance& cipher) {
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

std::string run_blocks(std::uint8_t direction, cipherInstance* cipher,
                       const keyInstance& key, const std::string& text) {
  return run(direction == kDirEncrypt ? blockEncrypt : blockDecrypt, cipher,
             key, text, 8);
}

class OnEveryAesPath : public testing::TestWithParam<const AesPath*> {
 protected:
  void SetUp() override {
    if (GetParam() == nullptr) GTEST_SKIP() << "no AES instructions here";
    force_aes_path(GetParam());
  }
  void TearDown() override { force_aes_path(nullptr); }
};

INSTANTIATE_TEST_SUITE_P(Paths, OnEveryAesPath,
                         testing::Values(&portable_aes_path(),
                                         accelerated_aes_path()),
                         [](const auto& path) {
                           return path.index ? "accelerated" : "portable";
                         });

const std::string kKey128 = "2b7e151628aed2a6abf7158809cf4f3c";
const std::string kKey192 = "8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b";
const std::string kKey256 =
    "603DEB1015CA71BE2B73AEF0857D77811F352C073B6108D72D9810A30914DFF4";
const std::string kVector = "000102030405060708090a0b0c0d0e0f";

const std::string kPlain =
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";

TEST_P(OnEveryAesPath, GivesThePublishedBlocks) {
  const struct {
    const char* source;
    std::uint8_t mode;
    std::string key, plain;
    std::string cipher;  // what the source gives of it
  } rows[] = {
      {"FIPS 197 B", kModeEcb, kKey128, "3243f6a8885a308d313198a2e0370734",
       "3925841d02dc09fbdc118597196a0b32"},
      {"SP 800-38A F.2.5", kModeCbc, kKey256, kPlain,
       "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
       "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b"},
      {"SP 800-38A F.3.3", kModeCfb1, kKey192, kPlain, "9359"},
  };
  for (const auto& row : rows) {
    cipherInstance cipher = new_cipher(row.mode, kVector);
    const std::string out =
        run_blocks(kDirEncrypt, &cipher, new_key(row.key, kDirEncrypt),
                   bytes_of(row.plain));
    EXPECT_EQ(digits_of(out).substr(0, row.cipher.size()), row.cipher)
        << row.source;
  }
}

// One long call agrees with calls of a few blocks each, in place, of lengths on
// either side of every lane count, and these undo each other.
TEST_P(OnEveryAesPath, CutsAndOverlapsDoNotMatter) {
  std::string text;
  for (int i = 0; i < 29 * 16; ++i) text += static_cast<char>(i * i + i / 7);
  for (std::uint8_t mode : {kModeEcb, kModeCbc, kModeCfb1}) {
    cipherInstance cipher = new_cipher(mode, kVector);
    const std::string whole =
        run_blocks(kDirEncrypt, &cipher, new_key(kKey192, kDirEncrypt), text);
    std::string in_place = text;
    for (const auto crypt : {blockEncrypt, blockDecrypt}) {
      const bool decrypts = crypt == blockDecrypt;
      const keyInstance key = new_key(kKey192, decrypts);
      cipher = new_cipher(mode, kVector);
      auto* at = reinterpret_cast<std::uint8_t*>(in_place.data());
      for (int blocks : {1, 2, 3, 4, 8, 11}) {
        at += crypt(&cipher, &key, at, 128 * blocks, at) / 8;
      }
      EXPECT_EQ(in_place, decrypts ? text : whole);
      EXPECT_EQ(vector_of(cipher),
                mode == kModeEcb ? bytes_of(kVector) : whole.substr(28 * 16));
    }
  }
}

// Expected values from FIPS 197, C.1: the states before and inside the rounds.
TEST_P(OnEveryAesPath, ReducedRoundsEndWhereTheDirectionSays) {
  const std::string plain = "00112233445566778899aabbccddeeff";
  const std::string encrypted = "69c4e0d86a7b0430d8cdb78070b4c55a";
  const std::string before_last = "bd6e7c3df2b5779e0b61216e8b10b689";
  const std::string whitened = "00102030405060708090a0b0c0d0e0f0";
  const struct {
    std::uint8_t direction;
    int rounds;
    std::string output;
  } rows[] = {
      {kDirEncrypt, -1, whitened},
      {kDirEncrypt, 1, "89d810e8855ace682d1843d8cb128fe4"},
      {kDirEncrypt, 10, encrypted},
      {kDirEncrypt, 11, before_last},
      {kDirDecrypt, 1, before_last},
      {kDirDecrypt, 10, plain},
      {kDirDecrypt, 11, whitened},
  };
  const cipherInstance cipher;
  for (const auto& row : rows) {
    const keyInstance key = new_key(kVector, row.direction);
    std::string block = bytes_of(row.direction ? encrypted : plain);
    auto* at = reinterpret_cast<std::uint8_t*>(block.data());
    EXPECT_EQ(cipherUpdateRounds(&cipher, &key, at, 0, at, row.rounds), 1);
    EXPECT_EQ(digits_of(block), row.output)
        << "direction " << +row.direction << ", rounds " << row.rounds;
  }
}

// CBC takes paddings of 1 to 16 bytes, ECB of 0 to 15.
TEST_P(OnEveryAesPath, PadsAndJudgesPaddingOfEveryLength) {
  const keyInstance encrypt = new_key(kKey256, kDirEncrypt);
  const keyInstance decrypt = new_key(kKey256, kDirDecrypt);
  for (std::uint8_t mode : {kModeEcb, kModeCbc}) {
    cipherInstance cipher;
    const auto blocks_of = [&](const std::string& plain) {
      cipher = new_cipher(mode, kVector);
      return run_blocks(kDirEncrypt, &cipher, encrypt, plain);
    };
    const auto unpad = [&](const std::string& text) {
      cipher = new_cipher(mode, kVector);
      return run(padDecrypt, &cipher, decrypt, text, 1);
    };
    for (std::size_t size = 1; size <= 48; ++size) {
      SCOPED_TRACE(std::to_string(size) + " bytes");
      const std::string plain = kPlain.substr(0, size);
      const std::size_t pad = 16 - size % 16;
      std::string padded = plain + std::string(pad, static_cast<char>(pad));
      const std::string text = blocks_of(padded);
      cipher = new_cipher(mode, kVector);
      EXPECT_EQ(run(padEncrypt, &cipher, encrypt, plain, 1), text);
      EXPECT_EQ(digits_of(vector_of(cipher)), kVector);

      const bool refused = mode == kModeEcb && pad == 16;
      EXPECT_EQ(unpad(text), refused ? "failed -8" : plain);
      const bool is_chained = mode == kModeCbc && size >= 16;
      EXPECT_EQ(vector_of(cipher), is_chained
                                       ? text.substr(text.size() - 32, 16)
                                       : bytes_of(kVector));
      padded[size] ^= 16;  // also makes 1 byte of padding 17
      EXPECT_EQ(unpad(blocks_of(padded)), "failed -8");
    }
    const std::string zero(16, '\0');
    EXPECT_EQ(unpad(blocks_of(zero)), mode == kModeEcb ? zero : "failed -8");
  }
}

TEST(AesResults, OfInitialisation) {
  keyInstance key = new_key(kKey128, kDirEncrypt);
  EXPECT_EQ(keyInit(nullptr, 2, 1, nullptr), kBadKeyInstance);
  EXPECT_EQ(keyInit(&key, 2, 1, nullptr), kBadKeyDir);
  EXPECT_EQ(keyInit(&key, 0, 128, nullptr), kBadKeyMaterial);
  for (int bits : {-128, 0, 64, 129, 160, 512}) {
    EXPECT_EQ(keyInit(&key, 0, bits, kKey256.c_str()), kBadKeyMaterial);
  }
  EXPECT_EQ(keyInit(&key, 1, 192, kKey128.c_str()), kBadKeyMaterial);
  EXPECT_EQ(keyInit(&key, 0, 128, "2b7e151628aed2a6abf7158809cf4f3g"),
            kBadKeyMaterial);
  // A short text is not completed with what is left of a longer one.
  key = new_key(kKey256, kDirEncrypt);
  EXPECT_EQ(keyInit(&key, 0, 256, kKey128.c_str()), kBadKeyMaterial);
  EXPECT_EQ(key.keyMaterial, kKey128);
  std::uint8_t block[16] = {};
  cipherInstance cipher = new_cipher(kModeCbc, kVector);
  EXPECT_EQ(blockEncrypt(&cipher, &key, block, 128, block), kBadCipherState);
  EXPECT_EQ(keyInit(&key, 0, 128, (kKey128 + "more").c_str()), 1);
  EXPECT_EQ(key.keyMaterial, kKey128);

  EXPECT_EQ(cipherInit(nullptr, kModeEcb, nullptr), kBadCipherState);
  EXPECT_EQ(cipherInit(&cipher, 0, nullptr), kBadCipherMode);
  EXPECT_EQ(cipherInit(&cipher, 4, nullptr), kBadCipherMode);
  EXPECT_EQ(cipherInit(&cipher, kModeEcb, "aAfFx0"), kBadIv);
  EXPECT_EQ(digits_of(vector_of(cipher)), "aaff" + kVector.substr(4));
  EXPECT_EQ(cipherInit(&cipher, kModeEcb, nullptr), 1);
  EXPECT_EQ(vector_of(cipher), std::string(16, '\0'));
  for (int digit = 1; digit < 256; ++digit) {
    const std::string text(32, static_cast<char>(digit));
    EXPECT_EQ(cipherInit(&cipher, kModeEcb, text.c_str()),
              std::isxdigit(digit) ? 1 : kBadIv)
        << digit;
  }
}

TEST(AesResults, PathFollowsTheProcessor) {
#if defined(__x86_64__) || defined(__aarch64__)
  std::ifstream stream("/proc/cpuinfo");
  const std::string info(std::istreambuf_iterator<char>(stream), {});
  EXPECT_EQ(accelerated_aes_path() != nullptr, info.find(" aes ") != info.npos);
#endif
  const AesPath* accelerated = accelerated_aes_path();
  EXPECT_EQ(&aes_path(), accelerated ? accelerated : &portable_aes_path());
  EXPECT_STREQ(portable_aes_path().name, "portable");
}

TEST(AesResults, OfOperations) {
  const keyInstance encrypt = new_key(kKey128, kDirEncrypt);
  const keyInstance decrypt = new_key(kKey128, kDirDecrypt);
  cipherInstance unset, cbc = new_cipher(kModeCbc, kVector);
  cipherInstance cfb1 = new_cipher(kModeCfb1, kVector);
  const std::uint8_t in[64] = {};
  std::uint8_t out[64];
  // The result for an odd number of units, and the results of CFB1, which runs
  // the cipher forwards both ways and knows no padding, with either key.
  const auto check = [&](auto run_on, const keyInstance* key, int odd_result,
                         int forwards, int backwards) {
    const keyInstance* other = key == &encrypt ? &decrypt : &encrypt;
    EXPECT_EQ(run_on(nullptr, key, in, 32, out), kBadCipherState);
    EXPECT_EQ(run_on(&unset, key, in, 32, out), kBadCipherState);
    EXPECT_EQ(run_on(&cbc, nullptr, in, 32, out), kBadCipherState);
    EXPECT_EQ(run_on(&cbc, other, in, 32, out), kBadCipherState);
    EXPECT_EQ(run_on(&cbc, key, nullptr, 32, out), 0);
    EXPECT_EQ(run_on(&cbc, key, in, 0, out), 0);
    EXPECT_EQ(run_on(&cbc, key, in, 17, out), odd_result);
    EXPECT_EQ(run_on(&cfb1, &encrypt, in, 128, out), forwards);
    EXPECT_EQ(run_on(&cfb1, &decrypt, in, 128, out), backwards);
  };
  check(blockEncrypt, &encrypt, 0, 128, kBadCipherState);
  check(blockDecrypt, &decrypt, 0, 128, 128);
  check(padEncrypt, &encrypt, 32, kBadCipherState, kBadCipherState);
  check(padDecrypt, &decrypt, kBadData, kBadCipherState, kBadCipherState);
  EXPECT_EQ(blockEncrypt(&cbc, &encrypt, in, 200, out), 128);
  EXPECT_EQ(padEncrypt(&cbc, &encrypt, in, INT32_MAX, out), kBadData);
  EXPECT_EQ(cipherUpdateRounds(nullptr, &encrypt, in, 16, out, 1),
            kBadCipherState);
  EXPECT_EQ(cipherUpdateRounds(&cbc, nullptr, in, 16, out, 1), kBadCipherState);
}

// The files of CFB1 state texts in bits.
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

// run_vector runs a case in its section's direction. Feedback is causal: bits
// that fill up a block do not change those before.
void run_vector(const Vector& vector, std::uint8_t mode) {
  const bool decrypts = vector.section == "DECRYPT";
  const bool is_bits = mode == kModeCfb1;
  const std::string input = vector[decrypts ? "CIPHERTEXT" : "PLAINTEXT"];
  const std::string output = vector[decrypts ? "PLAINTEXT" : "CIPHERTEXT"];
  cipherInstance cipher = new_cipher(mode, vector["IV"]);
  const std::string out =
      run_blocks(decrypts, &cipher, new_key(vector["KEY"], decrypts),
                 is_bits ? bits_to_bytes(input) : bytes_of(input));
  EXPECT_EQ(
      is_bits ? bytes_to_bits(out).substr(0, input.size()) : digits_of(out),
      output)
      << vector.where;
}

TEST_P(OnEveryAesPath, GivesTheKnownAnswers) {
  SKIP_WITHOUT_VECTORS();
  for (const auto& [name, mode] :
       {std::pair("ECB", kModeEcb), {"CBC", kModeCbc}, {"CFB1", kModeCfb1}}) {
    for (const std::string kind : {"KAT/*GFSbox", "KAT/*KeySbox", "KAT/*VarKey",
                                   "KAT/*VarTxt", "MMT/*MMT"}) {
      for (const char* size : {"128", "192", "256"}) {
        std::string file = "aes-cavp/" + kind + size + ".rsp";
        file.replace(file.find('*'), 1, name);
        for (const Vector& vector : read_vectors(file)) {
          run_vector(vector, mode);
        }
      }
    }
  }
}

}  // namespace
}  // namespace velprobe
