// Big-number arithmetic beside GMP's and libcrypto's, by the size of the
// operands in bits. In exponentiation the rivals go through the exponent in
// windows of several bits with a table of powers; this system takes one bit at
// a time, without a table. Like it, power_mod_gmp_sec and power_mod_libcrypto
// do not tell the exponent by their time.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include "modules/Crypto/bignum.h"
#ifdef VELPROBE_HAVE_GMP
#include <gmp.h>
#endif
#ifdef VELPROBE_HAVE_OPENSSL
#include <openssl/bn.h>
#endif

namespace velprobe {
namespace {

using Bytes = std::vector<std::uint8_t>;

// random_bytes gives an odd number with its top bit set, the same in each run.
Bytes random_bytes(std::int64_t bits, unsigned seed) {
  std::mt19937 engine(seed);
  Bytes bytes(static_cast<std::size_t>(bits / 8));
  for (auto& byte : bytes) byte = static_cast<std::uint8_t>(engine());
  bytes.front() |= 0x80;
  bytes.back() |= 1;
  return bytes;
}

BigNumPtr own(const Bytes& bytes) {
  BigNumPtr num = bn_new(0, bytes.size() / 4 + 1);
  (void)bn_set_data(num.get(), bytes.data(), bytes.size());
  return num;
}

struct Operands {
  explicit Operands(std::int64_t bits)
      : a(random_bytes(bits, 1)),
        b(random_bytes(bits, 2)),
        c(random_bytes(bits, 3)) {}
  Bytes a, b, c;
};

void power_mod(benchmark::State& state) {
  const Operands operands(state.range(0));
  const BigNumPtr a = own(operands.a);
  const BigNumPtr b = own(operands.b);
  const BigNumPtr c = own(operands.c);
  for (auto _ : state) {
    benchmark::DoNotOptimize(bn_power_mod(a.get(), b.get(), c.get()));
  }
}

void multiply(benchmark::State& state) {
  const Operands operands(state.range(0));
  const BigNumPtr a = own(operands.a);
  const BigNumPtr b = own(operands.b);
  for (auto _ : state) benchmark::DoNotOptimize(bn_mul(a.get(), b.get()));
}

// divide takes a dividend twice as long as the divisor.
void divide(benchmark::State& state) {
  const Operands operands(state.range(0));
  const BigNumPtr b = own(operands.b);
  const BigNumPtr dividend = bn_mul(own(operands.a).get(), b.get());
  for (auto _ : state) {
    benchmark::DoNotOptimize(bn_div(dividend.get(), b.get()));
  }
}

void decimal(benchmark::State& state) {
  const BigNumPtr a = own(random_bytes(state.range(0), 1));
  for (auto _ : state) benchmark::DoNotOptimize(bn_to_decimal(a.get()));
}

void import_bytes(benchmark::State& state) {
  const Bytes bytes = random_bytes(state.range(0), 1);
  const BigNumPtr a = own(bytes);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        bn_set_data(a.get(), bytes.data(), bytes.size()).c_str());
  }
}

void export_bytes(benchmark::State& state) {
  Bytes bytes = random_bytes(state.range(0), 1);
  const BigNumPtr a = own(bytes);
  for (auto _ : state) {
    std::uint64_t length = bytes.size();
    benchmark::DoNotOptimize(
        bn_get_data(a.get(), bytes.data(), length).c_str());
    benchmark::ClobberMemory();
  }
}

#ifdef VELPROBE_HAVE_GMP
struct Gmp {
  Gmp() { mpz_init(value); }
  explicit Gmp(const Bytes& bytes) : Gmp() {
    mpz_import(value, bytes.size(), 1, 1, 0, 0, bytes.data());
  }
  Gmp(const Gmp&) = delete;
  ~Gmp() { mpz_clear(value); }
  mpz_t value;
};

