#include "log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <numeric>

#include "net/resolver.h"

namespace velprobe::standin {

namespace {

// is_journal tells whether standard output leads to the journal, as the
// service manager says in JOURNAL_STREAM: device and inode of that socket.
bool is_journal() {
  const char* const stream = std::getenv("JOURNAL_STREAM");
  struct stat output {};
  if (stream == nullptr || ::fstat(STDOUT_FILENO, &output) != 0) return false;
  Line own;
  own.add_format("%llu:%llu", static_cast<unsigned long long>(output.st_dev),
                 static_cast<unsigned long long>(output.st_ino));
  return own.is_whole() && own.view() == stream;
}

// add_time adds the time of day as RFC 3339 has it, in UTC.
void add_time(Line& line) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  tm parts{};
  ::gmtime_r(&now.tv_sec, &parts);
  std::array<char, 32> text;
  std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
  line.add_format("%s.%03ldZ", text.data(), now.tv_nsec / 1000000);
}

long long milliseconds_of(const SessionRecord& record) {
  using std::chrono::milliseconds;
  return std::chrono::duration_cast<milliseconds>(record.finish - record.begin)
      .count();
}

void add_request(Line& line, const SessionRecord& record) {
  if (!record.has_version) {
    line.add("no request");
    return;
  }
  line.add_format("version 0x%04X",
                  static_cast<unsigned>(record.wants.version));
  line.add(", name ");
  line.add_quoted(record.identity.name.get());
  line.add(", domain ");
  line.add_quoted(record.identity.domain.get());
}

void add_answer(Line& line, const SessionRecord& record) {
  if (record.trouble != nullptr) {
    line.add_format("trouble %s: ", record.trouble->name);
  }
  switch (record.answer) {
    case Answer::kNone:
      line.add("not answered");
      break;
    case Answer::kOffer:
      line.add_format("offered version 0x%04X, %s", record.plan.version,
                      record.plan.authentication->name);
      break;
    case Answer::kRefusal:
      line.add("refused: ");
      line.add_quoted(record.plan.reason);
      break;
    case Answer::kOther:
      line.add("answered otherwise");
      break;
  }
}

void add_text(Line& line, const SessionRecord& record) {
  line.add_format("%s:%u: ", address_text(record.peer), record.port);
  add_request(line, record);
  line.add("; ");
  add_answer(line, record);
  line.add("; ");
  line.add(record.end.data());
  line.add_format("; %lld ms", milliseconds_of(record));
}

void add_member(Line& line, const char* name, const char* text) {
  line.add_format(",\"%s\":", name);
  if (text == nullptr) {
    line.add("null");
  } else {
    line.add_json(text);
  }
}

constexpr const char* kAnswerWords[] = {"none", "offer", "refusal", "other"};

const char* word_of(Answer answer) {
  return kAnswerWords[static_cast<std::size_t>(answer)];
}

void add_json(Line& line, const SessionRecord& record) {
  line.add_format(",\"peer\":\"%s:%u\"", address_text(record.peer),
                  record.port);
  if (record.has_version) {
    line.add_format(",\"version\":%d", record.wants.version);
  } else {
    line.add(",\"version\":null");
  }
  add_member(line, "name", record.identity.name.get());
  add_member(line, "domain", record.identity.domain.get());
  add_member(line, "trouble",
             record.trouble != nullptr ? record.trouble->name : nullptr);
  add_member(line, "answer", word_of(record.answer));
  if (record.answer == Answer::kOffer) {
    line.add_format(",\"offered_version\":%u", record.plan.version);
    add_member(line, "authentication", record.plan.authentication->name);
  }
  if (record.answer == Answer::kRefusal) {
    add_member(line, "reason", record.plan.reason);
  }
  add_member(line, "end", record.end.data());
  line.add_format(",\"milliseconds\":%lld", milliseconds_of(record));
}

}  // namespace

void format_session(Line& line, LogForm form, const SessionRecord& record) {
  form == LogForm::kText ? add_text(line, record) : add_json(line, record);
}

