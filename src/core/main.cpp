#include "core/orvel.h"

int main(int argc, char** argv) {
  return run_program(argc, argv);
}
