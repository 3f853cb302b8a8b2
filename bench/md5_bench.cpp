// MD5 in bytes a second, whole digests, beside libcrypto.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "modules/Crypto/md5.h"
#ifdef VELPROBE_HAVE_OPENSSL
#include <openssl/evp.h>
#endif

namespace velprobe {
namespace {

void md5_own(benchmark::State& state) {
  const std::vector<std::uint8_t> data(static_cast<std::size_t>(state.range(0)),
                                       0x5a);
  for (auto _ : state) {
    Md5 md5;
    std::uint8_t digest[kMd5Size];
    md5_initialise(&md5);
    md5_update(&md5, data.data(), data.size());
    md5_finish(&md5, digest);
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(md5_own)->Name("velprobe")->Arg(64)->Arg(1024)->Arg(65536);

#ifdef VELPROBE_HAVE_OPENSSL
void md5_libcrypto(benchmark::State& state) {
  const std::vector<std::uint8_t> data(static_cast<std::size_t>(state.range(0)),
                                       0x5a);
  const std::unique_ptr<EVP_MD, void (*)(EVP_MD*)> kind(
      EVP_MD_fetch(nullptr, "MD5", nullptr), EVP_MD_free);
  const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(
      EVP_MD_CTX_new(), EVP_MD_CTX_free);
  for (auto _ : state) {
    std::uint8_t digest[kMd5Size];
    EVP_DigestInit_ex2(context.get(), kind.get(), nullptr);
    EVP_DigestUpdate(context.get(), data.data(), data.size());
    if (EVP_DigestFinal_ex(context.get(), digest, nullptr) != 1) {
      state.SkipWithError("libcrypto failed");
    }
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(md5_libcrypto)->Name("libcrypto")->Arg(64)->Arg(1024)->Arg(65536);
#endif

}  // namespace
}  // namespace velprobe
