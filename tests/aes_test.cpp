#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
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

const std::string kPlain =
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";

TEST_P(Aes, GivesThePublishedBlocks) {
  const struct {
    const char* source;
    std::uint8_t mode;
    std::string key, plain;
    std::string cipher;  // what the source gives of it
  } rows[] = {
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
  for (const auto& row : rows) {
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

// One long call agrees with calls of a few blocks each, in place, of lengths on
// either side of every lane count.
TEST_P(Aes, CutsAndOverlapsDoNotMatter) {
  std::string text;
  for (int i = 0; i < 29 * 16; ++i) text += static_cast<char>(i * i + i / 7);
  for (std::uint8_t mode : {kModeEcb, kModeCbc, kModeCfb1}) {
    for (std::uint8_t direction : {kDirEncrypt, kDirDecrypt}) {
      const keyInstance key = new_key(kKey192, direction);
      cipherInstance cipher = new_cipher(mode, kVector);
      const std::string whole = run_blocks(direction, &cipher, key, text);
      ASSERT_EQ(whole.size(), text.size());

      cipher = new_cipher(mode, kVector);
      const auto crypt = direction == kDirEncrypt ? blockEncrypt : blockDecrypt;
      std::string in_place = text;
      auto* at = reinterpret_cast<std::uint8_t*>(in_place.data());
      for (int blocks : {1, 2, 3, 4, 8, 11}) {
        at += crypt(&cipher, &key, at, 128 * blocks, at) / 8;
      }
      EXPECT_EQ(in_place, whole);
      if (mode != kModeEcb) {
        const std::string& ciphertext = direction == 0 ? whole : text;
        EXPECT_EQ(vector_of(cipher), ciphertext.substr(28 * 16));
      }
    }
  }
}

// Expected values from FIPS 197, C.1: the states before and inside the rounds.
TEST_P(Aes, ReducedRoundsEndWhereTheDirectionSays) {
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
    SCOPED_TRACE(&row - rows);
    const auto update = [&row](auto* object, auto* key, auto* in, int size,
                               auto* out) {
      return size * cipherUpdateRounds(object, key, in, 0, out, row.rounds);
    };
    const keyInstance key = new_key(kVector, row.direction);
    const std::string input = row.direction == kDirEncrypt ? plain : encrypted;
    EXPECT_EQ(to_hex(run(update, &cipher, key, from_hex(input), 1)),
              row.output);
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
      const int size = mode == kModeEcb ? row.ecb : row.cbc;
      EXPECT_EQ(run(padDecrypt, &cipher, decrypt, text, 1),
                size < 0 ? "failed -8"
                         : plain.substr(0, static_cast<std::size_t>(size)));
    }
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
  std::uint8_t block[16] = {};
  cipherInstance cipher = new_cipher(kModeCbc, kVector);
  EXPECT_EQ(blockEncrypt(&cipher, &key, block, 128, block), kBadCipherState)
      << "no stale schedule after a bad key";
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

// The operations run on a stack that can be searched afterwards.
TEST_P(Aes, LeavesNoPlainTextOnTheStack) {
  std::vector<char> stack(1 << 20);
  const std::string plain = from_hex(kPlain).substr(0, 60);
  std::function<void()> job;
  const auto run_job = [](void* given) -> void* {
    (*static_cast<std::function<void()>*>(given))();
    return nullptr;
  };
  for (const std::uint8_t mode : {kModeEcb, kModeCbc}) {
    const keyInstance keys[] = {new_key(kKey128, kDirEncrypt),
                                new_key(kKey128, kDirDecrypt)};
    cipherInstance ciphers[] = {new_cipher(mode, ""), new_cipher(mode, "")};
    std::string cipher_text, back;
    job = [&] {
      cipher_text = run(padEncrypt, &ciphers[0], keys[0], plain, 1);
      back = run(padDecrypt, &ciphers[1], keys[1], cipher_text, 1);
    };
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, stack.data(), stack.size());
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, run_job, &job), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    ASSERT_EQ(back, plain);

    // As bytes, and as the words that the portable path makes of them.
    std::string found;
    for (std::size_t at = 0; at < plain.size(); at += 4) {
      std::string word = plain.substr(at, 4);
      for (int order = 0; order < 2; ++order) {
        if (std::search(stack.begin(), stack.end(), word.begin(), word.end()) !=
            stack.end())
          found += to_hex(word) + " ";
        std::reverse(word.begin(), word.end());
      }
    }
    EXPECT_EQ(found, "") << "mode " << int{mode};
  }
}

TEST(AesResults, OfOperations) {
  using Operation = std::function<int(cipherInstance*, const keyInstance*,
                                      const std::uint8_t*, int, std::uint8_t*)>;
  const keyInstance keys[] = {new_key(kKey128, kDirEncrypt),
                              new_key(kKey128, kDirDecrypt)};
  cipherInstance unset, cbc = new_cipher(kModeCbc, kVector);
  cipherInstance cfb1 = new_cipher(kModeCfb1, kVector);
  const std::uint8_t in[64] = {};
  std::uint8_t out[64];
  const std::pair<Operation, std::uint8_t> rows[] = {
      {blockEncrypt, kDirEncrypt},
      {blockDecrypt, kDirDecrypt},
      {padEncrypt, kDirEncrypt},
      {padDecrypt, kDirDecrypt},
  };
  for (const auto& [run_on, direction] : rows) {
    const keyInstance* key = &keys[direction];
    EXPECT_EQ(run_on(nullptr, key, in, 32, out), kBadCipherState);
    EXPECT_EQ(run_on(&unset, key, in, 32, out), kBadCipherState);
    EXPECT_EQ(run_on(&cbc, nullptr, in, 32, out), kBadCipherState);
    EXPECT_EQ(run_on(&cbc, &keys[1 - direction], in, 32, out), kBadCipherState);
    EXPECT_EQ(run_on(&cbc, key, nullptr, 32, out), 0);
    EXPECT_EQ(run_on(&cbc, key, in, 0, out), 0);
  }
  EXPECT_EQ(blockEncrypt(&cbc, &keys[0], in, 127, out), 0);
  EXPECT_EQ(blockEncrypt(&cbc, &keys[0], in, 200, out), 128);
  EXPECT_EQ(padEncrypt(&cbc, &keys[0], in, INT32_MAX, out), kBadData);
  EXPECT_EQ(padDecrypt(&cbc, &keys[1], in, 17, out), kBadData);
  // CFB1 runs the cipher forwards both ways, and knows no padding.
  EXPECT_EQ(blockDecrypt(&cfb1, &keys[0], in, 128, out), 128);
  EXPECT_EQ(blockDecrypt(&cfb1, &keys[1], in, 128, out), 128);
  EXPECT_EQ(blockEncrypt(&cfb1, &keys[1], in, 128, out), kBadCipherState);
  EXPECT_EQ(padEncrypt(&cfb1, &keys[0], in, 16, out), kBadCipherState);
  EXPECT_EQ(padDecrypt(&cfb1, &keys[1], in, 16, out), kBadCipherState);
  EXPECT_EQ(cipherUpdateRounds(nullptr, &keys[0], in, 16, out, 1),
            kBadCipherState);
  EXPECT_EQ(cipherUpdateRounds(&cbc, nullptr, in, 16, out, 1), kBadCipherState);
}

}  // namespace
}  // namespace velprobe
