// Matching a text against a pattern with "*" and "?".
#ifndef VELPROBE_UTIL_WILDCARD_H_
#define VELPROBE_UTIL_WILDCARD_H_

#pragma GCC visibility push(default)
namespace velprobe {

// wildcard_match returns 1 when pattern matches the whole of text, else 0:
// "?" is any one character, "*" any run of characters, case counts, nothing is
// escaped. A character equal to the pattern's is taken before "*" acts as a
// wildcard, so a "*" that meets a "*" in the text is only that one character.
// Time is at worst text length times pattern length; the stack does not grow. A
// pattern of more than 255 characters takes as much memory again, and matches
// nothing when that is short.
int wildcard_match(const char* text, const char* pattern);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_UTIL_WILDCARD_H_
