#include "config_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <utility>

namespace velprobe {
namespace {

constexpr std::size_t kChunkSize = 64 * 1024;
// Far above any real file: a device that never ends must not fill the memory.
constexpr std::size_t kMaxFileSize = 64 * 1024 * 1024;

enum class FileUse { kRead, kRewrite };

// Opening is one try to open the file.
struct Opening {
  // Beside an error it serves for a look at the file only.
  FileDescriptor descriptor;
  int error = 0;
  // Another process has it right now, and will be done soon.
  bool is_busy = false;
};

Opening try_open(const ConfigPaths& paths, int flags) {
  Opening opening;
  opening.error = paths.folder_error;
  if (opening.error != 0) return opening;
  opening.descriptor =
      FileDescriptor(::openat(paths.folder.get(), paths.path_in_folder(),
                              flags | O_NOCTTY | O_CLOEXEC));
  if (!opening.descriptor) opening.error = take_last_os_error();
  return opening;
}

// Remote file systems lock only what is open for writing, so a rewrite opens
// the file for that too, where it may, though it never writes to it.
// O_NONBLOCK: no pipe holds up its own refusal. A file that it may not read is
// still looked at.
Opening try_open(const ConfigPaths& paths, FileUse use) {
  if (use == FileUse::kRead) return try_open(paths, O_RDONLY);
  Opening opening = try_open(paths, O_RDWR | O_NONBLOCK);
  if (opening.error != 0 && opening.error != ENOENT) {
    opening = try_open(paths, O_RDONLY | O_NONBLOCK);
  }
  opening.is_busy = opening.error == EWOULDBLOCK;  // somebody has a lease on it
  if (opening.error != 0 && opening.error != ENOENT && !opening.is_busy) {
    opening.descriptor = try_open(paths, O_PATH).descriptor;
  }
  return opening;
}

// is_being_replaced tells whether another process has a temporary file that may
// be about to become the missing file. A read asks no other machine for locks.
bool is_being_replaced(const ConfigPaths& paths, FileUse use) {
  if (paths.collide || !paths.folder) return false;
  if (use == FileUse::kRead && is_remote(paths.folder.get())) {
    struct stat status;
    return ::fstatat(paths.folder.get(), paths.temp_in_folder(), &status,
                     AT_SYMLINK_NOFOLLOW) == 0;
  }
  FileDescriptor lock;
  return look_at_temp(paths, lock) == TempState::kBeingUsed;
}

// open_file looks twice for a missing file: it may have been between two names
// at the first look and have come to its place before the temporary file was
// looked at.
Opening open_file(const ConfigPaths& paths, FileUse use) {
  Opening opening = try_open(paths, use);
  if (opening.error != ENOENT) return opening;
  opening.is_busy = is_being_replaced(paths, use);
  return opening.is_busy ? std::move(opening) : try_open(paths, use);
}

// open_and_lock leaves is_busy set when the file or its lock stayed with
// somebody else to the end.
Opening open_and_lock(const ConfigPaths& paths) {
  Opening opening;
  for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
    if (attempt > 0) pause_for_lock();
    opening = open_file(paths, FileUse::kRewrite);
    if (opening.error == 0) {
      const int descriptor = opening.descriptor.get();
      opening.is_busy = !try_lock(descriptor, LOCK_EX) ||
                        !is_named(paths, paths.path_in_folder(), descriptor);
    }
    if (!opening.is_busy) break;
  }
  return opening;
}

Opening open_when_present(const ConfigPaths& paths) {
  Opening opening = open_file(paths, FileUse::kRead);
  for (int attempt = 1; opening.is_busy && attempt < kLockAttempts; ++attempt) {
    pause_for_lock();
    opening = open_file(paths, FileUse::kRead);
  }
  return opening;
}

// delete_unused_side_files waits for no lock: it asks only for one that this
// machine grants or refuses at once, and that only rewrites exclude. The file
// may be elsewhere than its folder, behind a link.
void delete_unused_side_files(const ConfigPaths& paths, int descriptor) {
  if (!is_remote(paths.folder.get()) && !is_remote(descriptor) &&
      try_lock(descriptor, LOCK_SH) &&
      is_named(paths, paths.path_in_folder(), descriptor)) {
    delete_side_files(paths);
  }
}

}  // namespace

ErrorText read_old_file(const ConfigPaths& paths, OldFile& out) {
  Opening opening = open_and_lock(paths);
  out.is_refused = opening.is_busy;
  if (opening.error == ENOENT && !opening.is_busy) return {};
  if (!opening.descriptor) {
    // To start anew beside a file between two names would be to lose it.
    errno = opening.error == ENOENT ? EEXIST : opening.error;
    return error_opening(paths);
  }
  const int descriptor = opening.descriptor.get();
  out.descriptor = std::move(opening.descriptor);
  if (::fstat(descriptor, &out.status) != 0) return error_opening(paths);
  if (!S_ISREG(out.status.st_mode)) {
    return could_not_open(paths.path,
                          S_ISDIR(out.status.st_mode) ? EISDIR : EOPNOTSUPP);
  }
  if (opening.error != 0) return {};
  if (int error = read_whole(descriptor, out.bytes)) {
    return could_not_open(paths.path, error);
  }
  return {};
}

ErrorText read_config_bytes(const ConfigPaths& paths, ByteBuffer& out_bytes,
                            int& out_open_error) {
  const Opening opening = open_when_present(paths);
  out_open_error = opening.error;
  if (!opening.descriptor) return {};
  if (int error = read_whole(opening.descriptor.get(), out_bytes)) {
    return could_not_open(paths.path, error);
  }
  delete_unused_side_files(paths, opening.descriptor.get());
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
  return {format_error_text("Could not open configuration file %s: %s", path,
                            os_error_text(error_number)),
          error_number};
}

ErrorText error_opening(const ConfigPaths& paths) {
  return format_error_text("Error opening %s: %s", paths.temp,
                           last_os_error_text());
}

}  // namespace velprobe
