// AES modes in bytes a second: the path chosen for this processor, the portable
// path, and libcrypto with the padding off, so that all do the same work.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "modules/Crypto/aes_block.h"
#include "modules/Crypto/rijndael-api-fst.h"
#ifdef VELPROBE_HAVE_OPENSSL
#include <openssl/evp.h>
#endif

namespace velprobe {
namespace {

struct Subject {
  const char* name;
  std::uint8_t mode;
  int sizes[2];  // bytes
};

constexpr Subject kSubjects[] = {{"ecb", kModeEcb, {256, 16384}},
                                 {"cbc", kModeCbc, {256, 16384}},
                                 {"cfb1", kModeCfb1, {256, 1024}}};

struct Job {
  const Subject* subject;
  std::uint8_t direction;
  int key_bits;
  int size;
};

void run_own(benchmark::State& state, const Job& job, const AesPath* path) {
  std::vector<std::uint8_t> data(static_cast<std::size_t>(job.size), 0x5a);
  keyInstance key;
  cipherInstance cipher;
  force_aes_path(path);
  if (keyInit(&key, job.direction, job.key_bits,
              std::string(64, '7').c_str()) != 1 ||
      cipherInit(&cipher, job.subject->mode, nullptr) != 1) {
    state.SkipWithError("no key");
  }
  const auto operation = job.direction == 0 ? blockEncrypt : blockDecrypt;
  for (auto _ : state) {
    operation(&cipher, &key, data.data(), 8 * job.size, data.data());
    benchmark::ClobberMemory();
  }
  force_aes_path(nullptr);
  state.SetBytesProcessed(state.iterations() * job.size);
}

#ifdef VELPROBE_HAVE_OPENSSL
void run_libcrypto(benchmark::State& state, const Job& job) {
  std::vector<std::uint8_t> data(static_cast<std::size_t>(job.size), 0x5a);
  const std::string name =
      "AES-" + std::to_string(job.key_bits) + "-" + job.subject->name;
  std::uint8_t key[32];
  std::memset(key, 0x77, sizeof key);
  const std::uint8_t vector[16] = {};
  const std::unique_ptr<EVP_CIPHER, void (*)(EVP_CIPHER*)> cipher(
      EVP_CIPHER_fetch(nullptr, name.c_str(), nullptr), EVP_CIPHER_free);
  const std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX*)> context(
      EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  EVP_CipherInit_ex2(context.get(), cipher.get(), key, vector,
                     job.direction == 0 ? 1 : 0, nullptr);
  EVP_CIPHER_CTX_set_padding(context.get(), 0);
  for (auto _ : state) {
    int written = 0;
    EVP_CipherUpdate(context.get(), data.data(), &written, data.data(),
                     job.size);
    if (written != job.size) state.SkipWithError("libcrypto failed");
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * job.size);
}
#endif

void register_job(const Job& job) {
  const std::string name = std::string(job.subject->name) +
                           (job.direction == 0 ? "-encrypt/" : "-decrypt/") +
                           std::to_string(job.key_bits) + "/" +
                           std::to_string(job.size) + "/";
  benchmark::RegisterBenchmark((name + "velprobe-" + aes_path().name).c_str(),
                               run_own, job, nullptr);
#ifdef VELPROBE_HAVE_OPENSSL
  benchmark::RegisterBenchmark((name + "libcrypto").c_str(), run_libcrypto,
                               job);
#endif
  if (&aes_path() != &portable_aes_path()) {
    benchmark::RegisterBenchmark((name + "velprobe-portable").c_str(), run_own,
                                 job, &portable_aes_path());
  }
}

const bool kRegistered = [] {
  for (const Subject& subject : kSubjects) {
    for (std::uint8_t direction : {kDirEncrypt, kDirDecrypt}) {
      for (int key_bits : {128, 192, 256}) {
        for (int size : subject.sizes) {
          register_job({&subject, direction, key_bits, size});
        }
      }
    }
  }
  return true;
}();

}  // namespace
}  // namespace velprobe
