// Finds out where a field lies in the body of each version, from the descriptions in kesp/format/Bodies.h. All of it
// happens at compile time.
//
//   constexpr auto kPlaces = PlacesOf<&BodyFields::CoordX>(kPointBodies);
//   kPlaces[2].offset  // 62
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <tuple>

#include "kesp/format/Bodies.h"

namespace kesp {

struct FieldPlace {
  enum class Kind : std::uint8_t { kNone, kNumber, kText8, kText16, kBytes };
  Kind kind = Kind::kNone;   // kNone: the version has no such field
  std::uint16_t offset = 0;  // in the body, in bytes
  std::uint16_t width = 0;   // bytes
};

// A visitor that notes the place of one field, which it knows by its address.
class FieldFinder {
 public:
  constexpr explicit FieldFinder(const void* wanted) noexcept : m_wanted(wanted) {}

  template <class T>
  constexpr void U16(const T& field) noexcept {
    Pass(&field, FieldPlace::Kind::kNumber, 2);
  }
  template <class T>
  constexpr void Choice16(const T& field, std::uint16_t, std::uint16_t) noexcept {
    U16(field);
  }
  template <class T>
  constexpr void U32(const T& field) noexcept {
    Pass(&field, FieldPlace::Kind::kNumber, 4);
  }
  template <class T>
  constexpr void F64(const T& field) noexcept {
    Pass(&field, FieldPlace::Kind::kNumber, 8);
  }
  template <class T>
  constexpr void Text16(const T& field, std::size_t units) noexcept {
    Pass(&field, FieldPlace::Kind::kText16, 2 * units);
  }
  template <class T>
  constexpr void Text8(const T& field, std::size_t bytes, std::size_t = 0) noexcept {
    Pass(&field, FieldPlace::Kind::kText8, bytes);
  }
  template <class T>
  constexpr void Raw(const T& field) noexcept {
    Pass(&field, FieldPlace::Kind::kBytes, field.size());
  }
  constexpr void Skip(std::size_t bytes) noexcept { m_offset += bytes; }

  constexpr FieldPlace Place() const noexcept { return m_place; }

 private:
  constexpr void Pass(const void* field, FieldPlace::Kind kind, std::size_t width) noexcept {
    if (field == m_wanted) m_place = {kind, static_cast<std::uint16_t>(m_offset), static_cast<std::uint16_t>(width)};
    m_offset += width;
  }

  const void* m_wanted;
  std::size_t m_offset = 0;
  FieldPlace m_place;
};

inline constexpr BodyFields kBodyFields{};

// The places of a field by record version; at index 0 there is none.
template <auto kField, class... Bodies>
consteval std::array<FieldPlace, sizeof...(Bodies) + 1> PlacesOf(const std::tuple<Bodies...>& bodies) {
  std::array<FieldPlace, sizeof...(Bodies) + 1> places{};
  std::size_t version = 0;
  std::apply(
      [&](const auto&... describe) {
        const auto find = [&](const auto& body) {
          FieldFinder finder(&(kBodyFields.*kField));
          body(finder, kBodyFields);
          places[++version] = finder.Place();
        };
        (find(describe), ...);
      },
      bodies);
  return places;
}

}  // namespace kesp
