#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "aes_objects.h"
#include "vectors.h"

namespace velprobe {
namespace {

const std::string kKey128 = "2b7e151628aed2a6abf7158809cf4f3c";
const std::string kKey192 = "8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b";
const std::string kKey256 =
    "603DEB1015CA71BE2B73AEF0857D77811F352C073B6108D72D9810A30914DFF4";
const std::string kVector = "000102030405060708090a0b0c0d0e0f";

class Aes : public AesPathTest {};

INSTANTIATE_TEST_SUITE_P(Paths, Aes, testing::ValuesIn(aes_paths()),
                         aes_path_name);

struct Published {
  const char* source;
  std::uint8_t mode;
  std::string key;
  std::string plain;
  std::string cipher;  // what the source gives of it
};

const std::string kPlain =
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";

const Published kPublished[] = {
    {"FIPS 197 B", kModeEcb, kKey128, "3243f6a8885a308d313198a2e0370734",
     "3925841d02dc09fbdc118597196a0b32"},
    {"SP 800-38A F.2.1", kModeCbc, kKey128, kPlain,
     "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
     "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7"},
    {"SP 800-38A F.2.5", kModeCbc, kKey256, kPlain,
     "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
     "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b"},
    {"SP 800-38A F.3.3", kModeCfb1, kKey192, kPlain, "9359"},
};

TEST_P(Aes, GivesThePublishedBlocks) {
  for (const Published& row : kPublished) {
    SCOPED_TRACE(row.source);
    const std::string plain = from_hex(row.plain);
    cipherInstance cipher = new_cipher(row.mode, kVector);
    const std::string out =
        run_blocks(kDirEncrypt, &cipher, new_key(row.key, kDirEncrypt), plain);
    EXPECT_EQ(to_hex(out).substr(0, row.cipher.size()), row.cipher);
    cipher = new_cipher(row.mode, kVector);
    EXPECT_EQ(
        run_blocks(kDirDecrypt, &cipher, new_key(row.key, kDirDecrypt), out),
        plain);
  }
}

// One long call, calls of a few blocks each, and a call in place agree, over
// lengths on either side of every lane count.
TEST_P(Aes, CutsAndOverlapsDoNotMatter) {
  std::string text;
  for (int i = 0; i < 29 * 16; ++i) text += static_cast<char>(i * i + i / 7);
  for (std::uint8_t mode : {kModeEcb, kModeCbc, kModeCfb1}) {
    for (std::uint8_t direction : {kDirEncrypt, kDirDecrypt}) {
      const keyInstance key = new_key(kKey192, direction);
      cipherInstance cipher = new_cipher(mode, kVector);
      const std::string whole = run_blocks(direction, &cipher, key, text);
      ASSERT_EQ(whole.size(), text.size());

      cipherInstance piecewise = new_cipher(mode, kVector);
      std::string joined;
      for (std::size_t blocks : {1u, 2u, 3u, 4u, 8u, 11u}) {
        joined += run_blocks(direction, &piecewise, key,
                             text.substr(joined.size(), 16 * blocks));
      }
      EXPECT_EQ(joined, whole);
      EXPECT_EQ(vector_of(piecewise), vector_of(cipher));
      if (mode != kModeEcb) {
        const std::string& ciphertext = direction == 0 ? whole : text;
        EXPECT_EQ(vector_of(cipher), ciphertext.substr(28 * 16));
      }

      std::string in_place = text;
      auto* bytes = reinterpret_cast<std::uint8_t*>(in_place.data());
      cipher = new_cipher(mode, kVector);
      (direction == kDirEncrypt ? blockEncrypt : blockDecrypt)(
          &cipher, &key, bytes, 8 * 29 * 16, bytes);
      EXPECT_EQ(in_place, whole);
    }
  }
}

// Expected values from FIPS 197, C.1: the states before and inside the rounds.
TEST_P(Aes, ReducedRoundsEndWhereTheDirectionSays) {
  const struct {
    std::uint8_t direction;
    int rounds;
    const char* output;
  } rows[] = {
      {kDirEncrypt, -1, "00102030405060708090a0b0c0d0e0f0"},
      {kDirEncrypt, 1, "89d810e8855ace682d1843d8cb128fe4"},
      {kDirEncrypt, 9, "bd6e7c3df2b5779e0b61216e8b10b689"},
      {kDirEncrypt, 10, "69c4e0d86a7b0430d8cdb78070b4c55a"},
      {kDirEncrypt, 11, "bd6e7c3df2b5779e0b61216e8b10b689"},
      {kDirDecrypt, 1, "bd6e7c3df2b5779e0b61216e8b10b689"},
      {kDirDecrypt, 2, "fde3bad205e5d0d73547964ef1fe37f1"},
      {kDirDecrypt, 10, "00112233445566778899aabbccddeeff"},
      {kDirDecrypt, 11, "00102030405060708090a0b0c0d0e0f0"},
  };
  const cipherInstance cipher;
  keyInstance key;
  std::uint8_t block[16] = {};
  EXPECT_EQ(cipherUpdateRounds(nullptr, &key, block, 16, block, 1), -5);
  EXPECT_EQ(cipherUpdateRounds(&cipher, nullptr, block, 16, block, 1), -5);
  key.direction = 2;
  EXPECT_EQ(cipherUpdateRounds(&cipher, &key, block, 16, block, 1), -1);
  for (const auto& row : rows) {
    const std::string input = from_hex(
        row.direction == kDirEncrypt ? "00112233445566778899aabbccddeeff"
                                     : "69c4e0d86a7b0430d8cdb78070b4c55a");
    key = new_key(kVector, row.direction);
    std::string output(16, '\0');
    EXPECT_EQ(
        cipherUpdateRounds(
            &cipher, &key, reinterpret_cast<const std::uint8_t*>(input.data()),
            0, reinterpret_cast<std::uint8_t*>(output.data()), row.rounds),
        1);
    EXPECT_EQ(to_hex(output), row.output)
        << "direction " << int{row.direction} << ", rounds " << row.rounds;
  }
}

TEST_P(Aes, PadsEveryLength) {
  const keyInstance encrypt = new_key(kKey256, kDirEncrypt);
  const keyInstance decrypt = new_key(kKey256, kDirDecrypt);
  for (std::uint8_t mode : {kModeEcb, kModeCbc}) {
    for (std::size_t size = 1; size <= 48; ++size) {
      SCOPED_TRACE(size);
      const std::string plain = kPlain.substr(0, size);
      const std::size_t pad = 16 - size % 16;
      cipherInstance cipher = new_cipher(mode, kVector);
      const std::string out = run(padEncrypt, &cipher, encrypt, plain, 1);
      EXPECT_EQ(to_hex(vector_of(cipher)), kVector);
      EXPECT_EQ(out,
                run_blocks(kDirEncrypt, &cipher, encrypt,
                           plain + std::string(pad, static_cast<char>(pad))));

      cipher = new_cipher(mode, kVector);
      const bool refused = mode == kModeEcb && pad == 16;
      EXPECT_EQ(run(padDecrypt, &cipher, decrypt, out, 1),
                refused ? "failed -8" : plain);
      const bool is_chained = mode == kModeCbc && size >= 16;
      EXPECT_EQ(vector_of(cipher), is_chained ? out.substr(out.size() - 32, 16)
                                              : from_hex(kVector));
    }
  }
}

TEST_P(Aes, JudgesPadding) {
  const struct {
    const char* last_block;
    int ecb;  // results for two blocks
    int cbc;
  } rows[] = {
      {"000102030405060708090a0b0c0d0e00", 32, kBadData},
      {"000102030405060708090a0b0c0d0e01", 31, 31},
      {"000102030405060708090a0b0c0d0202", 30, 30},
      {"000102030405060708090a0b0c0d0302", kBadData, kBadData},
      {"000f0f0f0f0f0f0f0f0f0f0f0f0f0f0f", 17, 17},
      {"10101010101010101010101010101010", kBadData, 16},
      {"11111111111111111111111111111111", kBadData, kBadData},
  };
  const keyInstance encrypt = new_key(kKey128, kDirEncrypt);
  const keyInstance decrypt = new_key(kKey128, kDirDecrypt);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.last_block);
    const std::string plain = std::string(16, 'p') + from_hex(row.last_block);
    for (std::uint8_t mode : {kModeEcb, kModeCbc}) {
      cipherInstance cipher = new_cipher(mode, kVector);
      const std::string text = run_blocks(kDirEncrypt, &cipher, encrypt, plain);
      cipher = new_cipher(mode, kVector);
      const int expected = mode == kModeEcb ? row.ecb : row.cbc;
      EXPECT_EQ(run(padDecrypt, &cipher, decrypt, text, 1),
                expected < 0
                    ? "failed " + std::to_string(expected)
                    : plain.substr(0, static_cast<std::size_t>(expected)));
    }
  }
}

