// Tests features against a CKespSearch while their records come by, as views of a walk. For programs that keep no
// objects.
//
//   const kesp::FeatureTest test(search);
//   kesp::FeatureTest::State feature;
//   for (kesp::RecordView record; file.ReadNextView(record, true);) {
//     if (record.Type() == KESP_RECORD_FEATURE) feature = test.Start(record.AsFeature());
//     if (record.Type() == KESP_RECORD_POINT) test.Add(feature, record.AsPoint());
//     if (record.Type() == KESP_RECORD_ATTRIBUTE) test.Add(feature, record.AsAttribute());
//     if (record.Type() == KESP_RECORD_FEATURE_END && feature.Passes()) ++count;
//   }
//
// A feature passes if CKespSearch::Validate returns true for an object with the same records. The caller gives only
// records of the feature. In the example each feature is followed by its own; a file may mix them, so there may be a
// state for each feature.
//
// Does not change the search: with none of the three type options all types pass, and the options stay.
//
// Ownership: borrows the search, which must stay as it is while features are tested. Keeps nothing of the views.
// Errors: none; nothing is allocated.
#pragma once
#include <cstdint>
#include <string_view>

#include "kesp/platform/Export.h"

class CKespAttribute;
class CKespPoint;
class CKespSearch;

namespace kesp {

class AttributeView;
class FeatureView;
class PointView;

class KESP_EXPORT FeatureTest {
 public:
  // What is known of one feature; one byte.
  class State {
   public:
    // Whether the feature passes with what was added so far. False before Start.
    bool Passes() const noexcept {
      return !IsRefused() && !(AsksForPoint() && Has(kHasPoints)) && !(AsksForAttribute() && Has(kHasAttributes));
    }
    // By its type or its name: it does not pass, whatever is added.
    bool IsRefused() const noexcept { return Has(kIsRefused); }
    // Whether another point or attribute may matter; if not, Add may be left out.
    bool AsksForPoint() const noexcept { return Has(kAsksForPoint); }
    bool AsksForAttribute() const noexcept { return Has(kAsksForAttribute); }

   private:
    friend class FeatureTest;
    enum Bit : std::uint8_t {
      kIsRefused = 0x01,
      kAsksForPoint = 0x02,  // and none had what is asked for
      kHasPoints = 0x04,
      kHasPointText = 0x08,  // a point had the wanted text, or none is wanted
      kAsksForAttribute = 0x10,
      kHasAttributes = 0x20
    };
    bool Has(Bit bit) const noexcept { return (m_bits & bit) != 0; }
    void Set(Bit bit) noexcept { m_bits = static_cast<std::uint8_t>(m_bits | bit); }
    void Clear(Bit bit) noexcept { m_bits = static_cast<std::uint8_t>(m_bits & ~bit); }

    std::uint8_t m_bits = kIsRefused;
  };

  explicit FeatureTest(const CKespSearch& search) noexcept : m_search(search) {}

  State Start(const FeatureView& feature) const noexcept;
  State Start(std::uint32_t type, std::u16string_view name) const noexcept;
  void Add(State& state, const PointView& point) const noexcept {
    state.Set(State::kHasPoints);
    if (state.AsksForPoint()) Test(state, point);
  }
  void Add(State& state, const AttributeView& attribute) const noexcept {
    state.Set(State::kHasAttributes);
    if (state.AsksForAttribute()) Test(state, attribute);
  }
  // The same for objects. A null counts as a point or an attribute that does not have what is asked for.
  void Add(State& state, const CKespPoint* point) const noexcept;
  void Add(State& state, const CKespAttribute* attribute) const noexcept;

 private:
  template <class Text>
  State StartWith(std::uint32_t type, const Text& name) const noexcept;
  template <class Text>
  bool HasAll(State& state, const Text& text, std::int32_t time, double x, double y) const noexcept;
  void Test(State& state, const PointView& point) const noexcept;
  void Test(State& state, const AttributeView& attribute) const noexcept;

  const CKespSearch& m_search;
};

}  // namespace kesp
