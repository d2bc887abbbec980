// lockstep: steps a main project and its sub projects together through
// cycles of Runge-Kutta stages, coordinating through files only.
#include <iostream>

#include "driver/run.h"

int main() {
  lockstep::records::PosixFileSystem fs;
  lockstep::handshake::SystemPacer pacer;
  return lockstep::driver::run(fs, pacer, std::cerr);
}
