#include "velcheck.h"

int main(int argc, char** argv) {
  velprobe::check::run_velcheck(argc, argv);
}
