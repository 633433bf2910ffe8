#include "kesp/format/FormatLoss.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>

#include "kesp/kesp.h"

namespace kesp::test {
namespace {

CString Letters(std::size_t count, char16_t letter = u'x') { return CString(std::u16string(count, letter)); }

// What one change of a record costs in file versions 1 and 2: texts and numbers.
struct Cost {
  std::uint64_t texts1, numbers1, texts2, numbers2;
};
template <class Record>
struct Case {
  std::function<void(Record&)> change;
  Cost cost;
};

template <class Record>
void Check(FormatLoss::Kind FormatLoss::*kind, const std::vector<Case<Record>>& cases) {
  for (const auto& c : cases) {
    Record record;
    if constexpr (std::is_same_v<Record, CKespTavoHeader>) record.CreationTime = 0;
    c.change(record);
    for (const unsigned short version : std::initializer_list<unsigned short>{1, 2, 3}) {
      SCOPED_TRACE(testing::Message() << &c - cases.data() << " in version " << version);
      FormatLoss loss, expected;
      const std::uint64_t texts = version == 1 ? c.cost.texts1 : version == 2 ? c.cost.texts2 : 0;
      const std::uint64_t numbers = version == 1 ? c.cost.numbers1 : version == 2 ? c.cost.numbers2 : 0;
      expected.*kind = {texts + numbers != 0 ? 2u : 0u, 2 * texts, 2 * numbers};
      loss.Add(record, version);
      loss.Add(record, version);
      EXPECT_EQ(loss, expected);
      EXPECT_EQ(loss.IsNone(), texts + numbers == 0);
    }
  }
}

TEST(FormatLoss, IsWhatTheOlderBodyCannotHold) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  Check<CKespFeature>(&FormatLoss::features,
                      {{[](auto&) {}, {0, 0, 0, 0}},
                       {[](auto& f) { f.FeatureName = Letters(20), f.Color = 1, f.SymbolIndex = 2; }, {0, 0, 0, 0}},
                       {[](auto& f) { f.FeatureName = Letters(21); }, {1, 0, 1, 0}},
                       {[](auto& f) { f.FeatureName = u"\u00ff"; }, {0, 0, 0, 0}},
                       {[](auto& f) { f.FeatureName = u"a\u0100b"; }, {1, 0, 0, 0}}});
  Check<CKespPoint>(&FormatLoss::points,
                    {{[&](auto& p) { p.CoordX = nan, p.PointText = Letters(20), p.PointTime = -1; }, {0, 0, 0, 0}},
                     {[](auto& p) { p.SetOffset(0, 0.5); }, {0, 2, 0, 0}},
                     {[](auto& p) { p.GpsNumber = 0x10000; }, {0, 0, 0, 0}},  // no version has more than 16 bits
                     {[](auto& p) { p.GpsNumber = 1, p.PointText = Letters(21); }, {1, 1, 1, 0}}});
  Check<CKespAttribute>(
      &FormatLoss::attributes,
      {{[](auto& a) { a.TextValue = Letters(40), a.SubValue = Letters(20); }, {0, 0, 0, 0}},
       {[](auto& a) { a.TextValue = Letters(41), a.SubValue = Letters(21); }, {2, 0, 2, 0}},
       {[](auto& a) { a.AuxText = Letters(21), a.AuxNumber3 = 1, a.AuxNumber4 = -0.0; }, {1, 2, 1, 2}}});
  Check<CKespNote>(&FormatLoss::notes, {{[](auto& n) { n.NoteText = Letters(255); }, {0, 0, 0, 0}},
                                        {[](auto& n) { n.NoteText = Letters(256); }, {1, 0, 1, 0}},
                                        {[](auto& n) { n.NoteText = Letters(1, u'\u20ac'); }, {1, 0, 0, 0}}});
  Check<CKespTavoHeader>(
      &FormatLoss::headers,
      {{[](auto& h) { h.HeaderText5 = Letters(127), h.KespVersion = 3; }, {0, 0, 0, 0}},
       {[](auto& h) { h.CreationTime = 5, h.HeaderShort = 6; }, {0, 2, 0, 0}},
       {[](auto& h) { h.HeaderText6 = u"a", h.LastPointText = u"b"; }, {2, 0, 0, 0}},
       {[](auto& h) { h.SlotBytes3[31] = 1, h.SlotBytes4[0] = 1, h.ExtentMinX = 1; }, {0, 3, 0, 0}}});
  FormatLoss none;
  CKespTag tag;
  tag.Set(u"\u20ac", 1);
  for (CKespRecord* record : std::initializer_list<CKespRecord*>{new CKespFeatureEnd, new CKespTag(tag)}) {
    none.Add(*record, 1);
    delete record;
  }
  EXPECT_TRUE(none.IsNone());
}

}  // namespace
}  // namespace kesp::test
