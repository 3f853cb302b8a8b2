#include "regex_search.h"
namespace velprobe {
int match_backrefs(const Subject&, Scratch&, std::size_t, RegexSpan*, std::size_t) { return kRegexNoSpace; }
}
