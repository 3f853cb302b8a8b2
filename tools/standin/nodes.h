// The agents that velstandin expects, and those that came.
#ifndef VELPROBE_STANDIN_NODES_H_
#define VELPROBE_STANDIN_NODES_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string_view>

#include "trouble.h"
#include "util/error_text.h"
#include "util/text.h"

namespace velprobe::standin {

// Node is one agent by its name, with a trouble of its own if it has a kind.
struct Node {
  Text name;
  Trouble trouble;
  bool is_expected = false;
  std::uint64_t num_sessions = 0;
};

// NodeTable holds nodes in the order of their names, each once.
class NodeTable {
 public:
  // add_entry adds an expected node, NAME or NAME=KIND[:ARGUMENT]; of several
  // with one name the last counts. The table is out of order until sort.
  //   "a node needs a name of 1 to 256 bytes", "this trouble comes before the
  //   agent's name", "Out of memory", the texts of parse_trouble
  ErrorText add_entry(std::string_view entry);
  // load_file adds one entry per line; empty lines and those that begin with
  // "#" are passed over, and blanks around an entry. A pipe is waited for, but
  // not again: who reads a file once more takes it only if it is a regular one.
  //   "%s: %s" with the file's name and the system's text or "not a regular
  //   file", and
  //   "%s:%u: %s" with the line and the texts of add_entry, "the line is too
  //   long", "the line holds a NUL"
  ErrorText load_file(const char* path, bool is_again);
  void sort();

  // find gives the node of that name, or null; find_or_add null when memory is
  // short.
  Node* find(const char* name);
  Node* find_or_add(const char* name);

  // An agent without an entry is refused once an entry without trouble, or a
  // file, names those that are expected.
  void restrict() { is_restricted_ = true; }
  bool is_restricted() const { return is_restricted_; }
  std::span<Node> nodes() { return {nodes_.get(), size_}; }

 private:
  Node* place(const char* name);
  bool make_room();

  std::unique_ptr<Node[]> nodes_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
  bool is_restricted_ = false;
};

// NodeRegister is the table in use, for all threads at once, with the counts
// of what happened.
class NodeRegister {
 public:
  // Beyond so many agents that nobody expected, their names are not kept.
  static constexpr std::size_t kMaxStrangers = 1000;

  // replace puts a sorted table in place, which keeps the counts of before.
  void replace(NodeTable table);
  // decide counts a session of the agent (null: it named none) and tells
  // whether it is accepted; out_trouble is its own trouble.
  //   "Out of memory"
  ErrorText decide(const char* name, bool& out_is_accepted,
                   Trouble& out_trouble);
  // visit calls for each node, and with whether others are refused, under the
  // lock.
  template <typename Call>
  void visit(Call call) {
    const std::lock_guard lock(mutex_);
    for (const Node& node : table_.nodes()) call(node, table_.is_restricted());
  }

 private:
  Node* note(const char* name);

  std::mutex mutex_;
  NodeTable table_;
  std::size_t num_strangers_ = 0;
};

}  // namespace velprobe::standin

#endif  // VELPROBE_STANDIN_NODES_H_
