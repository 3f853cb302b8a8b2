// judge_rule REGEX LINE: writes a rule as a server sends it, reads it back as
// an agent does, and judges the line by its regular expression.
#include <velprobe/modules/Regex/regex.h>
#include <velprobe/protocol/memory_stream.h>
#include <velprobe/protocol/messages.h>

#include <cstdio>

using namespace velprobe;

static ErrorText receive_rule(const char* pattern, rule& received) {
  BerStreamPtr stream;
  rule sent;
  sent.regex = copy_text(pattern);
  sent.destination = copy_text("operators");
  if (!sent.regex || !sent.destination) return kOutOfMemory;
  if (ErrorText error = memory_stream_open(stream)) return error;
  if (ErrorText error = write_rule(*stream, sent)) return error;
  return read_rule(*stream, received, 0);
}

// What a peer sent may be any bytes; compiling and matching them is bounded.
static ErrorText judge(const rule& judged, const char* line) {
  const RegexOwner regex(new Regex);
  const char* pattern = judged.regex.get();
  if (int error = regex_compile(regex.get(), pattern, kRegexExtended)) {
    std::fprintf(stderr, "At offset %zu: ", regex->error_offset);
    return regex_error_text(error);
  }
  RegexSpan span{};
  const int result = regex_match(regex.get(), line, &span, 1, 0);
  if (result != 0) return regex_error_text(result);
  std::printf("matches from %td to %td: to %s\n", span.begin, span.end,
              judged.destination.get());
  return {};
}

int main(int argc, char** argv) {
  rule received;
  ErrorText error = "Usage: judge_rule REGEX LINE";
  if (argc == 3) error = receive_rule(argv[1], received);
  if (!error) error = judge(received, argv[2]);
  if (error) std::fprintf(stderr, "%s\n", error.c_str());
  return error ? 1 : 0;
}
