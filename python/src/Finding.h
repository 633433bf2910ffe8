// Which features of a store meet all that is asked.
#pragma once
#include <cstddef>
#include <vector>

#include <pybind11/pybind11.h>

#include "python/src/Store.h"

namespace kesp::python {

// `asked` has some of: names (list of str), types (bits of KESP_SEARCH_OPTION), ignore_case, partial (bool), text
// (str), rect (min x, min y, max x, max y), times (first and last second), where (list of (name, low, high) or (name,
// text)). A feature that lacks points or attributes, where some are asked for, is not found.
std::vector<std::size_t> Find(const Store& store, const py::dict& asked);

}  // namespace kesp::python
