#include "exchange/run.h"

#include <vector>

namespace lockstep::exchange {

int run_copies(const Table& table, fields::InteractionFields& fields, std::ostream& errors) {
  int status = 0;
  std::vector<char> buffer;
  for (const Copy& copy : table.copies) {
    if (copy.to != fields.project()) continue;
    const std::string where = std::string(kTableFile) + ":" + std::to_string(copy.line) + ": ";
    fields::Header header;
    const fields::Outcome got = fields.get(copy.from, copy.output, fields::into_buffer(buffer), header);
    if (got != fields::Outcome::kOk) {
      errors << "lockstep-exchange: " << where << fields.error() << "\n";
      status = 1;
      continue;
    }
    fields::Values values{header.type, header.shape, header.column_major, buffer.data()};
    if (copy.first) {
      const std::size_t size = fields::element_size(header.type);
      // Compared as counts: a bound from the table times the value size may wrap.
      if (*copy.last > buffer.size() / size) {
        errors << "lockstep-exchange: " << where << "output \"" << copy.output << "\" of "
               << fields::project_name(copy.from) << " has " << buffer.size() / size << " values, fewer than "
               << *copy.last << "\n";
        status = 1;
        continue;
      }
      values.shape = {static_cast<std::int64_t>(*copy.last - *copy.first)};
      values.column_major = false;
      values.data = buffer.data() + *copy.first * size;
    }
    if (fields.put(copy.input, values) != fields::Outcome::kOk) {
      errors << "lockstep-exchange: " << where << fields.error() << "\n";
      status = 1;
    }
  }
  return status;
}

}  // namespace lockstep::exchange
