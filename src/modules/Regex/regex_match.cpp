#include <algorithm>
#include <new>

#include "regex_parse.h"
#include "regex_search.h"

namespace velprobe {

bool Scratch::init(const RegexProgram& program) {
  // The budgets add up to a half; arrays may take a quarter more than they use,
  // and a simulation needs some beside them.
  const std::size_t memory = program.limits.memory;
  if (!walker.init(program) || !finder.init(program, walker)) {
    return false;
  }
  if (!search.init(program, walker, Direction::kSearch, memory / 4)) {
    return false;
  }
  search.tag_start(finder.skips());
  return back.init(program, walker, Direction::kBackward, memory / 16 * 3);
}

void Scratch::release() {
  constexpr std::size_t kSmall = 1 << 12;
  cutter.release();
  ways.release();
  if (items.capacity() > kSmall) items = {};
}

namespace {

constexpr unsigned kCompileFlags =
    kRegexExtended | kRegexIgnoreCase | kRegexNoSpans | kRegexNewline;
constexpr unsigned kMatchFlags = kRegexNotLineBegin | kRegexNotLineEnd;

bool is_null(std::string_view text) {
  return text.data() == nullptr && !text.empty();
}

// Takes the program's scratch for one match and puts it back. Two threads that
// match at once get one each; what finds no slot at the end is deleted.
class ScratchLease {
 public:
  explicit ScratchLease(RegexProgram& program) : program_(program) {
    for (std::atomic<Scratch*>& slot : program_.slots) {
      scratch_ = slot.exchange(nullptr, std::memory_order_acquire);
      if (scratch_ != nullptr) return;
    }
    scratch_ = new (std::nothrow) Scratch;
    if (scratch_ != nullptr && !scratch_->init(program_)) {
      delete scratch_;
      scratch_ = nullptr;
    }
  }
  ScratchLease(const ScratchLease&) = delete;
  ScratchLease& operator=(const ScratchLease&) = delete;
  ~ScratchLease() {
    if (scratch_ == nullptr) return;
    scratch_->release();
    // Only the first slot keeps a large one.
    const bool large = scratch_->bytes() > program_.limits.memory / 16;
    for (std::size_t i = 0; i < (large ? 1 : RegexProgram::kNumSlots); ++i) {
      Scratch* empty = nullptr;
      if (program_.slots[i].compare_exchange_strong(
              empty, scratch_, std::memory_order_release,
              std::memory_order_relaxed)) {
        return;
      }
    }
    delete scratch_;
  }

  Scratch* get() const { return scratch_; }

 private:
  RegexProgram& program_;
  Scratch* scratch_ = nullptr;
};

int result_of(Found found) {
  if (found == Found::kYes) return 0;
  return found == Found::kNo ? kRegexNoMatch : kRegexNoSpace;
}

int match_automata(const Subject& subject, Scratch& scratch, std::size_t begin,
                   RegexSpan* spans, std::size_t num_spans) {
  RegexSpan span{};
  Found found = Found::kGivenUp;
  if (num_spans > 1) {
    found = find_by_one_pass(subject, scratch, begin, &span, spans, num_spans);
    begin = static_cast<std::size_t>(span.begin);
  }
  const bool cut = found == Found::kGivenUp;
  if (cut) found = find_span(subject, scratch, begin, num_spans == 0, &span);
  if (found != Found::kYes || num_spans == 0) return result_of(found);
  spans[0] = span;
  if (!cut || num_spans == 1) return 0;
  return find_groups(subject, scratch, span, spans, num_spans);
}

}  // namespace

int regex_compile(Regex* regex, std::string_view pattern, unsigned flags,
                  const RegexLimits& limits) {
  if (regex == nullptr) return kRegexBadArgument;
  *regex = Regex{};
  if (is_null(pattern) || (flags & ~kCompileFlags) != 0) {
    return kRegexBadArgument;
  }
  auto* program = new (std::nothrow) RegexProgram;
  if (program == nullptr) return kRegexNoSpace;
  program->flags = flags;
  program->limits = limits;
  int error =
      regex_parse(pattern, flags, limits, program->tree, &regex->error_offset);
  if (error == 0) error = program_build(*program);
  if (error != 0) {
    delete program;
    return error;
  }
  regex->num_groups = program->tree.groups.size() - 1;
  regex->program = program;
  return 0;
}

int regex_match(const Regex* regex, std::string_view text, RegexSpan* out_spans,
                std::size_t num_spans, unsigned flags, std::size_t begin) {
  if (regex == nullptr || regex->program == nullptr || is_null(text) ||
      begin > text.size() || (flags & ~kMatchFlags) != 0 ||
      (out_spans == nullptr && num_spans != 0)) {
    return kRegexBadArgument;
  }
  RegexProgram& program = *regex->program;
  if (program.flags & kRegexNoSpans) num_spans = 0;
  const ScratchLease lease(program);
  if (lease.get() == nullptr) return kRegexNoSpace;
  Scratch& scratch = *lease.get();
  scratch.steps = 0;
  scratch.walker.steps = 0;
  const Subject subject{program, text.data(), text.size(), flags};
  // Spans beyond the last group are not the business of the search.
  const std::size_t known = regex->num_groups + 1;
  const std::size_t wanted = num_spans < known ? num_spans : known;
  if (!scratch.spans.resize(wanted)) return kRegexNoSpace;
  RegexSpan* spans = scratch.spans.data();
  const int result =
      program.tree.referred != 0
          ? match_backrefs(subject, scratch, begin, spans, wanted)
          : match_automata(subject, scratch, begin, spans, wanted);
  if (result != 0) return result;
  std::copy_n(spans, wanted, out_spans);
  for (std::size_t i = wanted; i < num_spans; ++i) out_spans[i] = {-1, -1};
  return 0;
}

std::uint64_t last_match_steps(const Regex& regex) {
  const Scratch* scratch = regex.program->slots[0].load();
  return scratch == nullptr ? 0 : scratch->steps + scratch->walker.steps;
}

void regex_free(Regex* regex) {
  if (regex == nullptr || regex->program == nullptr) return;
  for (std::atomic<Scratch*>& slot : regex->program->slots) {
    delete slot.load();
  }
  delete regex->program;
  *regex = Regex{};
}

}  // namespace velprobe
