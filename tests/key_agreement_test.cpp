#include "modules/Crypto/key_agreement.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "modules/Crypto/primes.h"
#include "modules/Crypto/random.h"
#include "support/big_numbers.h"
#include "support/vectors.h"

namespace velprobe {
namespace {

using Limbs = std::vector<std::uint32_t>;
using Sizes = std::vector<std::size_t>;

// The scripted source gives the script first and then a fixed pseudo-random
// sequence: the upper byte of x = 1664525 x + 1013904223 mod 2^32. It notes the
// size of each request.
struct {
  std::string bytes;
  Sizes requests;
} g_source;

void start_script(const Limbs& script, std::uint32_t x = 1) {
  g_source = {};
  for (std::uint32_t word : script) {
    for (int shift = 0; shift < 32; shift += 8) {
      g_source.bytes += static_cast<char>(word >> shift);
    }
  }
  for (int i = 0; i < 10000; ++i) {
    x = x * 1664525 + 1013904223;
    g_source.bytes += static_cast<char>(x >> 24);
  }
}

void scripted(void* buffer, std::size_t count) {
  g_source.requests.push_back(count);
  g_source.bytes.copy(static_cast<char*>(buffer), count);
  g_source.bytes.erase(0, count);
}

int open_urandom_handles() {
  int count = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;  // the walk's own handle has gone by then
    count += std::filesystem::read_symlink(entry, ignored) == "/dev/urandom";
  }
  return count;
}

TEST(Random, UrandomIsReopenedAfterItsCount) {
  constexpr std::size_t kMost = 0x9FFFFF;
  std::string bytes(kMost + 1, '\0');
  // The count may stand anywhere at first; a full load closes the handle.
  urandom_bytes(bytes.data(), kMost + 1);
  EXPECT_EQ(open_urandom_handles(), 0);
  EXPECT_EQ(bytes.find(std::string(16, '\0')), bytes.npos) << "left unfilled";
  urandom_bytes(bytes.data(), kMost);
  EXPECT_EQ(open_urandom_handles(), 1) << "the limit itself is still allowed";
  urandom_bytes(bytes.data(), 1);
  EXPECT_EQ(open_urandom_handles(), 0);
}

TEST(Random, NumbersFollowTheDraws) {
  const auto below = [](std::string bound, std::size_t zero_limbs = 0) {
    bound.append(8 * zero_limbs, '0');
    return [=] { return bn_random_below(number(bound).get(), scripted); };
  };
  const auto range = [](const char* low, const char* high) {
    return [=] {
      return bn_random_range(number(low).get(), number(high).get(), scripted);
    };
  };
  struct {
    const char* name;
    std::function<BigNumPtr()> draw;
    Limbs script;
    Sizes requests;
    const char* value;
  } const kRows[] = {
      // What is beyond the request is masked.
      {"poor, 3 bytes",
       [] { return bn_poor_random(3, scripted); },
       {0x81020304},
       {4},
       "20304"},
      {"poor, 5 bytes",
       [] { return bn_poor_random(5, scripted); },
       {0x81020304, 0x05060708},
       {8},
       "881020304"},
      // One byte, and one more for every eight limbs, until one fits.
      {"below 300", below("12c"), {0xFFFFFF00, 0x12345607}, {4, 4}, "7"},
      {"below 7", below("7"), {7, 8, 6}, {4, 4, 4}, "6"},
      {"below 1", below("1"), {}, {}, "null"},
      {"below 7 limbs", below("1", 6), Limbs(1, ~0u), {4}, "ff"},
      {"below 8 limbs", below("1", 7), Limbs(1, ~0u), {4}, "ffff"},
      {"below 200 limbs",
       below("1", 199),
       Limbs(3, ~0u),
       {12},
       "ffffffffffffffffff"},
      {"range", range("100", "100000100"), {0xFFFFFFFF, 2}, {8}, "1000000ff"},
      {"empty range", range("100", "100"), {}, {}, "null"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    start_script(row.script);
    EXPECT_EQ(digits_of(row.draw()), row.value);
    EXPECT_EQ(g_source.requests, row.requests);
  }
}

// Also as a factor of a number whose only factor is itself.
TEST(Primes, TrialDivision) {
  const BigNumPtr mersenne = number("1" + std::string(130, 'f'));  // 2^521 - 1
  std::vector<bool> is_composite(10000);
  for (std::uint32_t n = 2; n < is_composite.size(); ++n) {
    const bool is_prime = !is_composite[n];
    for (auto at = n; at < is_composite.size(); at += n) {
      is_composite[at] = true;
    }
    const BigNumPtr product = bn_mul(mersenne.get(), bn_from_word(n).get());
    ASSERT_EQ(bn_is_small_prime_free(bn_from_word(n).get()), is_prime) << n;
    ASSERT_EQ(bn_is_small_prime_free(product.get()), is_prime && n > 8191) << n;
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
      // 104 is made odd first: 105 becomes 106, and 113 follows.
      {"64", "7f", "7", {4}, 1, "71"},
      // The range includes its upper end: 23 = 4 * 5 + 3 draws 21, then 23.
      {"14", "17", "2", {0}, 1, "17"},
      {"0", "3", "2", {0}, 1, "3"},
      {"3", "3", "3", {}, 0, "null"},
      {"0", "3", "0", {}, 0, "null"},
  };
  for (const auto& row : kRows) {
    start_script(row.script);
    EXPECT_EQ(
        digits_of(bn_find_prime(number(row.low).get(), number(row.high).get(),
                                number(row.step).get(), scripted)),
        row.prime);
    EXPECT_EQ(g_source.requests, Sizes(row.draws, 4)) << row.low;
  }
}

// Worked out with another program's integers from the same byte sequence.
TEST(KeyAgreement, ParametersFollowTheDraws) {
  struct {
    std::uint32_t bits, seed;
    const char *modulus, *generator;
  } const kRows[] = {
      {2, 1, "null", "null"},
      {256, 4,
       "99e8ef7c66ae297f0ad5a4272692752ea3f37b0dc7e99e8a1d98ba1855808375",
       "2338898c153daaf8eeab4823b323271b75f2535b5d1274f2c17c443f1c661fb5"},
  };
  for (const auto& row : kRows) {
    start_script({}, row.seed);
    BigNumPtr modulus = bn_from_word(1), generator = bn_from_word(1);
    dh_generate_parameters(row.bits, modulus, generator, scripted);
    EXPECT_EQ(digits_of(modulus), row.modulus);
    EXPECT_EQ(digits_of(generator), row.generator);
  }
}

TEST(KeyAgreement, KeysFollowTheDraws) {
  constexpr const char* kNoPublicValue =
      "Error calculating public part of shared secret key";
  struct {
    const char *modulus, *generator;
    Limbs script;
    Sizes draws;
    const char *private_key, *public_key;
  } const kRows[] = {
      // 5^11 = 22 = -1 and 5^22 = 1 (mod 23) are weak.
      {"17", "5", {11, 22, 6}, {4, 4, 4}, "6", "8"},
      // Every power above the second is 0 modulo 8; 0 gives 1.
      {"8", "2", {9, 0, 1}, {4, 4, 4}, "1", "2"},
      // 6^2 = 6 (mod 10) is its own square, and 2^4 = 6.
      {"a", "2", {4, 3}, {4, 4}, "3", "8"},
      // The private number is as long as the generator, not as the modulus.
      {"17", "500000000", {5, 0}, {8}, "5", "f"},
      // No power can be computed: the private part stays.
      {"0", "5", {6}, {4}, "6", "null"},
      // Nothing but weak powers.
      {"17", "0", {}, Sizes(128, 0), "null", "null"},
      {"c", "a", {}, Sizes(128, 4), "null", "null"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(std::string("modulus ") + row.modulus + ", generator " +
                 row.generator);
    start_script(row.script);
    BigNumPtr public_key = bn_from_word(1), private_key;
    const ErrorText error =
        dh_generate_key(public_key, private_key, number(row.modulus).get(),
                        number(row.generator).get(), scripted);
    EXPECT_STREQ(error.c_str(), public_key ? nullptr : kNoPublicValue);
    EXPECT_EQ(digits_of(private_key), row.private_key);
    EXPECT_EQ(digits_of(public_key), row.public_key);
    EXPECT_EQ(g_source.requests, row.draws);
  }
}

// Both sides get the same secret, in a group of the size that is used.
TEST(KeyAgreement, SidesOfRealSizeAgree) {
  start_script({}, 2);
  BigNumPtr modulus, generator;
  dh_generate_parameters(1024, modulus, generator, scripted);
  ASSERT_TRUE(modulus && generator);
  EXPECT_EQ(bn_top_bit(modulus.get()), 1023u);
  BigNumPtr public_keys[2], private_keys[2];
  for (int side : {0, 1}) {
    ASSERT_FALSE(dh_generate_key(public_keys[side], private_keys[side],
                                 modulus.get(), generator.get(),
                                 urandom_bytes));
  }
  const auto secret_of = [&](int side) {
    return digits_of(bn_power_mod(public_keys[1 - side].get(),
                                  private_keys[side].get(), modulus.get()));
  };
  EXPECT_EQ(secret_of(0), secret_of(1));
  EXPECT_NE(digits_of(public_keys[0]), digits_of(public_keys[1]));
}

TEST(Primes, JudgesThePublicNumbers) {
  SKIP_WITHOUT_VECTORS();
  const BigNumPtr one = bn_from_word(1);
  std::map<std::string, int> num_cases;
  for (const Vector& vector : read_vectors("wycheproof/primality_test.json")) {
    // Two's complement: a leading digit from 8 on is negative.
    if (vector["result"].empty() || vector["value"][0] >= '8') continue;
    const BigNumPtr n = number(vector["value"]);
    if (bn_at_most_word(n.get(), 1)) continue;
    ++num_cases[vector["result"]];
    bool passed = true;
    for (int round = 0; round < 20 && passed; ++round) {
      passed = bn_miller_rabin(
          n.get(), bn_random_range(one.get(), n.get(), urandom_bytes).get());
    }
    EXPECT_EQ(passed, vector["result"] == "valid") << vector.where;
  }
  EXPECT_GT(num_cases["valid"], 60);
  EXPECT_GT(num_cases["invalid"], 200);
}

}  // namespace
}  // namespace velprobe
