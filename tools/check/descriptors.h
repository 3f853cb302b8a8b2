// How many servers can be asked at once with the descriptors there are.
#ifndef VELPROBE_CHECK_DESCRIPTORS_H_
#define VELPROBE_CHECK_DESCRIPTORS_H_

#include <cstddef>

namespace velprobe::check {

// AtOnce is how many conversations and look-ups may go on at once.
struct AtOnce {
  std::size_t jobs = 1;
  std::size_t look_ups = 1;
};

// fit_descriptors raises the soft limit on open files as far as it helps and
// may, and lowers the wish to what the limit then leaves; to one each at least.
AtOnce fit_descriptors(AtOnce wanted);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_DESCRIPTORS_H_
