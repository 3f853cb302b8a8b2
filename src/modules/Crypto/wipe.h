// Wiping of secrets from working memory.
#ifndef VELPROBE_MODULES_CRYPTO_WIPE_H_
#define VELPROBE_MODULES_CRYPTO_WIPE_H_

#include <cstddef>
#include <cstring>

namespace velprobe {

// wipe_memory sets size bytes to zero in a way that the compiler may not drop,
// even when nobody reads them again.
inline void wipe_memory(void* memory, std::size_t size) {
  std::memset(memory, 0, size);
  __asm__ volatile("" : : "r"(memory) : "memory");
}

// Wiped owns a plain value that holds a secret and wipes it on every way out of
// its block.
template <class Value>
struct Wiped {
  Wiped() = default;
  Wiped(const Wiped&) = delete;
  Wiped& operator=(const Wiped&) = delete;
  ~Wiped() { wipe_memory(&value, sizeof value); }

  Value value{};
};

// ClearsStack, alone in a function, clears on every way out of it what the
// calls that it made left on the stack: temporaries that the compiler put
// there, of which no owner knows. kDepth is more than those calls take
// together, in bytes.
class ClearsStack {
 public:
  ClearsStack() = default;
  ClearsStack(const ClearsStack&) = delete;
  ClearsStack& operator=(const ClearsStack&) = delete;
  ~ClearsStack() { clear(); }

 private:
  static constexpr std::size_t kDepth = 1024;

  [[gnu::noinline]] static void clear() {
    unsigned char below[kDepth];
    wipe_memory(below, sizeof below);
  }
};

}  // namespace velprobe

#endif  // VELPROBE_MODULES_CRYPTO_WIPE_H_
