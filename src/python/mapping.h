// lockstep._lockstep.mapping_weights: the weights lockstep-exchange would
// compute, for Python users who want them offline.
#pragma once

#include <pybind11/pybind11.h>

namespace lockstep::python {

void add_mapping(pybind11::module_& module);

}  // namespace lockstep::python