TEST(AesResults, OfInitialisation) {
  const std::string no_digit = "2b7e151628aed2a6abf7158809cf4f3g";
  keyInstance key = new_key(kKey128, kDirEncrypt);
  EXPECT_EQ(keyInit(nullptr, 2, 1, nullptr), kBadKeyInstance);
  EXPECT_EQ(keyInit(&key, 2, 1, nullptr), kBadKeyDir);
  for (int bits : {-128, 0, 64, 129, 160, 512}) {
    EXPECT_EQ(keyInit(&key, 0, bits, kKey256.c_str()), kBadKeyMaterial);
  }
  EXPECT_EQ(keyInit(&key, 0, 128, nullptr), kBadKeyMaterial);
  EXPECT_EQ(keyInit(&key, 1, 192, kKey128.c_str()), kBadKeyMaterial);
  EXPECT_EQ(keyInit(&key, 0, 128, no_digit.c_str()), kBadKeyMaterial);
  std::uint8_t block[16] = {};
  cipherInstance cipher = new_cipher(kModeCbc, kVector);
  EXPECT_EQ(blockEncrypt(&cipher, &key, block, 128, block), kBadCipherState)
      << "no stale schedule after a bad digit";
  EXPECT_EQ(keyInit(&key, 0, 128, (kKey128 + "more").c_str()), 1);
  EXPECT_EQ(key.keyMaterial, kKey128);

  EXPECT_EQ(cipherInit(nullptr, kModeEcb, nullptr), kBadCipherState);
  EXPECT_EQ(cipherInit(&cipher, 0, nullptr), kBadCipherMode);
  EXPECT_EQ(cipherInit(&cipher, 4, nullptr), kBadCipherMode);
  EXPECT_EQ(cipherInit(&cipher, kModeEcb, "aAfFx0"), kBadIv);
  EXPECT_EQ(to_hex(vector_of(cipher)), "aaff" + kVector.substr(4));
  EXPECT_EQ(cipherInit(&cipher, kModeEcb, nullptr), 1);
  EXPECT_EQ(vector_of(cipher), std::string(16, '\0'));
}

