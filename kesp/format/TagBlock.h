// The block of a tag: its name and its payload, each preceded by its length. It is the one part of a record body whose
// length varies.
//
//   0              4              nameBytes: (name length + 1) * 2, rounded up to a multiple of 4
//   4              nameBytes      the name in UTF-16, a zero unit, zeros
//   4 + nameBytes  4              payloadLength
//   8 + nameBytes  payloadLength  the payload
//
// In the record body the tag's kind and the block's length come before it, 4 bytes each.
#pragma once
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "kesp/platform/String.h"
#include "kesp/util/Fields.h"

namespace kesp {

constexpr std::size_t kTagFixedPart = 8;  // bytes of the body before the block: kind and block length
constexpr std::size_t kTagLengthField = 4;

// The lengths of the parts of a block; each is set only if the part lies inside the block.
struct TagBlockLayout {
  std::optional<std::uint32_t> nameBytes;
  std::optional<std::uint32_t> payloadLength;
  static constexpr std::uint64_t kName = kTagLengthField;
  std::uint64_t Payload() const noexcept { return kName + *nameBytes + kTagLengthField; }
};

// `wordAt(offset)` returns the 32-bit word at an offset in the block, or nullopt if it can't be read.
template <class WordAt>
TagBlockLayout LayoutOfTagBlock(std::uint64_t blockLength, WordAt wordAt) {
  TagBlockLayout layout;
  if (blockLength < kTagLengthField) return layout;
  std::uint64_t rest = blockLength - kTagLengthField;
  const std::optional<std::uint32_t> nameBytes = wordAt(std::uint64_t{0});
  if (!nameBytes || *nameBytes > rest) return layout;
  layout.nameBytes = nameBytes;
  rest -= *nameBytes;
  if (rest < kTagLengthField) return layout;
  rest -= kTagLengthField;
  const std::optional<std::uint32_t> payloadLength = wordAt(TagBlockLayout::kName + *nameBytes);
  if (payloadLength && *payloadLength <= rest) layout.payloadLength = payloadLength;
  return layout;
}

inline TagBlockLayout LayoutOfTagBlock(std::span<const std::byte> block) {
  return LayoutOfTagBlock(block.size(), [&](std::uint64_t offset) -> std::optional<std::uint32_t> {
    return LoadLittle<std::uint32_t>(block.data() + offset);
  });
}

constexpr std::uint64_t TagNameBytes(std::uint64_t units) { return (2 * (units + 1) + 3) & ~std::uint64_t{3}; }
constexpr std::uint64_t TagBlockLength(std::uint64_t nameUnits, std::uint64_t payloadLength) {
  return kTagLengthField + TagNameBytes(nameUnits) + kTagLengthField + payloadLength;
}
// Writes both lengths and the name into a zeroed block. Returns the payload, which is still zero.
inline std::span<std::byte> ComposeTagBlock(std::span<std::byte> block, const CString& name,
                                            std::uint32_t payloadLength) {
  const auto nameBytes = static_cast<std::uint32_t>(TagNameBytes(name.Size()));
  StoreLittle(block.data(), nameBytes);
  StoreUnits(block.data() + TagBlockLayout::kName, name.GetString(), name.Size());
  StoreLittle(block.data() + TagBlockLayout::kName + nameBytes, payloadLength);
  return block.last(payloadLength);
}

}  // namespace kesp
