#include "modules/Crypto/c/key_agreement.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "modules/Crypto/c/primes.h"
#include "modules/Crypto/c/random.h"

namespace velprobe {
namespace {

using Limbs = std::vector<std::uint32_t>;

// The scripted source gives the script first and then a fixed pseudo-random
// sequence: the upper byte of x = 1664525 x + 1013904223 mod 2^32. It notes the
// size of each request.
struct {
  Limbs script;
  std::size_t position;
  std::uint32_t state;
  std::vector<std::size_t> requests;
} g_source;

void start_script(const Limbs& script, std::uint32_t seed = 1) {
  g_source = {script, 0, seed, {}};
}

void scripted(void* buffer, std::size_t count) {
  auto* bytes = static_cast<unsigned char*>(buffer);
  g_source.requests.push_back(count);
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t at = g_source.position++;
    if (at < 4 * g_source.script.size()) {
      bytes[i] =
          static_cast<unsigned char>(g_source.script[at / 4] >> 8 * (at % 4));
      continue;
    }
    g_source.state = g_source.state * 1664525 + 1013904223;
    bytes[i] = static_cast<unsigned char>(g_source.state >> 24);
  }
}

BigNumPtr number(const std::string& hex) {
  std::vector<std::uint8_t> bytes;
  const std::string even = (hex.size() % 2 != 0 ? "0" : "") + hex;
  for (std::size_t i = 0; i < even.size(); i += 2) {
    bytes.push_back(
        static_cast<std::uint8_t>(std::stoul(even.substr(i, 2), nullptr, 16)));
  }
  BigNumPtr num = bn_new(0, 0);
  EXPECT_FALSE(bn_set_data(num.get(), bytes.data(), bytes.size()));
  return num;
}

std::string hex_of(const BigNum* num) {
  if (num == nullptr) return "null";
  std::string hex;
  char limb[9];
  for (std::uint64_t i = num->len; i > 0; --i) {
    std::snprintf(limb, sizeof limb, hex.empty() ? "%x" : "%08x",
                  num->data[i - 1]);
    hex += limb;
  }
  return hex.empty() ? "0" : hex;
}

int open_urandom_handles() {
  int count = 0;
  DIR* directory = opendir("/proc/self/fd");
  while (const dirent* entry = readdir(directory)) {
    char target[PATH_MAX] = {};
    const std::string link = std::string("/proc/self/fd/") + entry->d_name;
    if (readlink(link.c_str(), target, sizeof target - 1) > 0 &&
        std::strcmp(target, "/dev/urandom") == 0) {
      ++count;
    }
  }
  closedir(directory);
  return count;
}

TEST(Random, UrandomIsReopenedAfterItsCount) {
  constexpr std::size_t kMost = 0x9FFFFF;
  std::vector<unsigned char> bytes(kMost + 1);
  for (int pass = 0; pass < 2; ++pass) {
    // The count may stand anywhere at first; a full load closes the handle.
    urandom_bytes(bytes.data(), kMost + 1);
    EXPECT_EQ(open_urandom_handles(), 0);
    urandom_bytes(bytes.data(), 0);
    EXPECT_EQ(open_urandom_handles(), 1);
    urandom_bytes(bytes.data(), kMost);
    EXPECT_EQ(open_urandom_handles(), 1) << "the limit itself is still allowed";
    urandom_bytes(bytes.data(), 1);
    EXPECT_EQ(open_urandom_handles(), 0);
  }
  // All of a buffer is filled: no stretch of 16 zero bytes is left.
  std::fill(bytes.begin(), bytes.end(), static_cast<unsigned char>(0));
  urandom_bytes(bytes.data(), bytes.size());
  const std::string filled(bytes.begin(), bytes.end());
  EXPECT_EQ(filled.find(std::string(16, '\0')), std::string::npos);
}

TEST(Random, PoorRandomMasksWhatIsBeyondTheRequest) {
  struct {
    std::uint64_t nbytes;
    std::size_t request;
    const char* value;
  } const kRows[] = {
      {0, 0, "0"},        {1, 4, "4"},         {3, 4, "20304"},
      {4, 4, "81020304"}, {5, 8, "881020304"},
  };
  for (const auto& row : kRows) {
    start_script({0x81020304, 0x05060708});
    const BigNumPtr num = bn_poor_random(row.nbytes, scripted);
    EXPECT_EQ(hex_of(num.get()), row.value);
    EXPECT_EQ(g_source.requests, std::vector<std::size_t>{row.request});
    EXPECT_EQ(num->size, 16u);
  }
  start_script({});
  EXPECT_EQ(bn_poor_random(20, scripted)->size, 32u) << "21 limbs asked for";
}

TEST(Random, PoorRandomSaysWhyItFailed) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(bn_poor_random(~std::uint64_t{1}, scripted), nullptr);
  EXPECT_EQ(bn_poor_random(~std::uint64_t{0}, scripted), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Cannot create bignum in bn_poor_random (length = "
            "18446744073709551614)\n"
            "length = 18446744073709551615, rc = -1\n");
}

TEST(Random, BelowDrawsFewBytesUntilOneFits) {
  struct {
    const char* bound;
    Limbs script;
    std::vector<std::size_t> requests;
    const char* value;
  } const kRows[] = {
      {"12c", {0xFFFFFF00, 0x12345607}, {4, 4}, "7"},
      {"12c", {0xFFFFFFFF}, {4}, "ff"},
      {"7", {7, 8, 6}, {4, 4, 4}, "6"},
      {"0", {}, {}, "null"},
      {"1", {}, {}, "null"},
  };
  for (const auto& row : kRows) {
    start_script(row.script);
    const BigNumPtr bound = number(row.bound);
    EXPECT_EQ(hex_of(bn_random_below(bound.get(), scripted).get()), row.value);
    EXPECT_EQ(g_source.requests, row.requests) << row.bound;
  }
  struct {
    std::uint64_t limbs;
    const char* value;
  } const kLengths[] = {{7, "ff"},
                        {8, "ffff"},
                        {64, "ffffffffffffffffff"},
                        {200, "ffffffffffffffffff"}};
  for (const auto& row : kLengths) {
    start_script(Limbs(3, 0xFFFFFFFF));
    const BigNumPtr bound = bn_power_of_two(32 * row.limbs - 1);
    EXPECT_EQ(hex_of(bn_random_below(bound.get(), scripted).get()), row.value);
  }
}

TEST(Random, RangeReducesIntoTheSpan) {
  start_script({0xFFFFFFFF, 2});
  const BigNumPtr low = number("100");
  const BigNumPtr high = number("100000100");
  EXPECT_EQ(hex_of(bn_random_range(low.get(), high.get(), scripted).get()),
            "1000000ff");
  EXPECT_EQ(g_source.requests, std::vector<std::size_t>{8});
  EXPECT_EQ(bn_random_range(high.get(), low.get(), scripted), nullptr);
  EXPECT_EQ(bn_random_range(low.get(), low.get(), scripted), nullptr);
}

TEST(Primes, TrialDivision) {
  EXPECT_EQ(kSmallPrimes[1027], 8191u);
  EXPECT_EQ(kSmallPrimes[1028], 0u);
  for (std::uint32_t n = 2; n < 100000; ++n) {
    std::uint32_t divisor = 2;
    while (divisor * divisor <= n && n % divisor != 0) ++divisor;
    const bool is_prime = divisor * divisor > n;
    ASSERT_EQ(bn_is_small_prime_free(bn_from_word(n).get()), is_prime) << n;
  }
  // Every table prime is found in a long number, and none where there is none.
  const BigNumPtr mersenne = bn_power_of_two(521);
  bn_sub_word(mersenne.get(), 1);
  EXPECT_TRUE(bn_is_small_prime_free(mersenne.get()));
  for (std::size_t i = 0; i < kNumSmallPrimes; ++i) {
    const BigNumPtr prime = bn_from_word(kSmallPrimes[i]);
    EXPECT_FALSE(
        bn_is_small_prime_free(bn_mul(mersenne.get(), prime.get()).get()));
  }
}

// Strong pseudoprimes: OEIS A014233 lists the smallest composite that passes
// for the first k prime bases.
TEST(Primes, MillerRabin) {
  struct {
    const char* n;
    std::vector<std::uint32_t> passes, fails;
  } const kRows[] = {
      {"2", {1, 2, 3}, {}},
      {"4", {}, {2, 3}},
      {"9", {1, 8}, {2, 3, 4, 5}},
      {"7ff", {2}, {3, 5}},                        // 2047 = 23 * 89
      {"14f5d5", {2, 3}, {5, 7}},                  // 1373653
      {"18271b1", {2, 3, 5}, {7}},                 // 25326001
      {"bfa17dc7", {2, 3, 5, 7}, {11}},            // 3215031751
      {"231", {}, {2, 3, 5, 7, 11, 13}},           // 561, a Carmichael number
      {"1fffffffffffffff", {2, 3, 5, 7, 11}, {}},  // 2^61 - 1
      {"ffffffff00000001", {2, 3, 7, 11}, {}},     // 2^64 - 2^32 + 1
  };
  for (const auto& row : kRows) {
    const BigNumPtr n = number(row.n);
    for (std::uint32_t witness : row.passes) {
      EXPECT_TRUE(bn_miller_rabin(n.get(), bn_from_word(witness).get()))
          << row.n << " witness " << witness;
    }
    for (std::uint32_t witness : row.fails) {
      EXPECT_FALSE(bn_miller_rabin(n.get(), bn_from_word(witness).get()))
          << row.n << " witness " << witness;
    }
  }
}

TEST(Primes, SearchFollowsTheDraws) {
  struct {
    const char *low, *high, *step;
    Limbs script;
    std::size_t draws;
    const char* prime;
  } const kRows[] = {
      // The first two draws are lowered to 99, below the range.
      {"65", "7f", "e", {0, 3, 12}, 3, "71"},
      // 115 and 121 are composite, 127 is the third candidate.
      {"6e", "80", "6", {5}, 1, "7f"},
      // From 115 the search leaves the range, and draws anew.
      {"64", "74", "6", {15, 3}, 2, "67"},
      {"80000000", "ffffffff", "2", {0}, 1, "8000000b"},
      // 104 is made odd first: 105 becomes 106, and 113 follows.
      {"64", "7f", "7", {4}, 1, "71"},
      // The range includes its upper end: 23 = 4 * 5 + 3 draws 21, then 23.
      {"14", "17", "2", {0}, 1, "17"},
  };
  for (const auto& row : kRows) {
    start_script(row.script);
    EXPECT_EQ(
        hex_of(bn_find_prime(number(row.low).get(), number(row.high).get(),
                             number(row.step).get(), scripted)
                   .get()),
        row.prime);
    EXPECT_EQ(g_source.requests, std::vector<std::size_t>(row.draws, 4));
  }
  const BigNumPtr three = bn_from_word(3);
  const BigNumPtr zero = bn_from_word(0);
  EXPECT_EQ(bn_find_prime(three.get(), three.get(), three.get(), scripted),
            nullptr);
  EXPECT_EQ(bn_find_prime(zero.get(), three.get(), zero.get(), scripted),
            nullptr);
}

// Worked out with another program's integers from the same byte sequence.
TEST(KeyAgreement, ParametersFollowTheDraws) {
  struct {
    std::uint32_t bits, seed;
    const char *modulus, *generator;
  } const kRows[] = {
      {64, 1, "fb3cd69814dae5a9", "2acb99d3129b1155"},
      {96, 2, "ebfb57037287eabb1d64762d", "98e36fc937f8da34e69ba666"},
      {160, 3, "fc1bfce1e9c8975d767982797c13d76a027a12ef",
       "8241d6b4ff3487cfeb93d01f0a5158f5f30fbb04"},
      {256, 4,
       "99e8ef7c66ae297f0ad5a4272692752ea3f37b0dc7e99e8a1d98ba1855808375",
       "2338898c153daaf8eeab4823b323271b75f2535b5d1274f2c17c443f1c661fb5"},
  };
  for (const auto& row : kRows) {
    start_script({}, row.seed);
    BigNumPtr modulus, generator;
    dh_generate_parameters(row.bits, modulus, generator, scripted);
    EXPECT_EQ(hex_of(modulus.get()), row.modulus);
    EXPECT_EQ(hex_of(generator.get()), row.generator);
  }
  BigNumPtr modulus = bn_from_word(1);
  BigNumPtr generator = bn_from_word(1);
  dh_generate_parameters(2, modulus, generator, scripted);
  EXPECT_EQ(modulus, nullptr);
  EXPECT_EQ(generator, nullptr);
}

TEST(KeyAgreement, KeysFollowTheDraws) {
  struct {
    const char *modulus, *generator;
    Limbs script;
    std::size_t draws;
    const char *private_key, *public_key;
  } const kRows[] = {
      {"17", "5", {6}, 1, "6", "8"},
      // 5^11 = 22 = -1 and 5^22 = 1 (mod 23) are weak.
      {"17", "5", {11, 22, 6}, 3, "6", "8"},
      // Every power above the second is 0 modulo 8; 0 gives 1.
      {"8", "2", {9, 0, 1}, 3, "1", "2"},
      // 6^2 = 6 (mod 10) is its own square, and 2^4 = 6.
      {"a", "2", {4, 3}, 2, "3", "8"},
  };
  for (const auto& row : kRows) {
    start_script(row.script);
    BigNumPtr public_key, private_key;
    EXPECT_FALSE(dh_generate_key(public_key, private_key,
                                 number(row.modulus).get(),
                                 number(row.generator).get(), scripted));
    EXPECT_EQ(hex_of(private_key.get()), row.private_key);
    EXPECT_EQ(hex_of(public_key.get()), row.public_key);
    EXPECT_EQ(g_source.requests, std::vector<std::size_t>(row.draws, 4));
  }
}

TEST(KeyAgreement, BothSidesReachTheSameSecret) {
  BigNumPtr modulus, generator;
  dh_generate_parameters(192, modulus, generator, urandom_bytes);
  BigNumPtr public_a, private_a, public_b, private_b;
  ASSERT_FALSE(dh_generate_key(public_a, private_a, modulus.get(),
                               generator.get(), urandom_bytes));
  ASSERT_FALSE(dh_generate_key(public_b, private_b, modulus.get(),
                               generator.get(), urandom_bytes));
  EXPECT_EQ(
      hex_of(
          bn_power_mod(public_a.get(), private_b.get(), modulus.get()).get()),
      hex_of(
          bn_power_mod(public_b.get(), private_a.get(), modulus.get()).get()));
  EXPECT_FALSE(bn_equal(private_a.get(), private_b.get()));

  // The private exponent is as long as the generator, not as the modulus.
  start_script({});
  const BigNumPtr two = bn_from_word(2);
  ASSERT_FALSE(
      dh_generate_key(public_a, private_a, modulus.get(), two.get(), scripted));
  EXPECT_EQ(g_source.requests, std::vector<std::size_t>{4});
}

TEST(KeyAgreement, Failures) {
  constexpr const char* kNoPublicValue =
      "Error calculating public part of shared secret key";
  struct {
    const char *modulus, *generator;
    const char* private_key;
  } const kRows[] = {
      {"0", "5", "6"},      // no power can be computed: the private part stays
      {"17", "0", "null"},  // nothing but weak powers
      {"17", "1", "null"},  {"17", "16", "null"},
      {"17", "17", "null"}, {"1", "5", "null"},
  };
  for (const auto& row : kRows) {
    start_script({6});
    BigNumPtr public_key = bn_from_word(1);
    BigNumPtr private_key;
    const ErrorText error =
        dh_generate_key(public_key, private_key, number(row.modulus).get(),
                        number(row.generator).get(), scripted);
    EXPECT_STREQ(error.c_str(), kNoPublicValue);
    EXPECT_EQ(public_key, nullptr);
    EXPECT_EQ(hex_of(private_key.get()), row.private_key);
  }
}

}  // namespace
}  // namespace velprobe
