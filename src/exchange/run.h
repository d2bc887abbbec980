// What lockstep-exchange does for one project in one stage: every line of
// the table whose input belongs to that project, copied.
#pragma once

#include <ostream>

#include "exchange/table.h"
#include "fields/interaction.h"

namespace lockstep::exchange {

// Copies each of `table`'s lines into `fields`' project; tells `errors`
// of each that fails. The exit status: 0, or 1 when any failed.
int run_copies(const Table& table, fields::InteractionFields& fields, std::ostream& errors);

}  // namespace lockstep::exchange
