// A session of velstandin: the first byte picks the trouble, the others are
// what the client says. Whatever it is, the log gets one line whose parts can
// be told apart, and an object of JSON.
#include <nlohmann/json.hpp>
#include <string>

#include "fuzz.h"
#include "protocol/messages.h"
#include "standin/log.h"
#include "standin/session.h"

namespace velprobe {
namespace {

using namespace standin;

Trouble trouble_of(std::uint8_t byte) {
  Trouble trouble;
  const auto kinds = trouble_kinds();
  if (byte >= kinds.size() || kinds[byte].respond != nullptr) return trouble;
  std::string text = kinds[byte].name;
  if (kinds[byte].form == ArgumentForm::kCount) text += ":3";
  REQUIRE(!parse_trouble(text, trouble));
  return trouble;
}

std::string line_of(LogForm form, const SessionRecord& record) {
  Line line;
  format_session(line, form, record);
  REQUIRE(line.is_whole());
  return std::string(line.view());
}

// What stands outside quotes, where a backslash takes the next byte along.
std::string outside_quotes(std::string_view line) {
  std::string outside;
  bool is_inside = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '"') is_inside = !is_inside;
    if (is_inside && line[i] == '\\') ++i;
    if (!is_inside) outside += line[i];
  }
  REQUIRE(!is_inside);
  return outside;
}

void check_text(const std::string& line) {
  for (const char c : line) {
    const auto byte = static_cast<unsigned char>(c);
    REQUIRE(byte >= 0x20 && byte != 0x7F);
  }
  const std::string outside = outside_quotes(line);
  int num_parts = 0;
  for (std::size_t at = 0; (at = outside.find("; ", at)) != outside.npos;
       ++at) {
    ++num_parts;
  }
  REQUIRE(num_parts == 3);
  REQUIRE(outside.ends_with(" ms"));
}

}  // namespace

void fuzz_one(Input input) {
  const Trouble trouble = trouble_of(input.byte());
  const BerStreamPtr stream = stream_of(input.bytes);
  SessionRecord record;
  // The time is up from the start, for those troubles that would never end.
  Conversation conversation{*stream, -1, Deadline::min(), nullptr, record};
  NodeRegister nodes;
  const ErrorText failure = converse(
      conversation, {}, trouble.kind != nullptr ? &trouble : nullptr, nodes);
  if (failure) copy_bounded(record.end.data(), failure.c_str(), 256);
  REQUIRE(record.end[0] != '\0');
  check_text(line_of(LogForm::kText, record));
  const std::string json = line_of(LogForm::kJsonLines, record);
  REQUIRE(nlohmann::json::accept("{\"event\":0" + json + "}"));
}

void make_seeds() {
  const BerStreamPtr stream = stream_of("");
  const client_private_key key{
      copy_text("a\"\\\u202E;"), copy_text("\xFF"), {}, 1, 1, 1};
  REQUIRE(!write_client_wants(*stream, {0x0202}));
  REQUIRE(!write_client_private_key(*stream, key));
  const std::string end(4, '\0');
  const std::string request =
      std::string(memory_stream_bytes(*stream)) + end.substr(2);
  for (std::size_t i = 0; i <= trouble_kinds().size(); ++i) {
    add_seed(static_cast<char>(i) + request + "\x62\x80" + end.substr(2));
  }
}

}  // namespace velprobe