void Log::open(LogForm form) {
  form_ = form;
  is_stamped_ = !is_journal();
}

void Log::begin(Line& line, const char* event) const {
  if (form_ == LogForm::kJsonLines) {
    line.add("{\"time\":\"");
    add_time(line);
    line.add_format("\",\"event\":\"%s\"", event);
  } else if (is_stamped_) {
    add_time(line);
    line.add(" ");
  }
}

void Log::end(Line& line) const {
  line.add(form_ == LogForm::kJsonLines ? "}\n" : "\n");
}

bool Log::write(const Line& lines) {
  // Half a line would be a lie, or no JSON.
  if (!lines.is_whole()) {
    std::fputs("velstandin: no memory for a line of the log\n", stderr);
    return false;
  }
  if (error_number_ != 0) return false;
  const std::size_t size = lines.view().size();
  if (size == 0) return true;  // a summary without agents
  errno = 0;
  // With a buffer by lines, the calls may hide a failure that they note.
  const bool is_written =
      std::fwrite(lines.view().data(), 1, size, stdout) == size &&
      std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
  if (!is_written) error_number_ = errno != 0 ? errno : EIO;
  return error_number_ == 0;
}

ErrorText Log::failure() {
  const int number = error_number_;
  if (number == 0) return {};
  return {format_error_text("Error writing the log: %s", os_error_text(number)),
          number};
}

ErrorText Log::tell_listening(const Ipv4Address& address, std::uint16_t port) {
  Line line;
  if (form_ == LogForm::kText) {
    line.add_format("Listening on %s:%u", address_text(address), port);
  } else {
    begin(line, "listening");
    line.add_format(",\"address\":\"%s:%u\"", address_text(address), port);
  }
  end(line);
  const std::lock_guard lock(mutex_);
  if (write(line)) return {};
  const ErrorText error = failure();
  return error ? error : ErrorText(kOutOfMemory);
}

void Log::tell_session(const SessionRecord& record) {
  Line line;
  begin(line, "session");
  format_session(line, form_, record);
  end(line);
  const std::lock_guard lock(mutex_);
  ++num_by_answer_[static_cast<std::size_t>(record.answer)];
  write(line);
}

void Log::tell_summary(NodeRegister& nodes) {
  Line agents;
  nodes.visit([&](const Node& node, bool is_restricted) {
    add_node(agents, node, is_restricted);
  });
  Line counts;
  const std::lock_guard lock(mutex_);
  add_counts(counts);
  if (write(counts)) write(agents);
}

void Log::add_counts(Line& line) const {
  const auto total =
      std::accumulate(num_by_answer_.begin(), num_by_answer_.end(), 0ULL);
  const auto count = [&](Answer answer) {
    return static_cast<unsigned long long>(
        num_by_answer_[static_cast<std::size_t>(answer)]);
  };
  begin(line, "summary");
  line.add_format(form_ == LogForm::kText
                      ? "Summary: sessions %llu; offered %llu; refused %llu; "
                        "answered otherwise %llu; not answered %llu"
                      : ",\"sessions\":%llu,\"offer\":%llu,\"refusal\":%llu,"
                        "\"other\":%llu,\"none\":%llu",
                  total, count(Answer::kOffer), count(Answer::kRefusal),
                  count(Answer::kOther), count(Answer::kNone));
  end(line);
}

void Log::add_node(Line& lines, const Node& node, bool is_restricted) const {
  const auto num_sessions = static_cast<unsigned long long>(node.num_sessions);
  begin(lines, "node");
  if (form_ == LogForm::kJsonLines) {
    add_member(lines, "name", node.name.get());
    lines.add_format(",\"expected\":%s,\"sessions\":%llu",
                     node.is_expected ? "true" : "false", num_sessions);
  } else {
    lines.add("Node ");
    lines.add_quoted(node.name.get());
    if (num_sessions == 0) {
      lines.add(": never came");
    } else {
      lines.add_format(": sessions %llu", num_sessions);
    }
    if (is_restricted && !node.is_expected) lines.add(", not expected");
  }
  end(lines);
}

}  // namespace velprobe::standin
