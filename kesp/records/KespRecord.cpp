#include "kesp/records/KespRecord.h"

#include <bit>

#include "kesp/memory/ObjectPool.h"
#include "kesp/platform/Exception.h"
#include "kesp/util/Fields.h"

// NOLINTBEGIN(cert-dcl54-cpp,misc-new-delete-overloads): see the header
void* CKespRecord::operator new(std::size_t size) { return kesp::PoolAllocate(size); }

void* CKespRecord::operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  try {
    return kesp::PoolAllocate(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void* CKespRecord::operator new(std::size_t size, std::align_val_t alignment) {
  void* const record = operator new(size, alignment, std::nothrow);
  if (record == nullptr) throw CMemoryException();
  return record;
}

void* CKespRecord::operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t& tag) noexcept {
  return ::operator new(size, alignment, tag);
}

void CKespRecord::operator delete(void* record, std::size_t size) noexcept {
  if (record != nullptr) kesp::PoolFree(record, size);
}

void CKespRecord::operator delete(void* record, std::size_t /*size*/, std::align_val_t alignment) noexcept {
  ::operator delete(record, alignment);
}

// Called when a constructor raises; the size is unknown here.
void CKespRecord::operator delete(void* record, const std::nothrow_t& /*tag*/) noexcept {
  if (record != nullptr) kesp::PoolFreeUnsized(record);
}

void CKespRecord::operator delete(void* record, std::align_val_t alignment, const std::nothrow_t& /*tag*/) noexcept {
  ::operator delete(record, alignment);
}
// NOLINTEND(cert-dcl54-cpp,misc-new-delete-overloads)

bool CKespRecord::IsSameKespRecord(CKespRecord* /*other*/) { return false; }

void CKespRecord::SetDelete() noexcept {
  if (!IsDeleted()) m_flags |= KESP_SRC_DELETED;
  m_flags |= KESP_FLAG_DELETED;
  m_flags = kesp::Low32(FilterSourceFlagsForZelk(m_flags));
}

void CKespRecord::ClearDelete() noexcept {
  if (IsDeleted()) m_flags |= KESP_SRC_RESTORED;
  m_flags &= ~std::uint32_t{KESP_FLAG_DELETED};
  m_flags = kesp::Low32(FilterSourceFlagsForZelk(RestoreHistoricalFlags(m_flags)));
}

void CKespRecord::ApplySourceFlag(unsigned long flag) noexcept {
  m_flags = kesp::Low32(RestoreHistoricalFlags(m_flags)) | kesp::Low32(flag);
  m_flags = kesp::Low32(FilterSourceFlagsForZelk(m_flags));
}

unsigned long CKespRecord::RestoreHistoricalFlags(unsigned long flags) const noexcept {
  std::uint32_t v = kesp::Low32(flags);
  if ((v & KESP_SRC_HIST_MODIFIED) != 0) v |= KESP_SRC_MODIFIED;
  if ((v & KESP_SRC_HIST_ADDED) != 0) v |= KESP_SRC_ADDED;
  if ((v & KESP_SRC_HIST_CHANGE_B) != 0) v |= KESP_SRC_CHANGE_B;
  if ((v & KESP_SRC_HIST_CHANGE_A) != 0) v |= KESP_SRC_CHANGE_A;
  if ((v & KESP_SRC_HIST_CHANGE_AB) != 0) v |= KESP_SRC_CHANGE_AB;
  return v;
}

unsigned long CKespRecord::FilterSourceFlagsForZelk(unsigned long flags) const noexcept {
  return kesp::CanonicalFlags(kesp::Low32(flags));
}

std::uint32_t kesp::CanonicalFlags(std::uint32_t stored) noexcept {
  constexpr std::uint32_t kChanged = KESP_SRC_MODIFIED | KESP_SRC_CHANGE_A | KESP_SRC_CHANGE_B | KESP_SRC_CHANGE_AB;
  std::uint32_t v = stored;
  if (v == 0 || v == 0xFFFFFFFF) return v;
  if (v <= KESP_SRC_CHANGE_AB && std::has_single_bit(v)) return v;

  // Deleted and then restored; or restored and deleted again.
  if ((v & KESP_SRC_RESTORED) != 0 && (v & KESP_SRC_DELETED) != 0 && (v & KESP_FLAG_DELETED) == 0) {
    v &= ~std::uint32_t{KESP_SRC_RESTORED | KESP_SRC_DELETED};
  }
  if ((v & KESP_FLAG_DELETED) != 0 && (v & KESP_SRC_RESTORED) != 0) v &= ~std::uint32_t{KESP_SRC_RESTORED};

  // An added record that is deleted keeps no other mark.
  if ((v & KESP_FLAG_DELETED) != 0 && (v & KESP_SRC_ADDED) != 0) return KESP_FLAG_DELETED;
  if ((v & KESP_SRC_ADDED) != 0 && (v & kChanged) != 0) return (v & ~kChanged) | KESP_SRC_HIST_ADDED;
  if ((v & KESP_SRC_DELETED) != 0 && (v & kChanged) != 0) return v & ~kChanged;
  if ((v & KESP_SRC_CHANGE_A) != 0 && (v & KESP_SRC_CHANGE_B) != 0) {
    v &= ~std::uint32_t{KESP_SRC_CHANGE_A | KESP_SRC_CHANGE_B};
    return v | KESP_SRC_CHANGE_AB | KESP_SRC_HIST_CHANGE_AB;
  }
  return v;
}
