#include "config_paths.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <iterator>
#include <string_view>

#include "../util/error_text.h"
#include "../util/file_replacement.h"
#include "../util/text.h"

namespace velprobe {
namespace {

constexpr timespec kLockPause = {0, 100'000'000};

std::size_t folder_length_of(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == path.npos ? 0 : slash + 1;
}

// To search the folder is enough for all but its sync: it need not be readable.
void open_folder(ConfigPaths& paths) {
  char folder[PATH_MAX] = ".";
  if (paths.folder_length >= sizeof folder) {
    paths.folder_error = ENAMETOOLONG;
    return;
  }
  if (paths.folder_length > 0) {
    copy_bounded(folder, paths.path, paths.folder_length + 1);
  }
  paths.folder =
      FileDescriptor(::open(folder, O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!paths.folder) paths.folder_error = take_last_os_error();
}

}  // namespace

const char* ConfigPaths::path_in_folder() const {
  // "folder/" is the folder itself.
  const char* name = path + folder_length;
  return *name == '\0' && folder_length > 0 ? "." : name;
}

ConfigPaths open_config_paths(const char* path) {
  ConfigPaths paths{};
  paths.path = path;
  make_temp_name(paths.temp, sizeof paths.temp, path);
  make_backup_name(paths.backup, sizeof paths.backup, path);
  paths.collide = std::strcmp(paths.temp, paths.backup) == 0 ||
                  std::strcmp(paths.temp, path) == 0 ||
                  std::strcmp(paths.backup, path) == 0;
  paths.folder_length = folder_length_of(path);
  open_folder(paths);
  return paths;
}

bool try_lock(int descriptor, int kind) {
  if (::flock(descriptor, kind | LOCK_NB) == 0) return true;
  // A remote file system locks exclusively only what is open for writing.
  return errno != EWOULDBLOCK && errno != EBADF;
}

bool is_named(const ConfigPaths& paths, const char* name, int descriptor) {
  struct stat opened;
  struct stat named;
  if (::fstat(descriptor, &opened) != 0 ||
      ::fstatat(paths.folder.get(), name, &named, 0) != 0) {
    return false;
  }
  errno = EEXIST;  // for when it is another file's
  return opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

bool is_remote(int descriptor) {
  static constexpr unsigned kRemote[] = {NFS_SUPER_MAGIC,  SMB_SUPER_MAGIC,
                                         CIFS_SUPER_MAGIC, SMB2_SUPER_MAGIC,
                                         CEPH_SUPER_MAGIC, AFS_SUPER_MAGIC};
  struct statfs status;
  if (::fstatfs(descriptor, &status) != 0) return true;
  return std::find(std::begin(kRemote), std::end(kRemote),
                   static_cast<unsigned>(status.f_type)) != std::end(kRemote);
}

TempState look_at_temp(const ConfigPaths& paths, FileDescriptor& out_lock) {
  const auto open_for = [&paths](int access) {
    return FileDescriptor(
        ::openat(paths.folder.get(), paths.temp_in_folder(),
                 access | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  };
  out_lock = open_for(O_RDWR);
  if (!out_lock && errno == ENOENT) return TempState::kAbsent;
  if (!out_lock) out_lock = open_for(O_RDONLY);
  if (!out_lock) {
    // A link, a socket, a file without any right: none is of a rewrite that
    // could go on beside this process.
    const bool is_no_rewrite =
        errno == ELOOP || errno == ENXIO || errno == EACCES;
    return is_no_rewrite ? TempState::kStale : TempState::kBeingUsed;
  }
  const bool is_ours = try_lock(out_lock.get(), LOCK_EX) &&
                       is_named(paths, paths.temp_in_folder(), out_lock.get());
  return is_ours ? TempState::kStale : TempState::kBeingUsed;
}

void delete_side_files(const ConfigPaths& paths) {
  if (paths.collide) return;
  FileDescriptor lock;
  if (look_at_temp(paths, lock) == TempState::kBeingUsed) return;
  ::unlinkat(paths.folder.get(), paths.temp_in_folder(), 0);
  ::unlinkat(paths.folder.get(), paths.backup_in_folder(), 0);
}

void pause_for_lock() {
  ::nanosleep(&kLockPause, nullptr);
}

}  // namespace velprobe
