// Diffie-Hellman parameters and key pairs beside libcrypto's, by the size of
// the modulus in bits. libcrypto is made to do nearly the same work: primes q
// and p = 1 (mod 2q), and a key pair whose private exponent is as long as the
// modulus, squared once for the check. It always tests a prime with 64 rounds
// of Miller-Rabin, though, where 4 to 20 are asked for here, so the ratio of
// the parameters flatters this project.
//
// Parameter times scatter widely, since each run searches other primes.
#include <benchmark/benchmark.h>

#include "modules/Crypto/key_agreement.h"
#ifdef VELPROBE_HAVE_OPENSSL
#include <openssl/bn.h>
#endif

namespace velprobe {
namespace {

void parameters(benchmark::State& state) {
  for (auto _ : state) {
    BigNumPtr modulus, generator;
    dh_generate_parameters(static_cast<std::uint32_t>(state.range(0)), modulus,
                           generator, urandom_bytes);
    benchmark::DoNotOptimize(modulus);
  }
}

void key_pair(benchmark::State& state) {
  BigNumPtr modulus, generator;
  dh_generate_parameters(static_cast<std::uint32_t>(state.range(0)), modulus,
                         generator, urandom_bytes);
  for (auto _ : state) {
    BigNumPtr public_key, private_key;
    if (dh_generate_key(public_key, private_key, modulus.get(), generator.get(),
                        urandom_bytes)) {
      state.SkipWithError("no key");
    }
  }
}

BENCHMARK(parameters)
    ->Arg(256)
    ->Arg(512)
    ->Arg(1024)
    ->Iterations(20)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(key_pair)->Arg(256)->Arg(512)->Arg(1024)->Unit(
    benchmark::kMicrosecond);

#ifdef VELPROBE_HAVE_OPENSSL
struct Group {
  BN_CTX* context = BN_CTX_new();
  BIGNUM* q = BN_new();
  BIGNUM* p = BN_new();
  BIGNUM* exponent = BN_new();
  BIGNUM* base = BN_new();
  BIGNUM* generator = BN_new();

  Group() = default;
  Group(const Group&) = delete;
  ~Group() {
    for (BIGNUM* number : {q, p, exponent, base, generator}) BN_free(number);
    BN_CTX_free(context);
  }
  void generate(int bits) {
    BN_generate_prime_ex(q, bits / 2, 0, nullptr, nullptr, nullptr);
    BN_lshift1(exponent, q);
    BN_generate_prime_ex(p, bits, 0, exponent, BN_value_one(), nullptr);
    BN_div(exponent, nullptr, p, q, context);
    BN_set_word(base, 2);
    BN_mod_exp(generator, base, exponent, p, context);
  }
};

void parameters_libcrypto(benchmark::State& state) {
  for (auto _ : state) {
    Group group;
    group.generate(static_cast<int>(state.range(0)));
  }
}

void key_pair_libcrypto(benchmark::State& state) {
  const int bits = static_cast<int>(state.range(0));
  Group group;
  group.generate(bits);
  for (auto _ : state) {
    BIGNUM* private_key = BN_new();
    BIGNUM* public_key = BN_new();
    BN_priv_rand(private_key, bits, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY);
    BN_mod_exp(public_key, group.generator, private_key, group.p,
               group.context);
    BN_mod_sqr(private_key, public_key, group.p, group.context);
    BN_free(public_key);
    BN_free(private_key);
  }
}

BENCHMARK(parameters_libcrypto)
    ->Arg(256)
    ->Arg(512)
    ->Arg(1024)
    ->Iterations(20)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(key_pair_libcrypto)
    ->Arg(256)
    ->Arg(512)
    ->Arg(1024)
    ->Unit(benchmark::kMicrosecond);
#endif

}  // namespace
}  // namespace velprobe
