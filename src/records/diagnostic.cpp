#include "records/diagnostic.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace lockstep::records {

void die(const Status& status) {
  std::string block = status.headline() + '\n';
  for (const std::string& context : status.trail()) block += "    in " + context + '\n';
  std::fputs(block.c_str(), stderr);
  // exit() flushes and closes every open stream; descriptors go with the
  // process.
  std::exit(status.number());
}

}  // namespace lockstep::records
