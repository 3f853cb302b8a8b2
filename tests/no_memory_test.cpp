// What the library's operations do when memory runs out: each allocation of
// each operation fails in turn, and none of them takes that for success.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "modules/Crypto/key_agreement.h"
#include "modules/Crypto/primes.h"
#include "modules/Regex/regex.h"
#include "net/interfaces.h"
#include "net/wait.h"
#include "probe/address_set.h"
#include "probe/check_in_probe.h"
#include "protocol/ber_codec.h"
#include "protocol/socket_stream.h"
#include "support/bytes.h"
#include "support/scripted_peer.h"
#include "support/streams.h"

#ifndef __has_feature
#define __has_feature(feature) 0
#endif
// The sanitizers have allocators of their own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || \
    __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kCanFail = false;
static int num_until_failure;
#else
constexpr bool kCanFail = true;

// The number of this thread's allocations until one fails; negative: none does.
static thread_local int num_until_failure = -1;

static bool fails() {
  return num_until_failure >= 0 && num_until_failure-- == 0;
}

// Seen by the C++ library, too.
#pragma GCC visibility push(default)
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);

void* malloc(std::size_t size) {
  return fails() ? nullptr : __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
  return fails() ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* memory, std::size_t size) {
  return fails() ? nullptr : __libc_realloc(memory, size);
}
}
#pragma GCC visibility pop
#endif

