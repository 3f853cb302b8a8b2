#include "new_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>

#include "../util/byte_buffer.h"

namespace velprobe {
namespace {

constexpr const char* kAccessList = "system.posix_acl_access";
constexpr const char* kSecurityLabels[] = {"security.selinux",
                                           "security.SMACK64"};

ErrorText error_writing(const NewFile& file) {
  return format_error_text("Error writing to %s: %s", file.paths->temp,
                           last_os_error_text());
}

// take_owner plans the permission bits as well. Set-ID bits are never kept: the
// bytes may be of somebody who could not have set them.
void take_owner(NewFile& file) {
  const int descriptor = file.descriptor.get();
  const struct stat& old = file.old->status;
  file.mode = old.st_mode & 0777;
  // Only a privileged process gives a file away, but its own groups are free.
  file.has_group =
      ::fchown(descriptor, old.st_uid, old.st_gid) == 0 ||
      ::fchown(descriptor, static_cast<uid_t>(-1), old.st_gid) == 0;
}

// lock_new_file is false when another process took the file for one that nobody
// writes any more, in the moment between its creation and its lock.
bool lock_new_file(const NewFile& file) {
  const int descriptor = file.descriptor.get();
  for (int attempt = 1; !try_lock(descriptor, LOCK_EX); ++attempt) {
    if (attempt == kLockAttempts) return false;
    pause_for_lock();
  }
  return is_named(*file.paths, file.paths->temp_in_folder(), descriptor);
}

bool is_no_attribute(int error) {
  return error == ENODATA || error == EOPNOTSUPP;
}

// lacks_attribute is false also when that is not to be found out.
bool lacks_attribute(int descriptor, const char* name) {
  return ::fgetxattr(descriptor, name, nullptr, 0) < 0 &&
         is_no_attribute(errno);
}

// remove_attribute is true when the file has no such attribute any more.
bool remove_attribute(int descriptor, const char* name) {
  return ::fremovexattr(descriptor, name) == 0 || is_no_attribute(errno);
}

// copy_attribute is true when both files have the same attribute, or none.
bool copy_attribute(int from, int to, const char* name) {
  const ssize_t size = ::fgetxattr(from, name, nullptr, 0);
  if (size < 0) return is_no_attribute(errno) && remove_attribute(to, name);
  ByteBuffer value;
  if (!value.reserve(static_cast<std::size_t>(size))) return false;
  const ssize_t length =
      ::fgetxattr(from, name, value.data(), value.capacity());
  return length >= 0 && ::fsetxattr(to, name, value.data(),
                                    static_cast<std::size_t>(length), 0) == 0;
}

// without_group takes the group's bits away, and those of others that the group
// did not have: its members are among the others now.
mode_t without_group(mode_t mode) {
  return mode & (0700 | ((mode >> 3) & 07));
}

// take_access_list also rids the file of a list that it got from the folder.
// With a list, the group's bits are the limit for everyone whom it names, and
// those whom it shuts out would be among the others without it.
void take_access_list(NewFile& file) {
  const int descriptor = file.descriptor.get();
  const int old = file.old->descriptor.get();
  if (file.has_group && copy_attribute(old, descriptor, kAccessList)) return;
  const bool had_list = !lacks_attribute(old, kAccessList);
  remove_attribute(descriptor, kAccessList);
  file.mode = had_list ? file.mode & 0700 : without_group(file.mode);
}

bool set_mode(int descriptor, mode_t mode) {
  if (::fchmod(descriptor, mode) == 0) return true;
  const int error = errno;
  struct stat status;
  const bool was_right =
      ::fstat(descriptor, &status) == 0 && (status.st_mode & 07777) == mode;
  errno = error;
  return was_right;
}

bool take_access(NewFile& file) {
  const int descriptor = file.descriptor.get();
  for (const char* label : kSecurityLabels) {
    copy_attribute(file.old->descriptor.get(), descriptor, label);
  }
  take_access_list(file);
  // The bits come last: writing and changing the owner can clear some of them,
  // and a list sets them.
  return set_mode(descriptor, file.mode);
}

}  // namespace

ErrorText create_new_file(NewFile& file) {
  const ConfigPaths& paths = *file.paths;
  if (!paths.folder) {
    errno = paths.folder_error;
    return error_opening(paths);
  }
  file.descriptor = FileDescriptor(
      ::openat(paths.folder.get(), paths.temp_in_folder(),
               O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
               file.old != nullptr ? 0600 : 0666));
  if (!file.descriptor) return error_opening(paths);
  if (!lock_new_file(file)) return error_opening(paths);
  if (file.old != nullptr) take_owner(file);
  return {};
}

ErrorText write_bytes(const NewFile& file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written =
        ::write(file.descriptor.get(), bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return error_writing(file);
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return {};
}

ErrorText finish_new_file(NewFile& file) {
  const int descriptor = file.descriptor.get();
  if (file.old != nullptr && !take_access(file)) return error_writing(file);
  // Closing tells the last errors of a disk; a second descriptor keeps the
  // lock.
  FileDescriptor lock(::fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
  if (!lock || ::fsync(descriptor) != 0 ||
      ::close(file.descriptor.release()) != 0) {
    return error_writing(file);
  }
  file.descriptor = std::move(lock);
  return {};
}

}  // namespace velprobe