void power_mod_by(benchmark::State& state, decltype(&mpz_powm) power) {
  const Operands operands(state.range(0));
  const Gmp a(operands.a);
  const Gmp b(operands.b);
  const Gmp c(operands.c);
  for (auto _ : state) {
    Gmp result;
    power(result.value, a.value, b.value, c.value);
    benchmark::ClobberMemory();
  }
}

void power_mod_gmp(benchmark::State& state) {
  power_mod_by(state, mpz_powm);
}

void power_mod_gmp_sec(benchmark::State& state) {
  power_mod_by(state, mpz_powm_sec);
}

void multiply_gmp(benchmark::State& state) {
  const Operands operands(state.range(0));
  const Gmp a(operands.a);
  const Gmp b(operands.b);
  for (auto _ : state) {
    Gmp result;
    mpz_mul(result.value, a.value, b.value);
    benchmark::ClobberMemory();
  }
}

void divide_gmp(benchmark::State& state) {
  const Operands operands(state.range(0));
  const Gmp a(operands.a);
  const Gmp b(operands.b);
  Gmp dividend;
  mpz_mul(dividend.value, a.value, b.value);
  for (auto _ : state) {
    Gmp result;
    mpz_tdiv_q(result.value, dividend.value, b.value);
    benchmark::ClobberMemory();
  }
}

void decimal_gmp(benchmark::State& state) {
  const Gmp a(random_bytes(state.range(0), 1));
  for (auto _ : state) {
    char* digits = mpz_get_str(nullptr, 10, a.value);
    benchmark::DoNotOptimize(digits);
    std::free(digits);
  }
}

void import_bytes_gmp(benchmark::State& state) {
  const Bytes bytes = random_bytes(state.range(0), 1);
  const Gmp a(bytes);
  Gmp result;
  for (auto _ : state) {
    mpz_import(result.value, bytes.size(), 1, 1, 0, 0, bytes.data());
    benchmark::ClobberMemory();
  }
}

void export_bytes_gmp(benchmark::State& state) {
  Bytes bytes = random_bytes(state.range(0), 1);
  const Gmp a(bytes);
  for (auto _ : state) {
    std::size_t count = 0;
    mpz_export(bytes.data(), &count, 1, 1, 0, 0, a.value);
    benchmark::ClobberMemory();
  }
}
#endif

#ifdef VELPROBE_HAVE_OPENSSL
void power_mod_libcrypto(benchmark::State& state) {
  const Operands operands(state.range(0));
  const auto number = [](const Bytes& bytes) {
    return BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr);
  };
  BN_CTX* context = BN_CTX_new();
  BIGNUM* a = number(operands.a);
  BIGNUM* b = number(operands.b);
  BIGNUM* c = number(operands.c);
  BN_nnmod(a, a, c, context);
  for (auto _ : state) {
    BIGNUM* result = BN_new();
    BN_mod_exp_mont_consttime(result, a, b, c, context, nullptr);
    BN_free(result);
  }
  for (BIGNUM* number_in_use : {a, b, c}) BN_free(number_in_use);
  BN_CTX_free(context);
}
BENCHMARK(power_mod_libcrypto)->RangeMultiplier(2)->Range(256, 2048);
#endif

#define VELPROBE_BENCH(name) \
  BENCHMARK(name)->RangeMultiplier(2)->Range(256, 2048)
VELPROBE_BENCH(power_mod);
VELPROBE_BENCH(multiply);
VELPROBE_BENCH(divide);
VELPROBE_BENCH(decimal);
VELPROBE_BENCH(import_bytes);
VELPROBE_BENCH(export_bytes);
#ifdef VELPROBE_HAVE_GMP
VELPROBE_BENCH(power_mod_gmp);
VELPROBE_BENCH(power_mod_gmp_sec);
VELPROBE_BENCH(multiply_gmp);
VELPROBE_BENCH(divide_gmp);
VELPROBE_BENCH(decimal_gmp);
VELPROBE_BENCH(import_bytes_gmp);
VELPROBE_BENCH(export_bytes_gmp);
#endif

}  // namespace
}  // namespace velprobe
