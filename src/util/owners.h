// Small owners: what they hold is released on every way out.
#ifndef VELPROBE_UTIL_OWNERS_H_
#define VELPROBE_UTIL_OWNERS_H_

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <utility>

#pragma GCC visibility push(default)
namespace velprobe {

// FileDescriptor owns one OS descriptor; a negative number is none at all.
// Closing it on the way out leaves errno alone, so that a failure can still be
// reported after the descriptor is gone.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept
      : descriptor_(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  ~FileDescriptor() {
    if (descriptor_ < 0) return;
    const int kept_errno = errno;
    ::close(descriptor_);
    errno = kept_errno;
  }

  int get() const { return descriptor_; }
  explicit operator bool() const { return descriptor_ >= 0; }
  // release hands the descriptor to the caller, who closes it.
  int release() { return std::exchange(descriptor_, -1); }

 private:
  int descriptor_ = -1;
};

struct FileCloser {
  void operator()(std::FILE* file) const {
    const int kept_errno = errno;
    std::fclose(file);
    errno = kept_errno;
  }
};

// FilePtr owns an open stdio file.
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_UTIL_OWNERS_H_
