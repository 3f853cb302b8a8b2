#include "crypto_assert.h"

#include <cstdio>
#include <cstdlib>

namespace velprobe {

void crypto_assert_failed(const char* expression, const char* source,
                          const char* function) {
  std::fprintf(stderr, "Assertion \"%s\" failed: %s: %s\n", expression, source,
               function);
  std::abort();
}

}  // namespace velprobe
