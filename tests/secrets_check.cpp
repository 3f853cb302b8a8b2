// What shows of the secrets that the cryptography module handles. Built and run
// by scripts/check_constant_time.sh, in two ways:
//
//   secrets_check time      under memcheck: every secret counts as
//                           uninitialised, so that memcheck reports each branch
//                           and each address that depends on one
//   secrets_check traces    on its own: is a piece of a secret, or of an AES
//                           round key, left on the dead stack?
#include <pthread.h>
#include <valgrind/memcheck.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "modules/Crypto/aes_block.h"
#include "modules/Crypto/key_agreement.h"
#include "modules/Crypto/md5.h"
#include "modules/Crypto/rijndael-api-fst.h"

namespace velprobe {
namespace {

using Bytes = std::vector<std::uint8_t>;

struct Memory {
  void* at;
  std::size_t size;
};

// Job is one use of the module. It leaves its secrets as they are and gives the
// same result each time.
struct Job {
  std::string name;
  std::vector<Memory> secrets;
  std::function<Bytes()> run;
};

std::vector<Job> g_jobs;

// filler gives bytes that look random and have the top bit set in every fourth,
// so that no limb on top is zero.
Bytes filler(std::size_t size, std::uint32_t seed) {
  Bytes bytes(size);
  for (std::size_t i = 0; i < size; ++i) {
    seed = seed * 1664525 + 1013904223;
    bytes[i] = static_cast<std::uint8_t>(seed >> 24 | (i % 4 == 3 ? 0x80 : 0));
  }
  return bytes;
}

Memory limbs_of(const BigNumPtr& num) {
  return {num->data, num->len * sizeof *num->data};
}

BigNumPtr new_number(std::size_t limbs, std::uint32_t seed, bool is_odd) {
  BigNumPtr num = bn_new(0, 2 * limbs + 2);
  const Bytes bytes = filler(4 * limbs, seed);
  if (bn_set_data(num.get(), bytes.data(), bytes.size())) std::abort();
  num->data[0] = (num->data[0] & ~1u) | (is_odd ? 1u : 0u);
  return num;
}

Bytes bytes_out_of(const BigNumPtr& num) {
  Bytes bytes(num == nullptr ? 0 : 4 * num->len);
  std::uint64_t length = bytes.size();
  if (num == nullptr || bn_get_data(num.get(), bytes.data(), length)) return {};
  bytes.resize(length);
  return bytes;
}

// add_power takes all three operands as secrets.
void add_power(std::size_t base_limbs, std::size_t exponent_limbs,
               std::size_t modulus_limbs, bool is_odd) {
  auto shared = [](BigNumPtr num) {
    return std::make_shared<BigNumPtr>(std::move(num));
  };
  const auto base = shared(new_number(base_limbs, 1, true));
  const auto exponent = shared(new_number(exponent_limbs, 2, true));
  const auto modulus = shared(new_number(modulus_limbs, 3, is_odd));
  g_jobs.push_back(
      {"power-" + std::to_string(base_limbs) + "-" +
           std::to_string(exponent_limbs) + "-" +
           std::to_string(modulus_limbs) + (is_odd ? "-odd" : "-even"),
       {limbs_of(*base), limbs_of(*exponent), limbs_of(*modulus)},
       [=] {
         return bytes_out_of(
             bn_power_mod(base->get(), exponent->get(), modulus->get()));
       }});
}

// The draws of the jobs below: secret, and copied without the C library, which
// would leave them in its registers.
Bytes g_draws = filler(512, 7);

void draw(void* buffer, std::size_t count) {
  volatile auto* bytes = static_cast<std::uint8_t*>(buffer);
  for (std::size_t i = 0; i < count; ++i) bytes[i] = g_draws[i];
}

// The key pair and then the secret that it shares with a peer.
void add_agreement() {
  static const BigNumPtr modulus = new_number(8, 4, true);
  static const BigNumPtr generator = new_number(6, 5, true);
  static const BigNumPtr peer = new_number(7, 6, true);
  g_jobs.push_back({"agreement", {{g_draws.data(), g_draws.size()}}, [] {
                      BigNumPtr public_key, private_key;
                      if (dh_generate_key(public_key, private_key,
                                          modulus.get(), generator.get(),
                                          draw)) {
                        return Bytes();
                      }
                      return bytes_out_of(bn_power_mod(
                          peer.get(), private_key.get(), modulus.get()));
                    }});
  g_jobs.push_back({"residue", {{g_draws.data(), g_draws.size()}}, [] {
                      return bytes_out_of(
                          bn_random_range(peer.get(), modulus.get(), draw));
                    }});
}

// hex_text gives digits in both cases, with their end.
Bytes hex_text(std::size_t digits, std::uint32_t seed) {
  Bytes text = filler(digits + 1, seed);
  for (auto& byte : text) byte = "0123456789abcdefABCDEF"[byte % 22];
  text.back() = '\0';
  return text;
}

constexpr int kTextSize = 13 * 16;

// What AES works on, apart from the stack: the key object and its round keys
// are the caller's.
struct {
  Bytes key_text = hex_text(64, 8);
  Bytes vector_text = hex_text(32, 9);
  Bytes input = filler(kTextSize, 10);
  keyInstance key;
  cipherInstance cipher;
} g_aes;

int init_key(std::uint8_t direction, int bits) {
  return keyInit(&g_aes.key, direction, bits,
                 reinterpret_cast<const char*>(g_aes.key_text.data()));
}

struct AesOperation {
  const char* name;
  std::uint8_t direction;
  std::uint8_t last_mode;
  int (*run)(const std::uint8_t* input, std::uint8_t* output);
};

const AesOperation kOperations[] = {
    {"encrypt", kDirEncrypt, kModeCfb1,
     [](auto* in, auto* out) {
       return blockEncrypt(&g_aes.cipher, &g_aes.key, in, 8 * kTextSize, out);
     }},
    {"decrypt", kDirDecrypt, kModeCfb1,
     [](auto* in, auto* out) {
       return blockDecrypt(&g_aes.cipher, &g_aes.key, in, 8 * kTextSize, out);
     }},
    {"pad", kDirEncrypt, kModeCbc,
     [](auto* in, auto* out) {
       const int bits = g_aes.key.keyLen;
       const int size =
           padEncrypt(&g_aes.cipher, &g_aes.key, in, kTextSize - 5, out);
       if (init_key(kDirDecrypt, bits) < 1) return -1;
       return padDecrypt(&g_aes.cipher, &g_aes.key, out, size, out);
     }},
    // Bytes with padding that is most likely bad.
    {"unpad", kDirDecrypt, kModeCbc,
     [](auto* in, auto* out) {
       return padDecrypt(&g_aes.cipher, &g_aes.key, in, kTextSize, out);
     }},
    {"rounds", kDirEncrypt, kModeEcb,
     [](auto* in, auto* out) {
       return cipherUpdateRounds(&g_aes.cipher, &g_aes.key, in, 16, out, 5);
     }},
};

Bytes run_aes(const AesPath* path, const AesOperation& operation, int bits,
              std::uint8_t mode) {
  force_aes_path(path);
  // With space for the result: growing would copy it through registers.
  Bytes output(kTextSize + 17);
  if (init_key(operation.direction, bits) < 1 ||
      cipherInit(&g_aes.cipher, mode,
                 reinterpret_cast<const char*>(g_aes.vector_text.data())) < 1) {
    return {};
  }
  const int result = operation.run(g_aes.input.data(), output.data());
  output.back() = static_cast<std::uint8_t>(result);
  return output;
}

void add_aes(const AesPath* path) {
  const std::vector<Memory> secrets = {
      {g_aes.key_text.data(), g_aes.key_text.size() - 1},
      {g_aes.vector_text.data(), g_aes.vector_text.size() - 1},
      {g_aes.input.data(), g_aes.input.size()}};
  for (const AesOperation& operation : kOperations) {
    for (std::uint8_t mode = kModeEcb; mode <= operation.last_mode; ++mode) {
      for (int bits : {128, 192, 256}) {
        g_jobs.push_back(
            {std::string(path->name) + " " + operation.name + " mode " +
                 std::to_string(mode) + " key " + std::to_string(bits),
             secrets,
             [=, &operation] { return run_aes(path, operation, bits, mode); }});
      }
    }
  }
}

void add_md5() {
  g_jobs.push_back({"md5", {{g_draws.data(), g_draws.size()}}, [] {
                      Md5 md5;
                      std::uint8_t digest[kMd5Size];
                      md5_initialise(&md5);
                      md5_update(&md5, g_draws.data(), 77);
                      md5_finish(&md5, digest);
                      return Bytes(digest, digest + kMd5Size);
                    }});
}

void add_jobs() {
  // Odd and even lengths, around where two rows go at a time, operands of
  // different lengths.
  for (std::size_t limbs : {1, 2, 3, 4, 5, 6, 9, 16}) {
    add_power(limbs, 1, limbs, true);
    add_power(limbs, 1, limbs, false);
  }
  add_power(9, 2, 4, true);
  add_power(9, 2, 4, false);
  add_power(2, 3, 7, true);
  add_agreement();
  add_aes(&portable_aes_path());
  if (accelerated_aes_path() != nullptr) add_aes(accelerated_aes_path());
  add_md5();
}

// errors_in counts what memcheck says of one call.
template <class Call>
unsigned errors_in(const Call& call) {
  const unsigned before = VALGRIND_COUNT_ERRORS;
  call();
  return VALGRIND_COUNT_ERRORS - before;
}

// does_memcheck_see makes sure that a branch and an address by a secret are
// found: a check that finds nothing anywhere proves nothing.
bool does_memcheck_see() {
  static const volatile int table[256] = {};
  volatile int sink = 0;
  volatile std::uint8_t secret = 5;
  (void)VALGRIND_MAKE_MEM_UNDEFINED(const_cast<const std::uint8_t*>(&secret),
                                    1);
  return errors_in([&] {
           if (secret > 7) sink = 1;
         }) > 0 &&
         errors_in([&] { sink = table[secret]; }) > 0;
}

int check_time() {
  if (!RUNNING_ON_VALGRIND || !does_memcheck_see()) {
    std::fputs("secrets_check: memcheck does not look\n", stderr);
    return 2;
  }
  int failed = 0;
  for (const Job& job : g_jobs) {
    const Bytes expected = job.run();
    for (const Memory& secret : job.secrets) {
      (void)VALGRIND_MAKE_MEM_UNDEFINED(secret.at, secret.size);
    }
    Bytes result;
    const unsigned errors = errors_in([&] { result = job.run(); });
    for (const Memory& secret : job.secrets) {
      (void)VALGRIND_MAKE_MEM_DEFINED(secret.at, secret.size);
    }
    (void)VALGRIND_MAKE_MEM_DEFINED(result.data(), result.size());
    if (errors == 0 && !expected.empty() && result == expected) continue;
    std::printf("%s: %u looks at secrets, result %s\n", job.name.c_str(),
                errors, result == expected ? "right" : "wrong");
    ++failed;
  }
  std::printf("%zu jobs, %d show secrets\n", g_jobs.size(), failed);
  return failed == 0 ? 0 : 1;
}

// windows_left counts the runs of eight bytes of a secret, in either order of
// the bytes of a word, that are found on the stack.
std::size_t windows_left(const std::string& stack, const Memory& secret) {
  const auto* bytes = static_cast<const char*>(secret.at);
  std::size_t found = 0;
  for (std::size_t i = 0; i + 8 <= secret.size; i += 4) {
    std::string window(bytes + i, 8);
    if (window == std::string(8, '\0')) continue;
    found += stack.find(window) != stack.npos;
    for (std::size_t word : {0u, 4u}) {
      std::swap(window[word], window[word + 3]);
      std::swap(window[word + 1], window[word + 2]);
    }
    found += stack.find(window) != stack.npos;
  }
  return found;
}

int check_traces() {
  int failed = 0;
  for (Job& job : g_jobs) {
    std::string stack(1 << 20, '\0');
    const auto run = [](void* given) -> void* {
      static_cast<const Job*>(given)->run();
      return nullptr;
    };
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, stack.data(), stack.size());
    pthread_t thread;
    if (pthread_create(&thread, &attributes, run, &job) != 0) return 2;
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);

    std::vector<Memory> secrets = job.secrets;
    secrets.push_back({g_aes.key.rk, sizeof g_aes.key.rk});
    secrets.push_back({g_aes.key.ek, sizeof g_aes.key.ek});
    std::size_t found = 0;
    for (const Memory& secret : secrets) found += windows_left(stack, secret);
    if (found == 0) continue;
    std::printf("%s: %zu pieces of secrets on the dead stack\n",
                job.name.c_str(), found);
    ++failed;
  }
  std::printf("%zu jobs, %d leave traces\n", g_jobs.size(), failed);
  return failed == 0 ? 0 : 1;
}

}  // namespace
}  // namespace velprobe

int main(int argc, char** argv) {
  velprobe::add_jobs();
  const std::string what = argc > 1 ? argv[1] : "";
  if (what == "time") return velprobe::check_time();
  return what == "traces" ? velprobe::check_traces() : 2;
}
