// Which feature names an attribute filter can pass, so that features with other names need not be read.
#pragma once
#include <string>
#include <vector>

#include "ogr/Directory.h"
#include "ogr/Survey.h"

class OGRFeatureQuery;

namespace kesp::ogr {

class NameFilter {
 public:
  // Passes every name if `query` is null. Otherwise a name fails if the filter is false for it whatever a feature's
  // other fields are. The comparisons of kNameField with constants are understood, and AND, OR and NOT.
  void Set(OGRFeatureQuery* query, const Survey& survey, int fieldCount);
  // Whether the filter has to do with more than fields and the FID.
  bool AsksForGeometry() const noexcept { return m_asksForGeometry; }
  // `name` is that of an entry.
  bool MayPass(std::uint16_t name) const noexcept {
    if (name < m_passes.size()) return m_passes[name];
    return m_othersPass || std::find(m_asked.begin(), m_asked.end(), name) != m_asked.end();
  }

 private:
  bool m_asksForGeometry = false;
  std::vector<bool> m_passes;  // by the code of the name
  // Of names without a code of their own: those whose hash is that of a text in the filter may pass, and all others if
  // the filter may be true for a name that is none of its texts.
  std::vector<std::uint16_t> m_asked;
  bool m_othersPass = true;
};

}  // namespace kesp::ogr
