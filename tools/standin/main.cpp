#include <cstdio>
#include <cstdlib>

#include "options.h"
#include "server.h"
#include "util/standard_streams.h"

int main(int argc, char** argv) {
  using namespace velprobe::standin;
  if (!velprobe::prepare_standard_streams()) return EXIT_FAILURE;
  Options options;
  if (const std::optional<int> status = parse_options(argc, argv, options)) {
    return *status;
  }
  if (velprobe::ErrorText error = run_server(options)) {
    std::fprintf(stderr, "velstandin: %s\n", error.c_str());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
