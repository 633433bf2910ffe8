// Which feature names an attribute filter can pass, so that features with other names need not be read.
#pragma once
#include <string>
#include <vector>

#include "ogr/Directory.h"
#include "ogr/TextTable.h"

class OGRFeatureQuery;

namespace kesp::ogr {

class NameFilter {
 public:
  // Passes every name if `query` is null. Otherwise a name fails if the filter is false for it whatever a feature's
  // other fields are. The comparisons of kNameField with constants are understood, and AND, OR and NOT.
  void Set(OGRFeatureQuery* query, const TextTable& names, int fieldCount);
  // Whether the filter has to do with more than fields and the FID.
  bool AsksForGeometry() const noexcept { return m_asksForGeometry; }
  // `name` is that of an entry.
  bool MayPass(std::uint16_t name) const noexcept { return name >= m_passes.size() || m_passes[name]; }

 private:
  bool m_asksForGeometry = false;
  std::vector<bool> m_passes;  // by the code of the name
};

}  // namespace kesp::ogr
