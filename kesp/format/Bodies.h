// Describes the body of every record type with a fixed layout, in each of its versions, for the visitors of
// kesp/util/Fields.h. docs/file-format.md has the same in tables. Offsets are from the start of the body, in bytes.
// Texts are 8-bit in version 1 and UTF-16 later. Never change a description: a new layout is a new version.
//
// The second argument is a record of the class, or BodyFields where the values don't matter. A tag's length varies, so
// its class parses it by hand.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <tuple>

#include "kesp/util/Fields.h"

namespace kesp {

// Feature

inline constexpr auto kFeatureEndOfBody = [](auto& v, auto& f) {
  v.Choice16(f.FeatureType, 1, 3);
  v.U32(f.Color);
  v.U16(f.SymbolIndex);
};
inline constexpr auto kFeatureVersion1 = [](auto& v, auto& f) {
  v.U32(f.FeatureNumber);          // 0
  v.Text8(f.FeatureName, 22, 20);  // 4
  kFeatureEndOfBody(v, f);         // 26
};
inline constexpr auto kFeatureVersion2 = [](auto& v, auto& f) {
  v.U32(f.FeatureNumber);       // 0
  v.Text16(f.FeatureName, 21);  // 4
  kFeatureEndOfBody(v, f);      // 46
};
inline constexpr auto kFeatureVersion3 = [](auto& v, auto& f) {
  v.U32(f.FeatureNumber);        // 0
  v.Text16(f.FeatureName, 256);  // 4
  kFeatureEndOfBody(v, f);       // 516
};

// Point

inline constexpr auto kPointPosition = [](auto& v, auto& p) {
  v.U32(p.PointTime);
  v.F64(p.CoordY);
  v.F64(p.CoordX);
  v.F64(p.CoordZ);
  v.F64(p.GpsValue);
  v.U16(p.SignalStatus);
};
inline constexpr auto kPointVersion1 = [](auto& v, auto& p) {
  v.U32(p.FeatureNumber);        // 0
  v.U32(p.PointNumber);          // 4
  v.Text8(p.PointText, 22, 20);  // 8
  kPointPosition(v, p);          // 30
};
inline constexpr auto kPointVersion2 = [](auto& v, auto& p) {
  v.U32(p.FeatureNumber);     // 0
  v.U32(p.PointNumber);       // 4
  v.Text16(p.PointText, 21);  // 8
  kPointPosition(v, p);       // 50
  v.U16(p.GpsNumber);         // 88: after SignalStatus here, before it in the class
  v.U16(p.HasOffset);         // 90
  v.F64(p.Offset1);           // 92
  v.F64(p.Offset2);           // 100
};

// Header

inline constexpr auto kHeaderTextsOfVersion1 = [](auto& v, auto& h) {
  v.Text8(h.HeaderText1, 21);   // 10
  v.Text8(h.HeaderText2, 256);  // 31
  v.Text8(h.HeaderText3, 256);  // 287
  v.Text8(h.HeaderText4, 256);  // 543
  v.Text8(h.HeaderText5, 128);  // 799
  v.Skip(1);                    // 927
};
// Reading and writing differ: the reader takes fields from the first ten bytes, the writer leaves them zero. So the
// time of an old file can be read, while a new file claims none.
inline constexpr auto kHeaderVersion1 = [](auto& v, auto& h) {
  v.Skip(4);              // 0
  v.U32(h.CreationTime);  // 4
  v.U16(h.HeaderShort);   // 8
  kHeaderTextsOfVersion1(v, h);
};
inline constexpr auto kHeaderVersion1AsWritten = [](auto& v, auto& h) {
  v.Skip(10);
  kHeaderTextsOfVersion1(v, h);
};
inline constexpr auto kHeaderVersion2 = [](auto& v, auto& h) {
  v.U32(h.StatusFlags);           // 0
  v.U32(h.CreationTime);          // 4
  v.U16(h.HeaderShort);           // 8
  v.Text16(h.HeaderText1, 21);    // 10
  v.Text16(h.HeaderText2, 256);   // 52
  v.Text16(h.HeaderText3, 256);   // 564
  v.Text16(h.HeaderText4, 256);   // 1076
  v.Text16(h.HeaderText5, 128);   // 1588
  v.Text16(h.HeaderText6, 256);   // 1844
  v.Text16(h.HeaderText7, 256);   // 2356
  v.U32(h.KespVersion);           // 2868
  v.F64(h.ExtentMinX);            // 2872
  v.F64(h.ExtentMaxX);            // 2880
  v.F64(h.ExtentMinY);            // 2888
  v.F64(h.ExtentMaxY);            // 2896
  v.F64(h.DataExtent1);           // 2904
  v.F64(h.DataExtent2);           // 2912
  v.F64(h.DataExtent3);           // 2920
  v.F64(h.DataExtent4);           // 2928
  v.U32(h.PointCount);            // 2936
  v.U32(h.FeatureCount);          // 2940
  v.U32(h.SpareCount);            // 2944
  v.U32(h.FirstPointTime);        // 2948
  v.U32(h.LastPointTime);         // 2952
  v.Text16(h.LastPointText, 21);  // 2956
  v.U32(h.SlotWord1);             // 2998
  v.Text16(h.SlotText1, 256);     // 3002
  v.U32(h.SlotWord2);             // 3514
  v.Text16(h.SlotText2, 256);     // 3518
  v.U32(h.SlotWord3);             // 4030
  v.Raw(h.SlotBytes3);            // 4034
  v.U32(h.SlotWord4);             // 4066
  v.Raw(h.SlotBytes4);            // 4070
};

// Feature end

inline constexpr auto kFeatureEndBody = [](auto& v, auto& end) { v.U32(end.FeatureNumber); };

// Attribute

inline constexpr auto kAttributeVersion1 = [](auto& v, auto& a) {
  v.U32(a.FeatureNumber);             // 0
  v.Text8(a.AttributeName, 22, 20);   // 4
  v.Choice16(a.AttributeKind, 1, 5);  // 26
  v.Text8(a.TextValue, 41);           // 28
  v.Text8(a.SubValue, 21);            // 69
  v.F64(a.Value);                     // 90
  v.F64(a.AuxNumber1);                // 98
  v.F64(a.AuxNumber2);                // 106
  v.U16(a.Decimals);                  // 114
  v.Text8(a.AuxText, 22, 20);         // 116
};
inline constexpr auto kAttributeVersion2 = [](auto& v, auto& a) {
  v.U32(a.FeatureNumber);             // 0
  v.Text16(a.AttributeName, 21);      // 4
  v.Choice16(a.AttributeKind, 1, 5);  // 46
  v.Text16(a.TextValue, 41);          // 48
  v.Text16(a.SubValue, 21);           // 130
  v.F64(a.Value);                     // 172
  v.F64(a.AuxNumber1);                // 180
  v.F64(a.AuxNumber2);                // 188
  v.U16(a.Decimals);                  // 196
  v.Text16(a.AuxText, 21);            // 198
};
inline constexpr auto kAttributeVersion3 = [](auto& v, auto& a) {
  v.U32(a.FeatureNumber);             // 0
  v.Text16(a.AttributeName, 256);     // 4
  v.Choice16(a.AttributeKind, 1, 5);  // 516
  v.Text16(a.TextValue, 256);         // 518
  v.Text16(a.SubValue, 256);          // 1030
  v.F64(a.Value);                     // 1542
  v.F64(a.AuxNumber1);                // 1550
  v.F64(a.AuxNumber2);                // 1558
  v.U16(a.Decimals);                  // 1566
  v.Text16(a.AuxText, 64);            // 1568
  v.F64(a.AuxNumber3);                // 1696
  v.F64(a.AuxNumber4);                // 1704
};

// Note

inline constexpr auto kNoteVersion1 = [](auto& v, auto& note) { v.Text8(note.NoteText, 256); };
inline constexpr auto kNoteVersion2 = [](auto& v, auto& note) { v.Text16(note.NoteText, 256); };

// Version n is at index n - 1.
inline constexpr std::tuple kFeatureBodies{kFeatureVersion1, kFeatureVersion2, kFeatureVersion3};
inline constexpr std::tuple kPointBodies{kPointVersion1, kPointVersion2};
inline constexpr std::tuple kHeaderBodies{kHeaderVersion1, kHeaderVersion2};
inline constexpr std::tuple kHeaderBodiesAsWritten{kHeaderVersion1AsWritten, kHeaderVersion2};
inline constexpr std::tuple kFeatureEndBodies{kFeatureEndBody};
inline constexpr std::tuple kAttributeBodies{kAttributeVersion1, kAttributeVersion2, kAttributeVersion3};
inline constexpr std::tuple kNoteBodies{kNoteVersion1, kNoteVersion2};

// Calls `use` with the description of a version and returns true; returns false without a call when there is no such
// version.
template <class... Bodies, class Use>
constexpr bool WithVersion(const std::tuple<Bodies...>& bodies, unsigned version, Use use) {
  unsigned v = 0;
  return std::apply([&](const auto&... body) { return ((version == ++v && (use(body), true)) || ...); }, bodies);
}

template <class... Bodies>
constexpr std::uint16_t NewestOf(const std::tuple<Bodies...>& /*bodies*/) {
  return sizeof...(Bodies);
}

// Takes the place of a record for visitors that need only the widths.
struct BodyFields {
  struct Any {};
  Any FeatureNumber, FeatureName, FeatureType, Color, SymbolIndex;
  Any PointNumber, PointText, PointTime, CoordY, CoordX, CoordZ, GpsValue, SignalStatus, GpsNumber, HasOffset;
  Any Offset1, Offset2;
  Any AttributeName, AttributeKind, TextValue, SubValue, Value, Decimals, AuxText;
  Any AuxNumber1, AuxNumber2, AuxNumber3, AuxNumber4;
  Any NoteText;
  Any StatusFlags, CreationTime, HeaderShort, KespVersion;
  Any HeaderText1, HeaderText2, HeaderText3, HeaderText4, HeaderText5, HeaderText6, HeaderText7;
  Any ExtentMinX, ExtentMaxX, ExtentMinY, ExtentMaxY, DataExtent1, DataExtent2, DataExtent3, DataExtent4;
  Any PointCount, FeatureCount, SpareCount, FirstPointTime, LastPointTime, LastPointText;
  Any SlotWord1, SlotWord2, SlotWord3, SlotWord4, SlotText1, SlotText2;
  std::array<std::uint8_t, 32> SlotBytes3;
  std::array<std::uint8_t, 16> SlotBytes4;
};

// The width of a body in bytes.
template <class Describe>
constexpr std::size_t BodyWidth(Describe describe) {
  constexpr BodyFields kFields{};
  FieldCounter counter;
  describe(counter, kFields);
  return counter.Length();
}

}  // namespace kesp