namespace velprobe {
namespace {

// What the operations work on; made while there is memory.
struct Given {
  const std::string text = bytes_of("04 03 61 62 63");
  const std::string number = bytes_of("02 03 01 02 03");
  const std::string refusal = bytes_of("63 80 04 01 61 00 00");
  ScriptedPeer peer{{.answer = refusal}};
  const FileDescriptor socket{::socket(AF_INET, SOCK_STREAM, 0)};
  const BigNumPtr owners[3] = {bn_power_of_two(2000), bn_from_word(1000003),
                               bn_from_word(2)};
  const BigNum* const large = owners[0].get();
  const BigNum* const small = owners[1].get();
  const BigNum* const two = owners[2].get();
};

bool reads(const std::string& bytes, ErrorText (*read)(BerStream& stream)) {
  BerStreamPtr stream;
  return !memory_stream_open(stream, bytes) && !read(*stream);
}

void fill_with_sevens(void* buffer, std::size_t count) {
  std::memset(buffer, 7, count);
}

// Each operation tells whether it says that it did its work.
constexpr struct {
  const char* name;
  bool (*succeeds)(const Given& given);
} kOperations[] = {
    {"text", [](const Given& g) { return !!copy_text(g.text); }},
    {"write",
     [](const Given& g) {
       return reads(g.text, [](BerStream& s) {
         char bytes[500] = "";
         return s.operations.write(&s, bytes, sizeof bytes);
       });
     }},
    {"string",
     [](const Given& g) {
       return reads(g.text, [](BerStream& s) {
         Text text;
         return read_string(s, 9, text, 0);
       });
     }},
    {"bignum",
     [](const Given& g) {
       return reads(g.number, [](BerStream& s) {
         BigNumPtr number;
         return read_bignum(s, number, 0);
       });
     }},
    {"socket stream",
     [](const Given& g) {
       BerStreamPtr s;
       return !socket_stream_adopt(s, ::dup(g.socket.get()));
     }},
    {"probe",
     [](const Given& g) {
       ProbeResult result;
       static_cast<void>(probe_server("127.0.0.1", g.peer.port(), {}, result));
       return result.failure != ProbeFailure::kSystem;
     }},
    {"interfaces", [](const Given&) { return !!list_nics(); }},
    {"wait",
     [](const Given& g) {
       const std::int32_t sockets[] = {g.socket.get()};
       std::size_t first;
       return wait_for_any(sockets, WaitFor::kReadable, 0, OnSignal::kRestart,
                           first) != WaitResult::kError;
     }},
    {"address set",
     [](const Given&) {
       AddressSet addresses;
       std::uint8_t i = 0;
       while (i < 200 && addresses.add({10, 0, 0, i})) ++i;
       return i == 200;
     }},
    {"copy", [](const Given& g) { return !!bn_copy(g.large, 99); }},
    {"grown",
     [](const Given&) {
       const BigNumPtr num = bn_new(0, 0);
       constexpr std::uint8_t kBytes[99] = {1};
       return num && !bn_set_data(num.get(), kBytes, sizeof kBytes);
     }},
    {"odd part",
     [](const Given& g) {
       BigNumPtr odd;
       bn_strip_twos(g.large, odd);
       return !!odd;
     }},
    {"range",
     [](const Given& g) {
       return !!bn_random_range(g.small, g.large, fill_with_sevens);
     }},
    {"below",
     [](const Given& g) {
       return !!bn_random_below(g.large, fill_with_sevens);
     }},
    {"witness", [](const Given& g) { return bn_miller_rabin(g.small, g.two); }},
    {"prime",
     [](const Given& g) {
       return !!bn_find_prime(g.two, g.small, g.two, fill_with_sevens);
     }},
    {"parameters",
     [](const Given&) {
       BigNumPtr modulus, generator;
       dh_generate_parameters(64, modulus, generator, urandom_bytes);
       EXPECT_EQ(!modulus, !generator);
       return !!modulus;
     }},
    {"decimal", [](const Given& g) { return !!bn_to_decimal(g.large); }},
    {"mul", [](const Given& g) { return !!bn_mul(g.large, g.small); }},
    {"div", [](const Given& g) { return !!bn_div(g.large, g.small); }},
    {"power",
     [](const Given& g) { return !!bn_power_mod(g.two, g.small, g.large); }},
    {"key",
     [](const Given& g) {
       BigNumPtr shown, kept;
       return !dh_generate_key(shown, kept, g.small, g.two, fill_with_sevens);
     }},
};

TEST(ShortMemory, IsNeverTakenForSuccess) {
  if (!kCanFail) GTEST_SKIP() << "the sanitizers replace the allocator";
  const Given given;
  std::uint8_t byte;
  urandom_bytes(&byte, 1);  // which opens its file
  for (const auto& operation : kOperations) {
    SCOPED_TRACE(operation.name);
    int nth = 0;
    for (;; ++nth) {
      num_until_failure = nth;
      const bool succeeded = operation.succeeds(given);
      const bool all_had = num_until_failure >= 0;
      num_until_failure = -1;
      EXPECT_EQ(succeeded, all_had) << "allocation " << nth;
      if (all_had) break;
    }
    EXPECT_GT(nth, 0);
  }
}

// A number takes two allocations, a power three numbers.
TEST(ShortMemory, OfAKeyIsToldByWhatItWasFor) {
  if (!kCanFail) GTEST_SKIP() << "the sanitizers replace the allocator";
  constexpr struct {
    int up_to;
    const char* text;
  } kRows[] = {{2, "Error getting a random number for the key exchange"},
               {8, "Error calculating public part of shared secret key"},
               {10, "Error allocating primary memory for key check"},
               {16, "Error allocating secondary memory for key check"},
               {17, nullptr}};
  const BigNumPtr modulus = bn_from_word(1000003), generator = bn_from_word(2);
  int nth = 0;
  for (const auto& row : kRows) {
    for (; nth < row.up_to; ++nth) {
      BigNumPtr shown, kept;
      num_until_failure = nth;
      const ErrorText error = dh_generate_key(
          shown, kept, modulus.get(), generator.get(), fill_with_sevens);
      num_until_failure = -1;
      EXPECT_STREQ(error.c_str(), row.text) << "allocation " << nth;
    }
  }
}

// A match that had no memory leaves the expression as good as before.
TEST(ShortMemory, PassesForARegularExpression) {
  if (!kCanFail) GTEST_SKIP() << "the sanitizers replace the allocator";
  std::string pattern = "a";
  for (int i = 0; i < 20; ++i) pattern = "(" + pattern + "b?)*";
  int nth = 0;
  for (bool all_had = false; !all_had; ++nth) {
    Regex regex;
    ASSERT_EQ(regex_compile(&regex, pattern, kRegexExtended), 0);
    RegexSpan spans[21];
    num_until_failure = nth;
    const int result = regex_match(&regex, "abab", spans, 21, 0);
    all_had = num_until_failure >= 0;
    num_until_failure = -1;
    EXPECT_TRUE(result == 0 || result == kRegexNoSpace);
    EXPECT_EQ(regex_match(&regex, "abab", spans, 21, 0), 0) << nth;
    regex_free(&regex);
  }
  EXPECT_GT(nth, 1);
}

}  // namespace
}  // namespace velprobe
