// Public test vectors, read from the folder that VELPROBE_VECTORS names.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "modules/Crypto/c/bignum.h"
#include "modules/Crypto/c/primes.h"

namespace velprobe {
namespace {

using Fields = std::map<std::string, std::string>;

BigNumPtr number(const std::string& hex) {
  std::vector<std::uint8_t> bytes;
  const std::string even = (hex.size() % 2 != 0 ? "0" : "") + hex;
  for (std::size_t i = 0; i < even.size(); i += 2) {
    bytes.push_back(
        static_cast<std::uint8_t>(std::stoul(even.substr(i, 2), nullptr, 16)));
  }
  BigNumPtr num = bn_new(0, (bytes.size() + 3) / 4);
  EXPECT_FALSE(bn_set_data(num.get(), bytes.data(), bytes.size()));
  return num;
}

// for_each_case runs a check for each block of "key = value" lines without a
// minus sign, and returns how many there were.
int for_each_case(const std::string& file,
                  const std::function<void(const Fields&)>& check) {
  std::ifstream stream(std::string(VELPROBE_VECTORS) + "/" + file);
  EXPECT_TRUE(stream) << file;
  int count = 0;
  Fields fields;
  bool negative = false;
  for (std::string line; !stream.eof();) {
    std::getline(stream, line);
    const std::size_t equals = line.find(" = ");
    if (line.empty() && !fields.empty()) {
      if (!negative) check(fields), ++count;
      fields.clear();
      negative = false;
    } else if (line[0] != '#' && equals != std::string::npos) {
      const std::string value =
          line.substr(line.find_first_not_of(' ', equals + 2));
      negative |= value[0] == '-';
      fields[line.substr(0, equals)] = value;
    }
  }
  return count;
}

class Vectors : public testing::Test {
  void SetUp() override {
    if (*VELPROBE_VECTORS == '\0') {
      GTEST_SKIP() << "no folder of vectors: configure with VELPROBE_VECTORS";
    }
  }
};

BigNumPtr modulo(BigNumPtr a, const BigNum* m) {
  const BigNumPtr scratch = bn_new(0, std::max(a->len, m->len) + 1);
  EXPECT_EQ(base_mod_old_big(a.get(), m, scratch.get()), 0);
  return a;
}

void check_quotient(const Fields& fields) {
  const BigNumPtr a = number(fields.at("A"));
  const BigNumPtr b = number(fields.at("B"));
  EXPECT_TRUE(bn_equal(bn_div(a.get(), b.get()).get(),
                       number(fields.at("Quotient")).get()));
  EXPECT_TRUE(bn_equal(modulo(bn_dup(a.get()), b.get()).get(),
                       number(fields.at("Remainder")).get()));
}

void check_product(const Fields& fields) {
  const BigNumPtr a = number(fields.at("A"));
  if (fields.count("Square") != 0) {
    const BigNumPtr square = number(fields.at("Square"));
    EXPECT_TRUE(bn_equal(bn_mul(a.get(), a.get()).get(), square.get()));
    const BigNumPtr result = bn_new(0, 2 * a->len);
    base_set_square(result.get(), a.get());
    EXPECT_TRUE(bn_equal(result.get(), square.get()));
  } else {
    const BigNumPtr b = number(fields.at("B"));
    const BigNumPtr product = number(fields.at("Product"));
    EXPECT_TRUE(bn_equal(bn_mul(a.get(), b.get()).get(), product.get()));
    EXPECT_TRUE(bn_equal(bn_mul(b.get(), a.get()).get(), product.get()));
  }
}

void check_sum(const Fields& fields) {
  const BigNumPtr a = number(fields.at("A"));
  const BigNumPtr b = number(fields.at("B"));
  const BigNumPtr sum = bn_copy(a.get(), std::max(a->len, b->len) + 1);
  ASSERT_EQ(bn_add(sum.get(), b.get()), 0);
  EXPECT_TRUE(bn_equal(sum.get(), number(fields.at("Sum")).get()));
  EXPECT_EQ(bn_sub(sum.get(), b.get()), 0u);
  EXPECT_TRUE(bn_equal(sum.get(), a.get()));
}

void check_mod_exp(const Fields& fields) {
  const BigNumPtr e = number(fields.at("E"));
  const BigNumPtr m = number(fields.at("M"));
  // Modulo 1 an exponent of 0 gives 1 here.
  if (e->len == 0 && bn_equal_word(m.get(), 1)) return;
  EXPECT_TRUE(bn_equal(
      bn_power_mod(number(fields.at("A")).get(), e.get(), m.get()).get(),
      number(fields.at("ModExp")).get()));
}

void check_miller_rabin(const Fields& fields) {
  EXPECT_EQ(bn_miller_rabin(number(fields.at("W")).get(),
                            number(fields.at("B")).get()),
            fields.at("Result") == "PossiblyPrime")
      << fields.at("W") << " " << fields.at("B");
}

TEST_F(Vectors, BigNumbers) {
  struct {
    const char* file;
    void (*check)(const Fields&);
    int cases;
  } const kRows[] = {
      {"quotient_tests.txt", check_quotient, 180},
      {"product_tests.txt", check_product, 114},
      {"sum_tests.txt", check_sum, 483},
      {"mod_exp_tests.txt", check_mod_exp, 127},
      {"miller_rabin_tests.txt", check_miller_rabin, 72},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.file);
    EXPECT_EQ(
        for_each_case(std::string("bignum-boringssl/") + row.file, row.check),
        row.cases);
  }
}

TEST_F(Vectors, DiffieHellman) {
  std::ifstream stream(std::string(VELPROBE_VECTORS) +
                       "/dh/boringssl_evp_dh_tests.txt");
  ASSERT_TRUE(stream);
  std::map<std::string, Fields> keys;
  Fields* block = nullptr;
  Fields derivation;
  int secrets = 0;
  for (std::string line; std::getline(stream, line);) {
    const std::size_t equals = line.find(" = ");
    if (line.empty() || line[0] == '#' || equals == std::string::npos) continue;
    const std::string key = line.substr(0, equals);
    const std::string value = line.substr(equals + 3);
    if (key == "DHKey") block = &keys[value];
    if (key == "Derive") block = &derivation;
    (*block)[key] = value;
    if (key != "Output") continue;

    const Fields& own = keys.at(derivation.at("Derive"));
    const Fields& peer = keys.at(derivation.at("DerivePeer"));
    const BigNumPtr modulus = number(own.at("P"));
    const BigNumPtr exponent = number(own.at("Private"));
    const auto power = [&](const std::string& base) {
      return bn_power_mod(number(base).get(), exponent.get(), modulus.get());
    };
    EXPECT_TRUE(
        bn_equal(power(own.at("G")).get(), number(own.at("Public")).get()));
    EXPECT_TRUE(bn_equal(power(peer.at("Public")).get(), number(value).get()));
    ++secrets;
  }
  EXPECT_GT(secrets, 4);
}

TEST_F(Vectors, WycheproofPrimality) {
  std::ifstream stream(std::string(VELPROBE_VECTORS) +
                       "/wycheproof/primality_test.json");
  std::stringstream text;
  text << stream.rdbuf();
  const std::string json = text.str();
  const std::regex pattern(
      "\"value\": *\"([0-9a-f]+)\",\\s*\"result\": *\"(valid|invalid)\"");
  int primes = 0;
  int composites = 0;
  for (std::sregex_iterator it(json.begin(), json.end(), pattern), end;
       it != end; ++it) {
    const std::string hex = (*it)[1];
    // Hexadecimal two's complement: a leading digit from 8 on is negative.
    if (hex[0] >= '8') continue;
    const BigNumPtr n = number(hex);
    if (bn_at_most_word(n.get(), 1)) continue;
    const bool is_prime = (*it)[2] == "valid";
    (is_prime ? primes : composites) += 1;
    bool passed = true;
    for (int round = 0; round < 20 && passed; ++round) {
      const BigNumPtr witness = bn_equal_word(n.get(), 2)
                                    ? bn_from_word(1)
                                    : bn_random_below(n.get(), urandom_bytes);
      passed = bn_miller_rabin(n.get(), witness.get());
    }
    EXPECT_EQ(passed, is_prime) << hex;
  }
  EXPECT_GT(primes, 60);
  EXPECT_GT(composites, 200);
}

}  // namespace
}  // namespace velprobe
