// A link between two features, and the list of links that touch one feature.
#pragma once
#include <cstdint>
#include <vector>

#include "kesp/platform/Export.h"

// A plain value. A feature-link tag stores the first six members; the last is set when a link is read from a tag.
// Equality compares all seven, so the same link read from two tags is not equal.
class KESP_EXPORT CKespFeatureLink {
 public:
  constexpr CKespFeatureLink() noexcept = default;
  constexpr bool Set(const CKespFeatureLink& other) noexcept {
    *this = other;
    return true;
  }
  friend constexpr bool operator==(const CKespFeatureLink&, const CKespFeatureLink&) noexcept = default;

  std::uint32_t m_featureNumber1 = 0;
  std::uint32_t m_qualifier1 = 0;  // belongs to the first feature
  std::uint32_t m_featureNumber2 = 0;
  std::uint32_t m_qualifier2 = 0;
  std::uint32_t m_linkValue = 0;
  std::uint32_t m_spare = 0;
  std::uint32_t m_tagRecordPosition = 0;  // offset of the tag record's header, low 32 bits
};

// A list of links. It borrows the links and never deletes one.
// Errors: an index outside the list and adding null raise CInvalidArgException.
class KESP_EXPORT CKespLinkList {
 public:
  unsigned long GetCount() const noexcept { return static_cast<unsigned long>(m_links.size()); }
  void Add(CKespFeatureLink* link);
  CKespFeatureLink* GetAt(int index) const;
  CKespFeatureLink* operator[](int index) const { return GetAt(index); }
  void Clear() noexcept { m_links.clear(); }
  // Whether a link joins the two features, in either direction.
  bool HasLink(unsigned long a, unsigned long b) const noexcept;
  // Removes the links between the two features; always true. Both directions are tested separately, even for an entry
  // that was just removed. So if a equals b, a match also removes the entry before it, and a match at the front raises
  // CInvalidArgException. Hosts never link a feature to itself; those that list such a link rely on this order.
  bool RemoveLink(unsigned long a, unsigned long b);
  // Removes all links of the feature; always true.
  bool RemoveLink(unsigned long feature) noexcept;

  std::vector<CKespFeatureLink*> m_links;

 private:
  void RemoveAt(int index);
};
