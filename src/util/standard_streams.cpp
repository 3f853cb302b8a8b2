#include "standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace velprobe {

bool prepare_standard_streams() {
  for (int descriptor = 0; descriptor <= 2; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) >= 0) continue;
    // The lowest free number is this one: those below are open by now.
    if (::open("/dev/null", O_RDWR) != descriptor) {
      std::perror("Error opening /dev/null");
      return false;
    }
  }
  if (std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ) == 0) return true;
  std::perror("Error buffering standard output");
  return false;
}

}  // namespace velprobe
