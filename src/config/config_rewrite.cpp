#include "config_rewrite.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string_view>

#include "../util/owners.h"
#include "assignments.h"
#include "config_file.h"
#include "config_paths.h"
#include "new_file.h"

namespace velprobe {
namespace {

ErrorText could_not_rename(const char* from, const char* to) {
  return format_error_text("Could not rename %s to %s: %s", from, to,
                           last_os_error_text());
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

// sync_folder makes the renames outlast a power failure, where the file system
// can. They are done either way.
void sync_folder(const ConfigPaths& paths) {
  const FileDescriptor folder(
      ::openat(paths.folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder) ::fsync(folder.get());
}

bool rename_in_folder(const ConfigPaths& paths, const char* from,
                      const char* to) {
  const int folder = paths.folder.get();
  return ::renameat(folder, from, folder, to) == 0;
}

// swap_files turns the file into the backup and the temporary file into the
// file. The old file goes first: at every moment one name has its bytes, and
// the new ones, which are on the disk by now, have another.
ErrorText swap_files(const ConfigPaths& paths) {
  const char* path = paths.path_in_folder();
  const char* temp = paths.temp_in_folder();
  const char* backup = paths.backup_in_folder();
  if (!rename_in_folder(paths, path, backup) && errno != ENOENT) {
    return could_not_rename(paths.path, paths.backup);
  }
  if (!rename_in_folder(paths, temp, path)) {
    const ErrorText error = could_not_rename(paths.temp, paths.path);
    if (rename_in_folder(paths, backup, path)) return error;
    return format_error_text("Catastrophic error renaming %s: %s", paths.path,
                             last_os_error_text());
  }
  sync_folder(paths);
  return {};
}

}  // namespace

ErrorText rewrite_config_file(const char* path, ConfigKey* keys) {
  const ConfigPaths paths = open_config_paths(path);
  OldFile old;
  if (ErrorText error = read_old_file(paths, old)) return error;
  if (paths.collide) {
    errno = ENAMETOOLONG;
    return error_opening(paths);
  }
  // Without the lock the side files may be those of a rewrite that goes on.
  if (!old.is_refused) delete_side_files(paths);

  NewFile file{.paths = &paths, .old = old.descriptor ? &old : nullptr};
  if (ErrorText error = create_new_file(file)) return error;
  if (ErrorText error = copy_with_new_values(old.bytes.view(), keys, file)) {
    return error;
  }
  if (ErrorText error = append_other_keys(keys, file)) return error;
  if (ErrorText error = finish_new_file(file)) return error;
  return swap_files(paths);
}

}  // namespace velprobe
