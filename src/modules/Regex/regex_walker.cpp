#include "regex_automaton.h"

namespace velprobe {

bool Walker::init(const RegexProgram& program) {
  program_ = &program;
  return stamps_.resize(program.code.size());
}

std::size_t Walker::bytes() const {
  return stamps_.bytes() + stack_.bytes() + found.bytes() + marks.bytes();
}

void Walker::restart() {
  if (++stamp_ == 0) {
    std::memset(stamps_.data(), 0, stamps_.size() * sizeof stamps_[0]);
    stamp_ = 1;
  }
  found.clear();
  marks.clear();
  accepted = false;
}

bool Walker::forward(std::uint32_t pc, std::uint32_t last, Place place) {
  for (stack_.clear();;) {
    // Follows one way; the other one of a kSplit waits on the stack.
    while (visit(pc)) {
      if (pc == last) {
        accepted = true;
        break;
      }
      const Inst inst = program_->code[pc];
      if (inst.op() == Op::kByte) {
        if (!found.push(pc)) return false;
        break;
      }
      if (inst.op() == Op::kAssert && !passes(inst.arg(), place)) break;
      if (inst.op() == Op::kSplit && !stack_.push(inst.arg())) return false;
      pc = inst.op() == Op::kJump ? inst.arg() : pc + 1;
    }
    if (stack_.empty()) return true;
    pc = stack_.back();
    stack_.pop();
  }
}

bool Walker::push_jumps(std::uint32_t pc, std::uint32_t first,
                        std::uint32_t last) {
  const std::uint32_t end = program_->jump_offsets[pc + 1];
  for (std::uint32_t i = program_->jump_offsets[pc]; i < end; ++i) {
    const std::uint32_t from = program_->jumps[i];
    const bool within = from >= first && from < last;
    if (within && !stack_.push(from)) return false;
  }
  return true;
}

bool Walker::backward(std::uint32_t pc, std::uint32_t first, std::uint32_t last,
                      Place place) {
  for (stack_.clear();;) {
    while (visit(pc)) {
      if (program_->is_marked(pc) && !marks.push(pc)) return false;
      if (!push_jumps(pc, first, last)) return false;
      if (pc == first) {
        accepted = true;
        break;
      }
      const Inst before = program_->code[--pc];
      if (before.op() == Op::kByte) {
        if (!found.push(pc)) return false;
        break;
      }
      if (before.op() == Op::kJump) break;
      if (before.op() == Op::kAssert && !passes(before.arg(), place)) break;
    }
    if (stack_.empty()) return true;
    pc = stack_.back();
    stack_.pop();
  }
}

}  // namespace velprobe
