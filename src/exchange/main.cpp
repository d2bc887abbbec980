// lockstep-exchange: the ready interaction program. lockstep runs it as
// PROGRAM PROJECT CYCLE TIME_STEP STAGE; it copies the fields that
// exchange.dat names into that project's inputs.
#include <iostream>

#include "exchange/run.h"

int main(int argc, char** argv) {
  std::string error;
  auto fields = lockstep::fields::InteractionFields::open(argc - 1, argv + 1, error);
  lockstep::exchange::Table table;
  if (!fields || !lockstep::exchange::read_table(lockstep::exchange::kTableFile, table, error)) {
    std::cerr << "lockstep-exchange: " << error << "\n";
    return 2;
  }
  for (const std::string& line : table.errors) std::cerr << "lockstep-exchange: " << line << "\n";
  const int status = lockstep::exchange::run_copies(table, *fields, std::cerr);
  return table.errors.empty() ? status : 2;
}
