#include "kesp/format/RecordView.h"

#include "kesp/platform/Utf8.h"

namespace kesp {

void TextView::CopyTo(std::string& utf8) const {
  utf8.clear();
  // In pieces, so that a short text costs no allocation. A piece does not end inside a pair of surrogates.
  constexpr std::size_t kPiece = 512;
  const std::size_t size = m_room <= kPiece ? m_room : Size();  // a piece stops at the zero that ends the text
  std::array<char, kMostUtf8PerUnit * kPiece> piece;
  for (std::size_t i = 0; i < size;) {
    std::size_t count = std::min(kPiece, size - i);
    if (i + count < size && ((*this)[i + count - 1] & 0xFC00) == 0xD800) --count;
    const std::byte* const at = m_at + (m_isWide ? 2 * i : i);
    char* const end = m_isWide ? kesp::PutUtf8(piece.data(), at, count, LoneSurrogate::kKeep)
                               : PutLatin1AsUtf8(piece.data(), at, count);
    utf8.append(piece.data(), static_cast<std::size_t>(end - piece.data()));
    i += count;
  }
}

char* TextView::PutUtf8(char* out) const noexcept {
  return m_isWide ? kesp::PutUtf8(out, m_at, m_room, LoneSurrogate::kReplace) : PutLatin1AsUtf8(out, m_at, m_room);
}

}  // namespace kesp
