#include "exchange/run.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <vector>

#include "fields/access.h"
#include "fields/store.h"
#include "mapping/store.h"

namespace lockstep::exchange {
namespace {

// The reason `fields` gives, and, when the output does not exist, the
// names that do: a misspelt name is seen at once.
std::string with_published(const fields::InteractionFields& fields, int source, const std::string& name) {
  const std::string directory = fields::project_directory(source);
  std::error_code missing;
  if (std::filesystem::exists(fields::field_path(directory, fields::Role::kOutput, name), missing)) return fields.error();
  return fields.error() + "; " + fields::published_outputs(directory, source);
}

// A field of `source` read whole: values in `buffer`, its header in `header`.
bool read_whole(fields::InteractionFields& fields, int source, const std::string& name, fields::Accept accept,
                std::vector<char>& buffer, fields::Header& header, std::string& error) {
  if (fields.get(source, name, fields::into_buffer(buffer), header, accept) == fields::Outcome::kOk) return true;
  error = with_published(fields, source, name);
  return false;
}

// The values of `copy`'s output mapped onto the target mesh, put as its
// input. False with the reason in `error`; nothing is written then.
bool map_copy(const Copy& copy, fields::InteractionFields& fields, std::string& error) {
  mapping::Method method;
  std::map<std::string, std::string> names;
  mapping::parse_method(copy.mapping, method, names);
  const auto name = [&](const char* key) { return names.count(key) > 0 ? &names.at(key) : nullptr; };
  // Meshes are outputs published at any time: the newest is the mesh.
  // The input takes the parts of the mesh it is mapped onto, so that each
  // rank of a parallel project gets the rows of its own points.
  std::vector<std::int64_t> to_parts;
  const mapping::FieldReader read = [&](int project, const std::string& field, fields::Header& header,
                                        const fields::Destination& into, std::string& reason) {
    if (fields.get(project, field, into, header, fields::Accept::kAny) != fields::Outcome::kOk) {
      reason = with_published(fields, project, field);
      return false;
    }
    if (project == copy.to && field == names.at("to-mesh")) to_parts = header.parts;
    return true;
  };
  mapping::Points from, to;
  std::optional<mapping::Cells> from_cells, to_cells;
  if (!mapping::read_mesh(read, copy.from, names.at("from-mesh"), name("from-cells"), from, from_cells, error) ||
      !mapping::read_mesh(read, copy.to, names.at("to-mesh"), name("to-cells"), to, to_cells, error)) {
    return false;
  }
  std::vector<char> values;
  fields::Header header;
  if (!read_whole(fields, copy.from, copy.output, fields::Accept::kStage, values, header, error)) return false;
  std::size_t components = 0;
  if (error = mapping::components_of(header, from.count, components); !error.empty()) {
    error = "output \"" + copy.output + "\" of " + fields::project_name(copy.from) + " on mesh \"" +
            names.at("from-mesh") + "\": " + error;
    return false;
  }
  const mapping::Mapping wanted{method,
                                &from,
                                from_cells ? &*from_cells : nullptr,
                                &to,
                                to_cells ? &*to_cells : nullptr,
                                fields::project_name(copy.from) + " " + names.at("from-mesh") + " -> " +
                                    fields::project_name(copy.to) + " " + names.at("to-mesh")};
  std::vector<double> mapped(to.count * components);
  std::vector<double> rows(values.size() / sizeof(double));
  // Column-major (n, k) values from Fortran: taken row by row.
  if (header.column_major && header.shape.size() == 2) {
    fields::reorder(header.shape, sizeof(double), false, values.data(), rows.data());
  } else {
    std::copy_n(reinterpret_cast<const double*>(values.data()), rows.size(), rows.data());
  }
  // A solver that blew up is named here, before its values spread to
  // every target point of an RBF.
  if (const auto bad = std::find_if(rows.begin(), rows.end(), [](double value) { return !std::isfinite(value); });
      bad != rows.end()) {
    const auto at = static_cast<std::size_t>(bad - rows.begin());
    error = "output \"" + copy.output + "\" of " + fields::project_name(copy.from) + " holds " +
            (std::isnan(*bad) ? "NaN" : "an infinite value") + " at point " + std::to_string(at / components) +
            ": a mapping needs finite values (has its solver blown up?)";
    return false;
  }
  if (error = mapping::map_values(".", wanted, rows.data(), components, mapped.data()); !error.empty()) return false;
  std::vector<std::int64_t> shape = {static_cast<std::int64_t>(to.count)};
  if (header.shape.size() == 2) shape.push_back(static_cast<std::int64_t>(components));
  if (fields.put(copy.input, {fields::Type::kFloat64, shape, false, mapped.data(), to_parts}) != fields::Outcome::kOk) {
    error = fields.error();
    return false;
  }
  return true;
}

}  // namespace

int run_copies(const Table& table, fields::InteractionFields& fields, std::ostream& errors) {
  int status = 0;
  std::vector<char> buffer;
  for (const Copy& copy : table.copies) {
    if (copy.to != fields.project()) continue;
    const std::string where = std::string(kTableFile) + ":" + std::to_string(copy.line) + ": ";
    if (!copy.mapping.empty()) {
      std::string error;
      if (!map_copy(copy, fields, error)) {
        errors << "lockstep-exchange: " << where << error << "\n";
        status = 1;
      }
      continue;
    }
    fields::Header header;
    const fields::Outcome got = fields.get(copy.from, copy.output, fields::into_buffer(buffer), header);
    if (got != fields::Outcome::kOk) {
      errors << "lockstep-exchange: " << where << with_published(fields, copy.from, copy.output) << "\n";
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
