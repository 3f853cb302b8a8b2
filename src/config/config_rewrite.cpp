#include "config_rewrite.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>

#include "../util/owners.h"
#include "assignments.h"
#include "config_file.h"

namespace velprobe {
namespace {

ErrorText error_opening(const char* temp) {
  return format_error_text("Error opening %s: %s", temp, last_os_error_text());
}

ErrorText error_writing(const char* temp) {
  return format_error_text("Error writing to %s: %s", temp,
                           last_os_error_text());
}

ErrorText could_not_rename(const char* from, const char* to) {
  return format_error_text("Could not rename %s to %s: %s", from, to,
                           last_os_error_text());
}

// NewFile is the temporary file while it is written. Its writes go straight to
// the system: there are only a few, each of them long or the last ones.
struct NewFile {
  const char* name;
  FileDescriptor descriptor;
  // Permission bits to end with; none: those that it was created with.
  std::optional<mode_t> mode;
};

// take_after gives the file the owner and the group of the old one, as far as
// the process may, and plans its permission bits.
void take_after(const struct stat& old, NewFile* file) {
  const int descriptor = file->descriptor.get();
  const mode_t mode = old.st_mode & 07777;
  file->mode = mode;
  if (::fchown(descriptor, old.st_uid, old.st_gid) == 0) return;
  // Only a privileged process gives a file away, but its own groups are free.
  // Set-ID bits were never meant for an owner or a group that it has instead.
  const bool has_group =
      ::fchown(descriptor, static_cast<uid_t>(-1), old.st_gid) == 0;
  file->mode = mode & (has_group ? 02777 : 0777);
}

// create_new_file creates the temporary file, which must not exist. When there
// is an old file to take after, nobody but the owner may read the new one until
// it is finished.
ErrorText create_new_file(const char* path, NewFile* file) {
  struct stat old;
  const bool has_old = ::stat(path, &old) == 0;
  file->descriptor = FileDescriptor(
      ::open(file->name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
             has_old ? 0600 : 0666));
  if (!file->descriptor) return error_opening(file->name);
  if (has_old) take_after(old, file);
  return {};
}

ErrorText write_bytes(const NewFile& file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written =
        ::write(file.descriptor.get(), bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return error_writing(file.name);
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return {};
}

// copy_with_new_values writes the old file's bytes with the value of each
// assignment replaced, and releases the values used.
ErrorText copy_with_new_values(std::string_view old, ConfigKey* keys,
                               const NewFile& file) {
  AssignmentWalk walk{old, keys};
  std::size_t copied = 0;
  for (Assignment assignment; next_assignment(&walk, &assignment);) {
    ConfigKey* key = assignment.key;
    if (!key->value) {
      return format_error_text("No value supplied for key %s", key->key);
    }
    const std::string_view before =
        old.substr(copied, assignment.value_begin - copied);
    if (ErrorText error = write_bytes(file, before)) return error;
    if (ErrorText error = write_bytes(file, key->value.get())) return error;
    key->value.reset();
    copied = assignment.value_end;
  }
  return write_bytes(file, old.substr(copied));
}

ErrorText append_other_keys(const ConfigKey* keys, const NewFile& file) {
  for (const ConfigKey* key = keys; key != nullptr; key = key->next) {
    if (!key->value) continue;
    const std::string_view parts[] = {key->key, "=", key->value.get(), "\n"};
    for (std::string_view part : parts) {
      if (ErrorText error = write_bytes(file, part)) return error;
    }
  }
  return {};
}

// finish_new_file brings the file to the disk. The permission bits come last,
// since both writing and changing the owner can clear some of them.
ErrorText finish_new_file(NewFile* file) {
  const int descriptor = file->descriptor.get();
  const bool has_mode = !file->mode || ::fchmod(descriptor, *file->mode) == 0;
  if (!has_mode || ::fsync(descriptor) != 0 ||
      ::close(file->descriptor.release()) != 0) {
    return error_writing(file->name);
  }
  return {};
}

// sync_folder_of makes the renames in the folder of path outlast a power
// failure, where the file system can. They are done either way.
void sync_folder_of(const char* path) {
  const char* slash = std::strrchr(path, '/');
  const Text folder =
      slash == nullptr
          ? copy_text(".")
          : copy_text({path, static_cast<std::size_t>(slash - path) + 1});
  if (!folder) return;
  const FileDescriptor descriptor(
      ::open(folder.get(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (descriptor) ::fsync(descriptor.get());
}

// swap_files turns path into the backup and the temporary file into path.
ErrorText swap_files(const char* path, const SideFiles& side) {
  if (std::rename(path, side.backup) != 0 && errno != ENOENT) {
    return could_not_rename(path, side.backup);
  }
  if (std::rename(side.temp, path) != 0) {
    const ErrorText error = could_not_rename(side.temp, path);
    if (std::rename(side.backup, path) == 0) return error;
    return format_error_text("Catastrophic error renaming %s: %s", path,
                             last_os_error_text());
  }
  sync_folder_of(path);
  return {};
}

}  // namespace

ErrorText rewrite_config_file(const char* path, ConfigKey* keys) {
  LoadedFile old;
  if (ErrorText error = load_config_file(path, FileUse::kRewrite, &old))
    return error;

  const SideFiles side = name_side_files(path);
  if (side.collide) {
    errno = ENAMETOOLONG;
    return error_opening(side.temp);
  }
  delete_side_files(side);

  NewFile file{side.temp, {}, {}};
  if (ErrorText error = create_new_file(path, &file)) return error;
  if (ErrorText error = copy_with_new_values(old.bytes.view(), keys, file)) {
    return error;
  }
  if (ErrorText error = append_other_keys(keys, file)) return error;
  if (ErrorText error = finish_new_file(&file)) return error;
  return swap_files(path, side);
}

}  // namespace velprobe
