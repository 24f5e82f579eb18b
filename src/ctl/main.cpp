#include "ctl/orvelctl.h"

int main(int argc, char** argv) {
  return run_orvelctl(argc, argv);
}
