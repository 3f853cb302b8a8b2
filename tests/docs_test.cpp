// The pages under docs/ against the code: what they show is what it does.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include "probe/discovery_datagram.h"
#include "protocol/ber_codec.h"
#include "protocol/messages.h"
#include "support/bytes.h"
#include "support/streams.h"

namespace velprobe {
namespace {

using std::string;
namespace fs = std::filesystem;

const fs::path kSource = VELPROBE_SOURCE_DIR;

string read_file(const fs::path& name) {
  std::ostringstream text;
  text << std::ifstream(kSource / name).rdbuf();
  return text.str();
}

string replaced(const string& text, const char* pattern, const char* with) {
  return std::regex_replace(text, std::regex(pattern), with);
}

// dump_in gives the bytes of the block "```hex <title>" without its comments.
string dump_in(const string& page, const string& title) {
  const std::size_t begin = page.find("```hex " + title + "\n");
  const string lines = page.substr(begin, page.find("\n```", begin) - begin);
  return hex_of(bytes_of(replaced(lines, "```.*|\n +|  .*|\n", " ")));
}

string written_by(auto... writers) {
  const BerStreamPtr stream = stream_of();
  EXPECT_FALSE((static_cast<bool>(writers(*stream)) || ...));
  return hex_of(memory_stream_bytes(*stream));
}

TEST(ProtocolPage, DumpsAreWhatTheCodeWrites) {
  const auto hex = [](auto d) { return hex_of(string(d.begin(), d.end())); };
  const auto request = [](BerStream& s) {
    EXPECT_FALSE(write_client_wants(s, {0x0202}));
    return write_client_private_key(
        s, {copy_text("host1.example.org"), copy_text("."), {}, 1, 1, 1});
  };
  const auto offer = [](BerStream& s) {
    EXPECT_FALSE(write_server_offers(s, {0x0202}));
    return write_server_private_key(s, {1, 1});
  };
  const auto refusal = [](BerStream& s) {
    return write_negotiate_nack(s, {copy_text("No Node of this name")});
  };
  const std::pair<const char*, string> rows[] = {
      {"discovery query", hex(build_discovery_query())},
      {"discovery answer", hex(build_discovery_answer())},
      {"client request", written_by(request, write_end_of_contents)},
      {"server offer", written_by(offer, write_end_of_contents)},
      {"client acknowledgement", written_by(write_negotiate_ack)},
      {"server refusal", written_by(refusal)},
  };
  const string page = read_file("docs/protocol.md");
  for (const auto& [title, bytes] : rows) {
    EXPECT_EQ(dump_in(page, title), bytes) << title;
  }
}

TEST(ProtocolPage, ListsEveryMessage) {
  const string types[] = {"int", "int", "enum", "bool", "text", "big number"};
  const string page = read_file("docs/protocol.md");
  for (const MessageLayout& message : message_catalogue()) {
    std::ostringstream row;
    row << "\n| `" << message.name << "` | " << message.tag << " | "
        << written_by([&](BerStream& s) { return write_tag(s, message.tag); })
        << (message.kind == MessageKind::kOpen ? " | open | " : " | closed | ")
        << (message.fields.empty() ? "none" : "");
    const char* comma = "";
    for (const FieldLayout& field : message.fields) {
      const string& type = types[static_cast<int>(field.type)];
      row << std::exchange(comma, ", ") << "`" << field.name << "` " << type;
      if (type == "text") row << " " << field.maximum;
      if (type == "int" && field.minimum != INT32_MIN) {
        row << " " << field.minimum << ".." << field.maximum;
      }
    }
    row << " |\n";
    EXPECT_NE(page.find(row.str()), page.npos) << row.str();
  }
}

TEST(TroubleshootingPage, NamesEveryText) {
  string page = replaced(
      read_file("docs/troubleshooting.md") + read_file("docs/rehearsal.md"),
      "`", "");
  page = replaced(page, "\\s+", " ");
  const std::regex literal(R"re("((?:[^"\\\n]|\\.)*)")re");
  int num_texts = 0;
  // Advice is held to the page by a test of its own, and a metric's description
  // is no message, nor are a page's marks and a processor's instructions.
  const std::set<fs::path> left_out = {"result.cpp", "prometheus.cpp",
                                       "page.cpp", "wipe.cpp"};
  for (const char* folder : {"src", "tools/check", "tools/standin"}) {
    for (const auto& file :
         fs::recursive_directory_iterator(kSource / folder)) {
      if (left_out.contains(file.path().filename())) continue;
      string code = replaced(read_file(file), R"(\n *(//|#).*)", "\n");
      // Two literals in a row; the first may end with an escaped quote.
      code = replaced(code, R"re(((?:[^\\]|\\"))"\s*")re", "$1");
      for (std::sregex_iterator it(code.begin(), code.end(), literal), end;
           it != end; ++it) {
        string text = replaced((*it)[1], R"(\\n|\s+)", " ");
        text = replaced(replaced(text, "\\\\\"", "\""), "^ +| +$", "");
        // Single words are labels and names.
        if (!std::regex_search(text, std::regex("[A-Za-z]{3}.* "))) continue;
        text = replaced(text, "`", "");
        ++num_texts;
        EXPECT_NE(page.find(text), page.npos) << file << ": " << text;
      }
    }
  }
  EXPECT_GT(num_texts, 100);
}

}  // namespace
}  // namespace velprobe
