// Style and script of the page, which the build makes of page.css and page.js.
#ifndef VELPROBE_CHECK_PAGE_PARTS_H_
#define VELPROBE_CHECK_PAGE_PARTS_H_

namespace velprobe::check {

// Each hash is that of the text before it, as Content-Security-Policy has it.
extern const char kStyle[];
extern const char kStyleHash[];
extern const char kScript[];
extern const char kScriptHash[];

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_PAGE_PARTS_H_
