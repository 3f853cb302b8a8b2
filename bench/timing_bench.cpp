// Does time tell secrets? The method of Reparaz, Balasch and Verbauwhede,
// "Dude, is my code constant time?" (2017): an operation runs on one secret
// chosen beforehand or on a fresh random one, in random order, and Welch's test
// compares the two sets of times. Beyond about 4.5, |t| says that they differ;
// it grows with the number of runs if they do. The first rows are a control
// that does leak. A busy machine makes noise, not leaks: run it on a quiet one.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <functional>
#include <random>
#include <vector>

#include "modules/Crypto/aes_block.h"
#include "modules/Crypto/bignum.h"
#include "modules/Crypto/constant_time.h"
#include "modules/Crypto/rijndael-api-fst.h"

namespace velprobe {
namespace {

constexpr std::size_t kSecretBytes = 64;
using Secret = std::uint8_t[kSecretBytes];

struct Moments {
  double count = 0, mean = 0, squares = 0;

  void add(double value) {
    ++count;
    const double distance = value - mean;
    mean += distance / count;
    squares += distance * (value - mean);
  }
  double variance_of_mean() const { return squares / (count - 1) / count; }
};

struct Run {
  bool is_random;
  double nanoseconds;
};

// welch compares the runs below a bound that cuts off interruptions.
double welch(std::vector<Run> runs) {
  const auto bound =
      runs.begin() + static_cast<std::ptrdiff_t>(runs.size() * 9 / 10);
  std::nth_element(
      runs.begin(), bound, runs.end(),
      [](const Run& a, const Run& b) { return a.nanoseconds < b.nanoseconds; });
  Moments classes[2];
  for (auto run = runs.begin(); run != bound; ++run) {
    classes[run->is_random].add(run->nanoseconds);
  }
  const double spread =
      std::sqrt(classes[0].variance_of_mean() + classes[1].variance_of_mean());
  return spread == 0 ? 0 : (classes[0].mean - classes[1].mean) / spread;
}

using Operation = std::function<void(const Secret&)>;

void compare(benchmark::State& state, const Operation& operation,
             std::uint8_t fixed) {
  std::mt19937_64 engine(1);
  std::vector<Run> runs;
  Secret secret;
  for (auto _ : state) {
    const bool is_random = engine() % 2 != 0;
    // Without a branch: its trace in the processor would tell the classes
    // apart.
    const std::uint64_t mask = mask_of(is_random);
    for (auto& byte : secret) {
      byte = chosen(mask, static_cast<std::uint8_t>(engine()), fixed);
    }
    secret[0] |= 0x80;  // the top bit of an exponent shows
    const auto start = std::chrono::steady_clock::now();
    operation(secret);
    runs.push_back({is_random, std::chrono::duration<double, std::nano>(
                                   std::chrono::steady_clock::now() - start)
                                   .count()});
  }
  state.counters["t"] = welch(std::move(runs));
}

BigNumPtr number_of(const std::uint8_t* bytes, std::size_t size) {
  BigNumPtr num = bn_new(0, size / 4);
  (void)bn_set_data(num.get(), bytes, size);
  return num;
}

// What is wrong with multiplying for set bits only.
void leaking_power(const Secret& secret) {
  std::uint64_t value = 3;
  for (const std::uint8_t byte : secret) {
    for (int bit = 0; bit < 8; ++bit) {
      if ((byte >> bit & 1) != 0) value = value * 0x9e3779b97f4a7c15 % 1000003;
      benchmark::DoNotOptimize(value);
    }
  }
}

void power(const Secret& secret) {
  static const BigNumPtr modulus = [] {
    std::uint8_t bytes[kSecretBytes];
    std::fill(std::begin(bytes), std::end(bytes), std::uint8_t{0xC5});
    return number_of(bytes, sizeof bytes);
  }();
  static const BigNumPtr base = bn_from_word(0xfedcba98);
  const BigNumPtr exponent = number_of(secret, 8);
  benchmark::DoNotOptimize(
      bn_power_mod(base.get(), exponent.get(), modulus.get()));
}

Operation aes(const AesPath* path) {
  return [path](const Secret& secret) {
    force_aes_path(path);
    AesSchedule schedule{};
    std::uint32_t words[kAesScheduleWords];
    schedule = {words, expand_aes_key(secret, 256, words)};
    std::uint8_t block[kAesBlockSize] = {};
    path->modes[0][0](schedule, nullptr, secret + 32, block, 1);
    benchmark::DoNotOptimize(block);
    force_aes_path(nullptr);
  };
}

void key_text(const Secret& secret) {
  char text[kSecretBytes + 1] = {};
  for (std::size_t i = 0; i < kSecretBytes; ++i) {
    text[i] = "0123456789abcdef0123456789ABCDEF"[secret[i] % 32];
  }
  keyInstance key;
  benchmark::DoNotOptimize(keyInit(&key, kDirDecrypt, 256, text));
}

const bool kRegistered = [] {
  struct Subject {
    const char* name;
    Operation operation;
  };
  std::vector<Subject> subjects = {{"leaking_control", leaking_power},
                                   {"power_mod", power},
                                   {"aes_portable", aes(&portable_aes_path())},
                                   {"key_text", key_text}};
  if (accelerated_aes_path() != nullptr) {
    subjects.push_back({"aes_accelerated", aes(accelerated_aes_path())});
  }
  for (const Subject& subject : subjects) {
    for (const bool ones : {false, true}) {
      benchmark::RegisterBenchmark(
          (std::string(subject.name) + "/all-" + (ones ? "ones" : "zeros"))
              .c_str(),
          compare, subject.operation,
          static_cast<std::uint8_t>(ones ? 0xff : 0))
          ->Iterations(50000);
    }
  }
  return true;
}();

}  // namespace
}  // namespace velprobe
