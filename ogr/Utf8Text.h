// Texts of the format as valid UTF-8, as OGR wants them: half a surrogate pair becomes U+FFFD.
#pragma once
#include <cstddef>
#include <string>

#include "kesp/format/RecordView.h"

namespace kesp::ogr {

inline void CopyText(const TextView& text, std::string& utf8) {
  utf8.resize(text.MostUtf8());
  utf8.resize(static_cast<std::size_t>(text.PutUtf8(utf8.data()) - utf8.data()));
}
inline std::string Utf8Of(const TextView& text) {
  std::string utf8;
  CopyText(text, utf8);
  return utf8;
}

}  // namespace kesp::ogr
