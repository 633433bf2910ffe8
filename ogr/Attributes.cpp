#include "ogr/Attributes.h"

#include <algorithm>

namespace kesp::ogr {
namespace {

void AddMenuValue(AttributeTraits& traits, const TextView& value) {
  if (traits.hasTooManyValues || value.IsEmpty()) return;
  if (traits.menuValues.Add(value) == TextTable::kNone) traits.hasTooManyValues = true;
}

}  // namespace

OGRFieldType AttributeTraits::FieldType() const noexcept {
  if (IsOnly(KESP_ATTRIBUTE_NUMERIC)) return OFTReal;
  if (IsOnly(KESP_ATTRIBUTE_DATE)) return OFTDateTime;
  return OFTString;
}

std::size_t Attributes::Add(const AttributeView& attribute) {
  const std::size_t code = m_names.Add(attribute.AttributeName());
  if (code == kNone) return code;
  if (code == m_traits.size()) m_traits.emplace_back();
  AttributeTraits& traits = m_traits[code];
  const int kind = attribute.AttributeKind();
  traits.kinds |= 1U << static_cast<unsigned>(kind);
  if (kind == KESP_ATTRIBUTE_NUMERIC) {
    traits.decimals = std::max(traits.decimals, std::min<int>(attribute.Decimals(), AttributeTraits::kMostDecimals));
  } else if (kind == KESP_ATTRIBUTE_MENU) {
    if (!attribute.SubValue().IsEmpty()) traits.hasSubValues = true;
    AddMenuValue(traits, attribute.TextValue());
  }
  return code;
}

std::size_t Attributes::AddName(const CString& name) {
  const auto* const units = reinterpret_cast<const std::byte*>(name.GetString());
  const std::size_t code = m_names.Add(TextView(units, name.Size() + 1, true));
  if (code == m_traits.size()) m_traits.emplace_back();
  return code;
}

}  // namespace kesp::ogr
