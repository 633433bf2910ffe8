// The attributes of a survey: each name with what its values are, which decides the type of its field.
//
// Names that differ only in the case of A to Z are one attribute, as in a data set. There are at most kMostNames; what
// comes after them goes into the field for further attributes.
#pragma once
#include <cstddef>
#include <string>
#include <vector>

#include <ogr_core.h>

#include "ogr/TextTable.h"

namespace kesp::ogr {

struct AttributeTraits {
  unsigned kinds = 0;  // a bit for each KESP_ATTRIBUTE_KIND that occurs
  int decimals = 0;    // the most of its numbers
  bool hasSubValues = false;
  bool hasTooManyValues = false;
  static constexpr std::size_t kMostMenuValues = 256;
  TextTable menuValues{kMostMenuValues, LetterCase::kMatters};

  static constexpr int kMostDecimals = 15;
  bool IsOnly(KESP_ATTRIBUTE_KIND kind) const noexcept { return kinds == (1U << kind); }
  OGRFieldType FieldType() const noexcept;
  bool HasDomain() const noexcept { return IsOnly(KESP_ATTRIBUTE_MENU) && !hasTooManyValues && menuValues.Size() != 0; }
};

class Attributes {
 public:
  static constexpr std::size_t kMostNames = 1000;
  static constexpr std::size_t kNone = TextTable::kNone;

  // Takes note of an attribute of the file and returns the code of its name, or kNone.
  std::size_t Add(const AttributeView& attribute);
  // The code of a name that a field has got; kNone if there are too many names.
  std::size_t AddName(const CString& name);
  std::size_t Find(const TextView& name) const { return m_names.Find(name); }
  std::size_t Size() const noexcept { return m_names.Size(); }
  std::string NameOf(std::size_t code) const { return m_names[code]; }
  const AttributeTraits& operator[](std::size_t code) const noexcept { return m_traits[code]; }

 private:
  TextTable m_names{kMostNames, LetterCase::kIgnored};
  std::vector<AttributeTraits> m_traits;
};

}  // namespace kesp::ogr
