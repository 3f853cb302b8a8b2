// Wiping of secrets from working memory.
#ifndef VELPROBE_MODULES_CRYPTO_WIPE_H_
#define VELPROBE_MODULES_CRYPTO_WIPE_H_

#include <cstddef>

namespace velprobe {

// wipe_memory sets size bytes to zero in a way that the compiler may not drop,
// even when nobody reads them again. It calls nothing: a call that is bound to
// its library only now would store the registers, with what secrets they hold;
// memset itself becomes a call where _FORTIFY_SOURCE checks it.
inline void wipe_memory(void* memory, std::size_t size) {
  auto* bytes = static_cast<unsigned char*>(memory);
  for (; size >= 16; size -= 16, bytes += 16) {
    __builtin_memset(bytes, 0, 16);
    __asm__ volatile("" : : "r"(bytes) : "memory");
  }
  for (; size > 0; --size, ++bytes) {
    *bytes = 0;
    __asm__ volatile("" : : "r"(bytes) : "memory");
  }
}

// clear_registers zeroes the registers that a call may leave values in, as far
// as it knows the processor: x86-64 and ARMv8.
void clear_registers();

// Wiped owns a plain value that holds a secret and wipes it on every way out of
// its block.
template <class Value>
struct Wiped {
  Wiped() = default;
  explicit Wiped(const Value& given) : value(given) {}
  Wiped(const Wiped&) = delete;
  Wiped& operator=(const Wiped&) = delete;
  ~Wiped() { wipe_memory(&value, sizeof value); }

  Value value{};
};

// ClearsTraces, alone in a function, clears on every way out of it what the
// calls that it made left on the stack and in registers: temporaries that the
// compiler put there, of which no owner knows. kDepth is more than those calls
// take together, in bytes.
class ClearsTraces {
 public:
  ClearsTraces() = default;
  ClearsTraces(const ClearsTraces&) = delete;
  ClearsTraces& operator=(const ClearsTraces&) = delete;
  ~ClearsTraces() {
    clear_stack();
    clear_registers();
  }

 private:
  static constexpr std::size_t kDepth = 2048;

  [[gnu::noinline]] static void clear_stack() {
    unsigned char below[kDepth];
    wipe_memory(below, sizeof below);
  }
};

}  // namespace velprobe

#endif  // VELPROBE_MODULES_CRYPTO_WIPE_H_
