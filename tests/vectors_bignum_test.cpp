// The big numbers against the public vectors: arithmetic, the key agreement's
// powers, and primality.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>

#include "big_numbers.h"
#include "modules/Crypto/c/primes.h"
#include "vectors.h"

namespace velprobe {
namespace {

// Case is one vector with its fields as numbers.
struct Case {
  BigNumPtr operator()(const char* field) const {
    EXPECT_NE(vector[field], "") << field;
    return number(vector[field]);
  }
  // expect compares a result with a field, whose zeros in front do not count.
  void expect(const char* field, const BigNumPtr& result) const {
    EXPECT_EQ(hex_of(result), hex_of((*this)(field)))
        << field << " of " << vector.where;
  }
  const Vector& vector;
};

void check_quotient(const Case& test) {
  const BigNumPtr a = test("A"), b = test("B");
  test.expect("Quotient", bn_div(a.get(), b.get()));
  const BigNumPtr scratch = bn_new(0, std::max(a->len, b->len) + 1);
  EXPECT_EQ(base_mod_old_big(a.get(), b.get(), scratch.get()), 0);
  test.expect("Remainder", a);
}

void check_product(const Case& test) {
  const BigNumPtr a = test("A");
  if (!test.vector["Square"].empty()) {
    const BigNumPtr square = bn_new(0, 2 * a->len);
    base_set_square(square.get(), a.get());
    test.expect("Square", square);
    test.expect("Square", bn_mul(a.get(), a.get()));
  } else {
    test.expect("Product", bn_mul(a.get(), test("B").get()));
    test.expect("Product", bn_mul(test("B").get(), a.get()));
  }
}

void check_sum(const Case& test) {
  const BigNumPtr a = test("A"), b = test("B");
  const BigNumPtr sum = bn_copy(a.get(), std::max(a->len, b->len) + 1);
  ASSERT_EQ(bn_add(sum.get(), b.get()), 0);
  test.expect("Sum", sum);
  EXPECT_EQ(bn_sub(sum.get(), b.get()), 0u);
  test.expect("A", sum);
}

void check_shift(const Case& test) {
  const BigNumPtr a = test("A");
  const std::string& places = test.vector["N"];
  const std::uint64_t n = places.empty() ? 1 : std::stoull(places, nullptr, 16);
  const BigNumPtr shifted = bn_copy(a.get(), a->len + n / 32 + 1);
  if (!test.vector["RShift"].empty()) {
    bn_shift_right(shifted.get(), n);
    test.expect("RShift", shifted);
    return;
  }
  EXPECT_EQ(bn_shift_left(shifted.get(), n), 0);
  test.expect(places.empty() ? "LShift1" : "LShift", shifted);
}

void check_mod_exp(const Case& test) {
  const BigNumPtr e = test("E"), m = test("M");
  // Modulo 1 an exponent of 0 gives 1 here.
  if (e->len == 0 && bn_equal_word(m.get(), 1)) return;
  test.expect("ModExp", bn_power_mod(test("A").get(), e.get(), m.get()));
}

void check_miller_rabin(const Case& test) {
  EXPECT_EQ(bn_miller_rabin(test("W").get(), test("B").get()),
            test.vector["Result"] == "PossiblyPrime")
      << test.vector.where;
}

TEST(BigNumVectors, Arithmetic) {
  SKIP_WITHOUT_VECTORS();
  struct {
    const char* file;
    void (*check)(const Case&);
    int num_cases;
  } const kRows[] = {
      {"quotient_tests.txt", check_quotient, 180},
      {"product_tests.txt", check_product, 114},
      {"sum_tests.txt", check_sum, 483},
      {"shift_tests.txt", check_shift, 501},
      {"mod_exp_tests.txt", check_mod_exp, 127},
      {"miller_rabin_tests.txt", check_miller_rabin, 72},
  };
  for (const auto& row : kRows) {
    int num_cases = 0;
    for (const Vector& vector :
         read_vectors(std::string("bignum-boringssl/") + row.file)) {
      const bool negative =
          std::any_of(vector.fields.begin(), vector.fields.end(),
                      [](const auto& field) { return field.second[0] == '-'; });
      if (negative) continue;
      row.check({vector});
      ++num_cases;
    }
    EXPECT_EQ(num_cases, row.num_cases) << row.file;
  }
}

TEST(BigNumVectors, DiffieHellman) {
  SKIP_WITHOUT_VECTORS();
  std::map<std::string, Vector> keys;
  int num_secrets = 0;
  for (const Vector& vector : read_vectors("dh/boringssl_evp_dh_tests.txt")) {
    if (!vector["DHKey"].empty()) keys[vector["DHKey"]] = vector;
    if (vector["Output"].empty()) continue;
    const Case own{keys.at(vector["Derive"])};
    const Case peer{keys.at(vector["DerivePeer"])};
    const auto power = [&own](const BigNumPtr& base) {
      return bn_power_mod(base.get(), own("Private").get(), own("P").get());
    };
    own.expect("Public", power(own("G")));
    Case{vector}.expect("Output", power(peer("Public")));
    ++num_secrets;
  }
  EXPECT_GT(num_secrets, 4);
}

TEST(BigNumVectors, Primality) {
  SKIP_WITHOUT_VECTORS();
  std::map<std::string, int> num_cases;
  for (const Vector& vector : read_vectors("wycheproof/primality_test.json")) {
    // Two's complement: a leading digit from 8 on is negative.
    if (vector["result"].empty() || vector["value"][0] >= '8') continue;
    const BigNumPtr n = number(vector["value"]);
    if (bn_at_most_word(n.get(), 1)) continue;
    ++num_cases[vector["result"]];
    bool passed = true;
    for (int round = 0; round < 20 && passed; ++round) {
      const BigNumPtr witness = bn_equal_word(n.get(), 2)
                                    ? bn_from_word(1)
                                    : bn_random_below(n.get(), urandom_bytes);
      passed = bn_miller_rabin(n.get(), witness.get());
    }
    EXPECT_EQ(passed, vector["result"] == "valid") << vector.where;
  }
  EXPECT_GT(num_cases["valid"], 60);
  EXPECT_GT(num_cases["invalid"], 200);
}

}  // namespace
}  // namespace velprobe
