// The position of an attribute on a host's data-entry form. In memory only: no record body holds it.
#pragma once
#include <array>
#include <cstdint>

#include "kesp/platform/Export.h"
#include "kesp/platform/Rect.h"

struct CControlStyle {
  std::uint32_t Style = 0;
};

class KESP_EXPORT CAttributePosition {
 public:
  bool HasPosition() const noexcept { return m_hasPosition; }
  // Copies both rectangles. True sets the position mark; false leaves the mark unchanged, so it is never cleared.
  void SetPosition(const CRect& first, const CRect& second, bool hasPosition) noexcept {
    m_first = first;
    m_second = second;
    m_hasPosition = m_hasPosition || hasPosition;
  }

  bool m_hasPosition = false;
  CRect m_first;
  CRect m_second;
};

class KESP_EXPORT CAttributeAppearance {
 public:
  bool HasPosition() const noexcept { return m_position.HasPosition(); }
  void SetPosition(const CRect& first, const CRect& second, bool hasPosition) noexcept {
    m_position.SetPosition(first, second, hasPosition);
  }

  CAttributePosition m_position;
  CControlStyle m_style1;
  CControlStyle m_style2;
};
