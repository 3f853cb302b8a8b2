// The configuration file and the two files beside it: their names, the folder
// that they are in, and who works on them.
#ifndef VELPROBE_CONFIG_CONFIG_PATHS_H_
#define VELPROBE_CONFIG_CONFIG_PATHS_H_

#include <cstddef>

#include "../util/owners.h"

namespace velprobe {

// ConfigPaths names the configuration file, its temporary file and its backup,
// for messages and for calls. The calls go by the folder's descriptor, so that
// all of them reach the same folder whatever its path names by then.
struct ConfigPaths {
  const char* path;
  char temp[256];
  char backup[256];
  // The names got cut until one of them is the other one or the path. Then
  // temp and backup are for messages only.
  bool collide;
  // Of O_PATH; none, and the system's error number beside, when the folder
  // cannot be opened.
  FileDescriptor folder;
  int folder_error = 0;
  std::size_t folder_length;  // of the folder's part in each name

  // The names as the folder has them.
  const char* path_in_folder() const;
  const char* temp_in_folder() const { return temp + folder_length; }
  const char* backup_in_folder() const { return backup + folder_length; }
};

// open_config_paths forms the names for path, which must outlive them, and
// opens the folder.
ConfigPaths open_config_paths(const char* path);

// try_lock asks for a lock (LOCK_SH or LOCK_EX of flock) and does not wait. A
// file system that knows no locks refuses none.
[[nodiscard]] bool try_lock(int descriptor, int kind);

// is_named tells whether a name in the folder, links followed, is that of the
// open file. When it is not, errno says why: EEXIST for another file's.
bool is_named(const ConfigPaths& paths, const char* name, int descriptor);

// is_remote tells whether the locks of an open file or folder are those of
// another machine, on which a request may wait for long.
bool is_remote(int descriptor);

// TempState tells what the name of the temporary file stands for.
enum class TempState {
  kAbsent,
  kStale,     // nobody writes it any more
  kBeingUsed  // its lock is another process's
};

// look_at_temp tells the state of the temporary file. When it is stale, nobody
// else will take its name away or use it for as long as out_lock is open.
TempState look_at_temp(const ConfigPaths& paths, FileDescriptor& out_lock);

// delete_side_files deletes the temporary file and the backup as far as they
// exist, unless they collide or another process uses them.
void delete_side_files(const ConfigPaths& paths);

// How often to try for what another process has, and the pause before each
// further try: five seconds in all.
inline constexpr int kLockAttempts = 50;
void pause_for_lock();

}  // namespace velprobe

#endif  // VELPROBE_CONFIG_CONFIG_PATHS_H_
