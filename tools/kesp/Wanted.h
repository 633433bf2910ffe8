// What kesp find looks for: the library's filter, and what a person means besides.
//
//   Wanted wanted;
//   if (!wanted.Configure(options)) return kExitTrouble;
//   Wanted::State feature = wanted.Start(record.AsFeature());
//   if (!feature.IsRefused()) ...  // wanted.Add for each of its points and attributes
//   if (wanted.Finds(feature)) ...
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "kesp/format/RecordView.h"
#include "kesp/kesp.h"
#include "tools/kesp/Commands.h"

namespace kesp::tool {

class Wanted {
 public:
  Wanted() = default;
  Wanted(const Wanted&) = delete;
  Wanted& operator=(const Wanted&) = delete;

  // What is known of one feature.
  struct State {
    bool IsRefused() const noexcept { return test.IsRefused(); }  // whatever it has

    FeatureTest::State test;
    bool hasPoints = false;
    bool hasAttribute = false;  // of the wanted name
  };

  // False, after a complaint, where an option makes no sense.
  bool Configure(const FindOptions& options);

  State Start(const FeatureView& feature) const {
    State state;
    if (HasName(feature)) state.test = m_test.Start(feature);
    return state;
  }
  void Add(State& state, const PointView& point) const noexcept {
    m_test.Add(state.test, point);
    state.hasPoints = true;
  }
  void Add(State& state, const AttributeView& attribute) const noexcept {
    m_test.Add(state.test, attribute);
    if (m_wantsAttribute && !state.hasAttribute) state.hasAttribute = IsAttribute(attribute);
  }
  // With what was added so far. A feature that lacks what is asked for is not found, though the filter passes it.
  bool Finds(const State& state) const noexcept {
    return state.test.Passes() && (!m_wantsPoints || state.hasPoints) && (!m_wantsAttribute || state.hasAttribute);
  }

 private:
  bool HasName(const FeatureView& feature) const;
  bool IsAttribute(const AttributeView& attribute) const noexcept;
  bool SetTimes(const FindOptions& options, int& bits);

  CKespSearch m_search;
  FeatureTest m_test{m_search};
  std::vector<CKespSearch> m_names;  // a search for the text of each
  bool m_wantsPoints = false;
  bool m_wantsAttribute = false;
  bool m_wantsNamelessAttribute = false;
};

}  // namespace kesp::tool
