#include "config_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>

#include "../util/file_replacement.h"

namespace velprobe {
namespace {

constexpr std::size_t kChunkSize = 64 * 1024;
// Far above any real file: a device that never ends must not fill the memory.
constexpr std::size_t kMaxFileSize = 64 * 1024 * 1024;

constexpr int kLockAttempts = 50;
constexpr timespec kLockPause = {0, 100'000'000};

// is_at tells whether path still names the open file.
bool is_at(const char* path, int descriptor) {
  struct stat opened;
  struct stat named;
  return ::fstat(descriptor, &opened) == 0 && ::stat(path, &named) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

// try_lock is true as well where the file system knows no locks.
bool try_lock(const char* path, int descriptor, FileUse use) {
  const int kind = use == FileUse::kRead ? LOCK_SH : LOCK_EX;
  if (::flock(descriptor, kind | LOCK_NB) != 0) return errno != EWOULDBLOCK;
  return is_at(path, descriptor);
}

}  // namespace

ErrorText load_config_file(const char* path, FileUse use, LoadedFile* out) {
  const int num_attempts = use == FileUse::kRead ? 1 : kLockAttempts;
  for (int attempt = 0; attempt < num_attempts && !out->is_locked; ++attempt) {
    if (attempt > 0) {
      out->descriptor = FileDescriptor();
      ::nanosleep(&kLockPause, nullptr);
    }
    out->descriptor = FileDescriptor(::open(path, O_RDONLY | O_CLOEXEC));
    out->open_error = out->descriptor ? 0 : take_last_os_error();
    if (out->descriptor) {
      out->is_locked = try_lock(path, out->descriptor.get(), use);
    } else if (attempt == 0) {
      break;  // later it is only on its way between two names
    }
  }
  if (!out->descriptor) return {};
  if (int error = read_whole(out->descriptor.get(), out->bytes)) {
    return could_not_open(path, error);
  }
  return {};
}

int read_whole(int descriptor, ByteBuffer& bytes) {
  for (;;) {
    if (!bytes.reserve(kChunkSize)) return ENOMEM;
    const ssize_t length = ::read(descriptor, bytes.data() + bytes.size(),
                                  bytes.capacity() - bytes.size());
    if (length == 0) return 0;
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) return errno;
    bytes.resize(bytes.size() + static_cast<std::size_t>(length));
    if (bytes.size() > kMaxFileSize) return EFBIG;
  }
}

ErrorText could_not_open(const char* path, int error_number) {
  return format_error_text("Could not open configuration file %s: %s", path,
                           os_error_text(error_number));
}

SideFiles name_side_files(const char* path) {
  SideFiles side;
  make_temp_name(side.temp, sizeof side.temp, path);
  make_backup_name(side.backup, sizeof side.backup, path);
  side.collide = std::strcmp(side.temp, side.backup) == 0 ||
                 std::strcmp(side.temp, path) == 0 ||
                 std::strcmp(side.backup, path) == 0;
  return side;
}

void delete_side_files(const SideFiles& side) {
  if (side.collide) return;
  ::unlink(side.temp);
  ::unlink(side.backup);
}

}  // namespace velprobe
