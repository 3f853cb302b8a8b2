#include "nodes.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "answer.h"
#include "util/owners.h"

namespace velprobe::standin {

namespace {

bool is_before(const Node& node, const char* name) {
  return std::strcmp(node.name.get(), name) < 0;
}

// Space for the longest entry: name, kind and reason, and some blanks.
using LineBuffer = std::array<char, 2048>;

// take_line adds what one line of a file holds. Read by fgets, a line that is
// not whole lacks its end: it was too long, unless a NUL cut the text short.
ErrorText take_line(NodeTable& table, const LineBuffer& buffer, bool is_first,
                    bool is_last) {
  std::string_view line = buffer.data();
  if (!line.ends_with('\n') && !is_last) {
    return line.size() + 1 < buffer.size() ? "the line holds a NUL"
                                           : "the line is too long";
  }
  if (is_first) line = without_mark(line);
  const std::string_view entry = trimmed(line);
  if (entry.empty() || entry.starts_with('#')) return {};
  return table.add_entry(entry);
}

ErrorText open_once(const char* path, FileDescriptor& out_list) {
  out_list = FileDescriptor(::open(path, O_RDONLY | O_CLOEXEC));
  return out_list ? ErrorText() : os_failure(path);
}

// To open a pipe would let its writer in. The file that was opened decides.
ErrorText open_again(const char* path, FileDescriptor& out_list) {
  struct stat status {};
  const auto is_other = [&] { return !S_ISREG(status.st_mode); };
  if (::stat(path, &status) != 0) return os_failure(path);
  if (!is_other()) {
    out_list = FileDescriptor(
        ::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!out_list || ::fstat(out_list.get(), &status) != 0) {
      return os_failure(path);
    }
  }
  if (!is_other()) return {};
  return format_error_text("%s: not a regular file", path);
}

ErrorText open_list(const char* path, bool is_again, FilePtr& out_file) {
  FileDescriptor list;
  if (ErrorText error =
          is_again ? open_again(path, list) : open_once(path, list)) {
    return error;
  }
  out_file.reset(::fdopen(list.get(), "r"));
  if (!out_file) return os_failure(path);
  list.release();  // the file's now
  return {};
}

}  // namespace

bool NodeTable::make_room() {
  if (size_ < capacity_) return true;
  const std::size_t capacity = std::max<std::size_t>(16, 2 * capacity_);
  std::unique_ptr<Node[]> larger(new (std::nothrow) Node[capacity]);
  if (!larger) return false;
  std::move(nodes_.get(), nodes_.get() + size_, larger.get());
  nodes_ = std::move(larger);
  capacity_ = capacity;
  return true;
}

ErrorText NodeTable::add_entry(std::string_view entry) {
  const std::size_t mark = entry.find('=');
  const std::string_view name = entry.substr(0, mark);
  if (name.empty() || name.size() > kLongestName) {
    return "a node needs a name of 1 to 256 bytes";
  }
  Node node;
  node.is_expected = true;
  if (mark == entry.npos) {
    restrict();
  } else if (ErrorText error =
                 parse_trouble(entry.substr(mark + 1), node.trouble)) {
    return error;
  }
  // Neither a trouble of discovery nor one before the request has a name to go
  // by.
  if (node.trouble.kind != nullptr && (node.trouble.kind->respond != nullptr ||
                                       strikes_at_once(node.trouble))) {
    return "this trouble comes before the agent's name";
  }
  node.name = copy_text(name);
  if (!node.name || !make_room()) return kOutOfMemory;
  nodes_[size_++] = std::move(node);
  return {};
}

ErrorText NodeTable::load_file(const char* path, bool is_again) {
  FilePtr file;
  if (ErrorText error = open_list(path, is_again, file)) return error;
  restrict();
  LineBuffer buffer;
  unsigned num_lines = 0;
  while (std::fgets(buffer.data(), buffer.size(), file.get()) != nullptr) {
    ++num_lines;
    if (ErrorText error = take_line(*this, buffer, num_lines == 1,
                                    std::feof(file.get()) != 0)) {
      return error.wrapped(
          format_error_text("%s:%u: %s", path, num_lines, error.c_str()));
    }
  }
  if (std::ferror(file.get()) != 0) return os_failure(path);
  return {};
}

void NodeTable::sort() {
  Node* const end = nodes_.get() + size_;
  std::stable_sort(nodes_.get(), end, [](const Node& a, const Node& b) {
    return is_before(a, b.name.get());
  });
  // The last of each name stays.
  std::size_t kept = 0;
  for (std::size_t i = 0; i < size_; ++i) {
    const bool is_same = kept > 0 && std::strcmp(nodes_[kept - 1].name.get(),
                                                 nodes_[i].name.get()) == 0;
    if (!is_same) ++kept;
    if (kept - 1 != i) nodes_[kept - 1] = std::move(nodes_[i]);
  }
  size_ = kept;
}

Node* NodeTable::place(const char* name) {
  return std::lower_bound(nodes_.get(), nodes_.get() + size_, name, is_before);
}

Node* NodeTable::find(const char* name) {
  Node* const at = place(name);
  const bool is_found =
      at != nodes_.get() + size_ && std::strcmp(at->name.get(), name) == 0;
  return is_found ? at : nullptr;
}

Node* NodeTable::find_or_add(const char* name) {
  if (Node* const found = find(name)) return found;
  Node node;
  node.name = copy_text(name);
  if (!node.name || !make_room()) return nullptr;
  Node* const at = place(name);
  std::move_backward(at, nodes_.get() + size_, nodes_.get() + size_ + 1);
  *at = std::move(node);
  ++size_;
  return at;
}

void NodeRegister::replace(NodeTable table) {
  const std::lock_guard lock(mutex_);
  std::swap(table_, table);
  num_strangers_ = 0;
  for (const Node& old : table.nodes()) {
    if (old.num_sessions == 0) continue;
    if (Node* const node = note(old.name.get())) {
      node->num_sessions = old.num_sessions;
    }
  }
}

Node* NodeRegister::note(const char* name) {
  if (Node* const found = table_.find(name)) return found;
  if (num_strangers_ == kMaxStrangers) return nullptr;
  ++num_strangers_;
  return table_.find_or_add(name);
}

ErrorText NodeRegister::decide(const char* name, bool& out_is_accepted,
                               Trouble& out_trouble) {
  const std::lock_guard lock(mutex_);
  out_is_accepted = !table_.is_restricted();
  if (name == nullptr) return {};
  Node* const node = note(name);
  if (node == nullptr) return {};
  ++node->num_sessions;
  if (!node->is_expected) return {};
  out_is_accepted = true;
  return copy_trouble(node->trouble, out_trouble);
}

}  // namespace velprobe::standin
