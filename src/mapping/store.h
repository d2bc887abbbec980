// Weights kept in the run tree: computed once, loaded in every later stage.
// A mapping's weights live in mappings/KEY/ beside exchange.dat, as NumPy
// files that scipy.sparse.csr_matrix((data, indices, indptr), shape) takes:
// indptr.npy (int64, rows + 1), indices.npy (int64), data.npy (float64),
// and about.txt, which says what they map. KEY is a 128-bit hash of the
// mapping's words and the exact content of both meshes and their cells, so
// a mesh published anew or a changed line finds no weights and computes
// its own: stale weights are never applied.
#pragma once

#include <string>

#include "mapping/method.h"

namespace lockstep::mapping {

inline constexpr const char* kWeightsDirectory = "mappings";

// What a mapping is: its method, and its meshes (cells may be null).
struct Mapping {
  Method method;
  const Points* from = nullptr;
  const Cells* from_cells = nullptr;
  const Points* to = nullptr;
  const Cells* to_cells = nullptr;
  std::string description;  // "main xy -> sub1 xy_left", for about.txt
};

// The 32 hex digits that name the mapping's weights.
std::string weights_key(const Mapping& mapping);

enum class Source { kLoaded, kComputed };

// The mapping's weights from `directory`/mappings/KEY, or computed and
// stored there (written to a temporary directory and renamed into place,
// so that programs computing the same weights at once never see each
// other's half-written files). Empty on success, else why not.
std::string weights_for(const std::string& directory, const Mapping& mapping, Weights& weights, Source& source);

}  // namespace lockstep::mapping
