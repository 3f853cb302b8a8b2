#include <cstdlib>

#include "../util/standard_streams.h"
#include "driver.h"

int main(int argc, char** argv) {
  if (!velprobe::prepare_standard_streams()) return EXIT_FAILURE;
  return velprobe::run_velprobe(argc, argv);
}
