#include "ogr/NameFilter.h"

#include <algorithm>

#include <cpl_string.h>
#include <ogr_feature.h>
#include <ogr_swq.h>

#include "ogr/Schema.h"

namespace kesp::ogr {
namespace {

enum class Truth { kNo, kYes, kUnknown };

Truth Known(bool value) { return value ? Truth::kYes : Truth::kNo; }

bool IsName(const swq_expr_node& node) { return node.eNodeType == SNT_COLUMN && node.field_index == kNameField; }
bool IsText(const swq_expr_node& node) {
  return node.eNodeType == SNT_CONSTANT && node.field_type == SWQ_STRING && node.is_null == 0 &&
         node.string_value != nullptr;
}

// Whether the name is a text of the filter. Null stands for a name that is none of them.
using Name = const std::string*;
Truth IsSame(const swq_expr_node& text, Name name) {
  return Known(name != nullptr && EQUAL(text.string_value, name->c_str()));
}

// name = 'text', or the other way round. Letter case doesn't matter, as in GDAL's own evaluation.
Truth EqualsAny(const swq_expr_node& node, Name name) {
  const swq_expr_node* const* const operands = node.papoSubExpr;
  const int count = node.nSubExprCount;
  const bool isReversed = count == 2 && IsText(*operands[0]) && IsName(*operands[1]);
  if (isReversed) return IsSame(*operands[0], name);
  if (count < 2 || !IsName(*operands[0])) return Truth::kUnknown;
  if (!std::all_of(operands + 1, operands + count, [](const auto* operand) { return IsText(*operand); })) {
    return Truth::kUnknown;
  }
  return Known(std::any_of(operands + 1, operands + count,
                           [&](const auto* operand) { return IsSame(*operand, name) == Truth::kYes; }));
}

Truth Not(Truth truth) { return truth == Truth::kUnknown ? truth : Known(truth == Truth::kNo); }

Truth Evaluate(const swq_expr_node& node, Name name, int depth = 0) {
  constexpr int kDeepest = 64;
  if (node.eNodeType != SNT_OPERATION || depth == kDeepest) return Truth::kUnknown;
  switch (node.nOperation) {
    case SWQ_EQ:
    case SWQ_IN:
      return EqualsAny(node, name);
    case SWQ_NE:
      return Not(EqualsAny(node, name));
    case SWQ_NOT:
      return Not(Evaluate(*node.papoSubExpr[0], name, depth + 1));
    case SWQ_AND:
    case SWQ_OR: {
      const Truth a = Evaluate(*node.papoSubExpr[0], name, depth + 1);
      const Truth b = Evaluate(*node.papoSubExpr[1], name, depth + 1);
      const Truth decisive = node.nOperation == SWQ_AND ? Truth::kNo : Truth::kYes;
      if (a == decisive || b == decisive) return decisive;
      return a == Truth::kUnknown ? a : b;
    }
    default:
      return Truth::kUnknown;
  }
}

// Columns after the fields are special ones; the first of them is the FID.
bool UsesOnlyFields(const swq_expr_node& node, int fieldCount) {
  if (node.eNodeType == SNT_COLUMN) return node.field_index <= fieldCount;
  if (node.eNodeType != SNT_OPERATION) return true;
  return std::all_of(node.papoSubExpr, node.papoSubExpr + node.nSubExprCount,
                     [fieldCount](const auto* operand) { return UsesOnlyFields(*operand, fieldCount); });
}

void CollectTexts(const swq_expr_node& node, std::vector<std::uint16_t>& codes) {
  if (IsText(node)) {
    const CString text = CString::FromUtf8(node.string_value);
    if (text.Size() <= TextView::kMostUnits) codes.push_back(Survey::FurtherName(TextTable::HashOf(text.View())));
  }
  if (node.eNodeType != SNT_OPERATION) return;
  for (int i = 0; i < node.nSubExprCount; ++i) CollectTexts(*node.papoSubExpr[i], codes);
}

}  // namespace

void NameFilter::Set(OGRFeatureQuery* query, const Survey& survey, int fieldCount) {
  m_passes.clear();
  m_asked.clear();
  m_othersPass = true;
  m_asksForGeometry = false;
  const auto* const root = query != nullptr ? static_cast<const swq_expr_node*>(query->GetSWQExpr()) : nullptr;
  if (root == nullptr) return;
  m_asksForGeometry = !UsesOnlyFields(*root, fieldCount);
  const TextTable& names = survey.names;
  m_passes.resize(names.Size());
  for (std::size_t code = 0; code < names.Size(); ++code) {
    const std::string name = names[code];
    m_passes[code] = Evaluate(*root, &name) != Truth::kNo;
  }
  m_othersPass = Evaluate(*root, nullptr) != Truth::kNo;
  if (!m_othersPass) CollectTexts(*root, m_asked);
}

}  // namespace kesp::ogr
