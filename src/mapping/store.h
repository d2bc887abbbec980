// Weights kept in the run tree: computed once, loaded in every later stage.
// A mapping's weights live in mappings/KEY/ beside exchange.dat, as NumPy
// files that scipy.sparse.csr_matrix((data, indices, indptr), shape) takes:
// indptr.npy (int64, rows + 1), indices.npy (int32), data.npy (float64),
// and about.txt, which says what they map. KEY is a 128-bit hash of the
// mapping's words and the exact content of both meshes and their cells, so
// a mesh published anew or a changed line finds no weights and computes
// its own: stale weights are never applied.
#pragma once

#include <memory>
#include <string>
#include <vector>

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

// Weights as a stage applies them: computed here, or the stored files
// mapped into memory, not copied.
struct StoredWeights {
  Weights computed;
  std::vector<std::shared_ptr<const void>> mapped_files;
  WeightsView view;
  Source source = Source::kComputed;
  Checksum kept;  // loaded: the checksum about.txt gives
};

// The mapping's weights from `directory`/mappings/KEY, or computed and
// stored there (written to a temporary directory and renamed into place,
// so that programs computing the same weights at once never see each
// other's half-written files). Empty on success, else why not.
std::string weights_for(const std::string& directory, const Mapping& mapping, StoredWeights& weights);

// What a stage would refuse of the mapping, found as a stage finds it
// (weights computed and checked, in memory, kept nowhere), unless weights
// for it are stored in `directory`/mappings. Empty when nothing.
std::string validate(const std::string& directory, const Mapping& mapping);

// What the weights in `directory` (one mappings/KEY) are: their
// about.txt, then the row sums' range and the size on disk. False with the
// reason in `text` when they cannot be read.
bool describe_stored(const std::string& directory, std::string& text);

// `values` (source points x components, row by row) mapped to `mapped`
// (target points x components) with the weights weights_for finds; stored
// weights found damaged while applying them are removed and computed anew.
std::string map_values(const std::string& directory, const Mapping& mapping, const double* values,
                       std::size_t components, double* mapped);

}  // namespace lockstep::mapping