TEST(AesResults, OfOperations) {
  using Operation = int (*)(cipherInstance*, const keyInstance*,
                            const std::uint8_t*, int, std::uint8_t*);
  const Operation pad_encrypt = [](cipherInstance* c, const keyInstance* k,
                                   const std::uint8_t* in, int length,
                                   std::uint8_t* out) {
    return padEncrypt(c, k, in, length, out);
  };
  const keyInstance keys[] = {new_key(kKey128, 0), new_key(kKey128, 1)};
  const std::vector<std::uint8_t> input(64, 0x11);
  const struct {
    Operation operation;
    int mode;       // -1: no cipher object
    int direction;  // -1: no key object
    int length;     // -1: no input
    int result;
  } rows[] = {
      {blockEncrypt, -1, 0, 128, -5}, {blockEncrypt, kModeEcb, -1, 128, -5},
      {blockEncrypt, 1, 1, 128, -5},  {blockEncrypt, 2, 1, 128, -5},
      {blockEncrypt, 3, 1, 128, -5},  {blockEncrypt, 3, 1, -1, -5},
      {blockEncrypt, 0, 0, 128, -5},  {blockEncrypt, 4, 0, 128, -5},
      {blockEncrypt, 1, 0, -1, 0},    {blockEncrypt, 1, 0, 0, 0},
      {blockEncrypt, 2, 0, 127, 0},   {blockEncrypt, 2, 0, 200, 128},
      {blockDecrypt, -1, 1, 128, -5}, {blockDecrypt, 1, -1, 128, -5},
      {blockDecrypt, 1, 0, 128, -5},  {blockDecrypt, 2, 0, 128, -5},
      {blockDecrypt, 3, 0, 128, 128}, {blockDecrypt, 3, 1, 256, 256},
      {blockDecrypt, 1, 1, -1, 0},    {blockDecrypt, 1, 1, 383, 256},
      {pad_encrypt, -1, 0, 16, -5},   {pad_encrypt, 1, -1, 16, -5},
      {pad_encrypt, 1, 1, 16, -5},    {pad_encrypt, 3, 0, 16, -5},
      {pad_encrypt, 3, 0, -1, -5},    {pad_encrypt, 1, 0, -1, 0},
      {pad_encrypt, 2, 0, 16, 32},    {pad_encrypt, 2, 0, INT32_MAX, -8},
      {padDecrypt, -1, 1, 16, -5},    {padDecrypt, 1, -1, 16, -5},
      {padDecrypt, 1, 0, 16, -5},     {padDecrypt, 3, 1, 16, -5},
      {padDecrypt, 2, 1, -1, 0},      {padDecrypt, 2, 1, 0, 0},
      {padDecrypt, 2, 1, 17, -8},     {padDecrypt, 1, 1, 15, -8},
  };
  for (const auto& row : rows) {
    std::uint8_t output[64];
    cipherInstance object;
    object.mode = static_cast<std::uint8_t>(row.mode);
    cipherInstance* cipher = row.mode < 0 ? nullptr : &object;
    const keyInstance* key = row.direction < 0 ? nullptr : &keys[row.direction];
    const std::uint8_t* in = row.length < 0 ? nullptr : input.data();
    const int length = row.length < 0 ? 64 : row.length;
    EXPECT_EQ(row.operation(cipher, key, in, length, output), row.result)
        << "row " << &row - rows;
  }
}

}  // namespace
}  // namespace velprobe
