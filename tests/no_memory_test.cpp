// What the library's operations do when memory is short: each allocation of
// each operation fails in turn, and none of them takes that for success.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "modules/Crypto/key_agreement.h"
#include "net/interfaces.h"
#include "net/wait.h"
#include "probe/address_set.h"
#include "probe/check_in_probe.h"
#include "protocol/ber_codec.h"
#include "protocol/messages.h"
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
#endif

namespace velprobe {
namespace {

// What the operations work on; made while there is memory.
struct Given {
  std::string text = bytes_of("04 03 61 62 63");
  std::string number = bytes_of("02 03 01 02 03");
  std::string message = bytes_of(
      "A1 80 04 01 61 04 01 62 04 01 63 01 01 01 01 01 01 01 01 01 00 00");
  BigNumPtr large = bn_power_of_two(2000);
  BigNumPtr small = bn_from_word(1000003);
  BigNumPtr two = bn_from_word(2);
  FileDescriptor socket{::socket(AF_INET, SOCK_STREAM, 0)};
  ScriptedPeer peer{
      {.answer = bytes_of("61 80 02 02 02 02 A1 80 01 01 01 01 01 01 00 00 00 "
                          "00")}};
};

bool opens(BerStreamPtr& stream, const std::string& bytes) {
  return !memory_stream_open(stream, bytes);
}

void fill_with_sevens(void* buffer, std::size_t count) {
  std::memset(buffer, 7, count);
}

// Each operation tells whether it says that it succeeded.
constexpr struct {
  const char* name;
  bool (*succeeds)(const Given& given);
} kOperations[] = {
    {"text", [](const Given& g) { return copy_text(g.text) != nullptr; }},
    {"memory stream",
     [](const Given& g) {
       BerStreamPtr s;
       return opens(s, g.text) && !write_string(*s, 999, g.message.c_str());
     }},
    {"socket stream",
     [](const Given& g) {
       BerStreamPtr s;
       return !socket_stream_adopt(s, ::dup(g.socket.get()));
     }},
    {"read_string",
     [](const Given& g) {
       BerStreamPtr s;
       Text text;
       return opens(s, g.text) && !read_string(*s, 9, text, 0);
     }},
    {"read_bignum",
     [](const Given& g) {
       BerStreamPtr s;
       BigNumPtr number;
       return opens(s, g.number) && !read_bignum(*s, number, 0);
     }},
    {"message",
     [](const Given& g) {
       BerStreamPtr s;
       client_private_key key;
       return opens(s, g.message) && !read_client_private_key(*s, key, 0);
     }},
    {"interfaces", [](const Given&) { return list_nics() != nullptr; }},
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
       for (std::uint8_t i = 0; i < 200; ++i)
         if (!addresses.add({10, 0, 0, i})) return false;
       return true;
     }},
    {"probe",
     [](const Given& g) {
       ProbeResult result;
       ErrorText error = probe_server("127.0.0.1", g.peer.port(), {}, result);
       EXPECT_EQ(result.failure,
                 error ? ProbeFailure::kSystem : ProbeFailure::kNone);
       return !error;
     }},
    {"bn_copy",
     [](const Given& g) { return bn_copy(g.large.get(), 99) != nullptr; }},
    {"bn_to_decimal",
     [](const Given& g) { return bn_to_decimal(g.large.get()) != nullptr; }},
    {"bn_mul",
     [](const Given& g) {
       return bn_mul(g.large.get(), g.small.get()) != nullptr;
     }},
    {"bn_div",
     [](const Given& g) {
       return bn_div(g.large.get(), g.small.get()) != nullptr;
     }},
    {"bn_power_mod",
     [](const Given& g) {
       return bn_power_mod(g.small.get(), g.small.get(), g.large.get()) !=
              nullptr;
     }},
    {"dh_generate_key",
     [](const Given& g) {
       BigNumPtr public_key, private_key;
       return !dh_generate_key(public_key, private_key, g.small.get(),
                               g.two.get(), fill_with_sevens);
     }},
};

TEST(ShortMemory, IsNeverTakenForSuccess) {
  if (!kCanFail) GTEST_SKIP() << "the sanitizers replace the allocator";
  const Given given;
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

}  // namespace
}  // namespace velprobe
