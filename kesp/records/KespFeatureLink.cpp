#include "kesp/records/KespFeatureLink.h"

#include <algorithm>

#include "kesp/platform/Exception.h"

namespace {

// Compares 32 bits, however wide an unsigned long is.
bool Joins(const CKespFeatureLink& link, unsigned long first, unsigned long second) {
  return link.m_featureNumber1 == static_cast<std::uint32_t>(first) &&
         link.m_featureNumber2 == static_cast<std::uint32_t>(second);
}

}  // namespace

void CKespLinkList::Add(CKespFeatureLink* link) {
  if (link == nullptr) throw CInvalidArgException();
  m_links.push_back(link);
}

CKespFeatureLink* CKespLinkList::GetAt(int index) const {
  if (index < 0 || static_cast<std::size_t>(index) >= m_links.size()) throw CInvalidArgException();
  return m_links[static_cast<std::size_t>(index)];
}

bool CKespLinkList::HasLink(unsigned long a, unsigned long b) const noexcept {
  return std::any_of(m_links.begin(), m_links.end(),
                     [a, b](const CKespFeatureLink* link) { return Joins(*link, a, b) || Joins(*link, b, a); });
}

bool CKespLinkList::RemoveLink(unsigned long a, unsigned long b) {
  for (int i = 0; i < static_cast<int>(m_links.size()); ++i) {
    const CKespFeatureLink& link = *m_links[static_cast<std::size_t>(i)];
    const bool forward = Joins(link, a, b);
    const bool backward = Joins(link, b, a);
    if (forward) RemoveAt(i--);
    if (backward) RemoveAt(i--);
  }
  return true;
}

bool CKespLinkList::RemoveLink(unsigned long feature) noexcept {
  const auto number = static_cast<std::uint32_t>(feature);
  std::erase_if(m_links, [number](const CKespFeatureLink* link) {
    return link->m_featureNumber1 == number || link->m_featureNumber2 == number;
  });
  return true;
}

void CKespLinkList::RemoveAt(int index) {
  (void)GetAt(index);
  m_links.erase(m_links.begin() + index);
}
