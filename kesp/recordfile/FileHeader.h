// The first bytes of a Kesp data file. Part of the format: never change them.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kesp {

constexpr std::string_view kSignature = "Corvanthe Survey Devices -- Kesp Data File";  // without a terminator
static_assert(kSignature.size() == 42);
constexpr std::size_t kFileHeaderSize = 50;            // signature, version, header length, header word
constexpr std::uint32_t kHeaderLengthCountsFrom = 48;  // offset of the header word
constexpr std::uint32_t kOwnHeaderLength = 2;          // in files made by Create: only the header word

}  // namespace kesp
