#include "ogr/HeaderTexts.h"

#include <cpl_string.h>

#include "ogr/Survey.h"
#include "ogr/Utf8Text.h"
#include "ogr/Values.h"

namespace kesp::ogr {
namespace {

class Items {
 public:
  explicit Items(Survey& survey) : m_items(survey.metadata) {}
  Items& Text(const char* key, const TextView& text) {
    if (!text.IsEmpty()) m_items.emplace_back(key, Utf8Of(text));
    return *this;
  }
  Items& Time(const char* key, std::uint32_t time) {
    if (time != 0) m_items.emplace_back(key, TimeText(time));
    return *this;
  }
  Items& Number(const char* key, std::uint32_t number) {
    m_items.emplace_back(key, std::to_string(number));
    return *this;
  }

 private:
  std::vector<std::pair<std::string, std::string>>& m_items;
};

// A host's extent counts only if it has an area.
void AddExtent(const HeaderView& header, Survey& survey) {
  const double minX = header.ExtentMinX();
  const double maxX = header.ExtentMaxX();
  const double minY = header.ExtentMinY();
  const double maxY = header.ExtentMaxY();
  constexpr double kLeast = 1e-7;
  if (!std::isfinite(maxX - minX) || !std::isfinite(maxY - minY)) return;
  if (!(maxX - minX > kLeast) || !(maxY - minY > kLeast)) return;
  survey.metadata.emplace_back("EXTENT", CPLSPrintf("%.17g,%.17g,%.17g,%.17g", minX, minY, maxX, maxY));
}

}  // namespace

void HeaderTexts::TakeHeader(const RecordView& record, Survey& survey) {
  const HeaderView header = record.AsHeader();
  Items(survey)
      .Text("HEADER_TEXT_1", header.HeaderText1())
      .Text("HEADER_TEXT_2", header.HeaderText2())
      .Text("HEADER_TEXT_3", header.HeaderText3())
      .Text("HEADER_TEXT_4", header.HeaderText4())
      .Text("HEADER_TEXT_5", header.HeaderText5())
      .Text("HEADER_TEXT_6", header.HeaderText6())
      .Text("HEADER_TEXT_7", header.HeaderText7())
      .Text("SLOT_TEXT_1", header.SlotText1())
      .Text("SLOT_TEXT_2", header.SlotText2())
      .Number("HEADER_SHORT", header.HeaderShort())
      .Time("CREATION_TIME", header.CreationTime());
  survey.metadata.emplace_back("CLOSED_PROPERLY", (header.StatusFlags() & 1U) != 0 ? "YES" : "NO");
  AddExtent(header, survey);
}

void HeaderTexts::See(const RecordView& record, Survey& survey, bool isFirst) {
  if (isFirst) {
    if (record.Type() != KESP_RECORD_HEADER) return;
    survey.hasHeader = true;
    TakeHeader(record, survey);
    if (record.Version() == 1) m_expects = Expects::kText;
    return;
  }
  if (m_expects == Expects::kNothing) return;
  const std::string note = record.Type() == KESP_RECORD_NOTE ? Utf8Of(record.AsNote().NoteText()) : std::string{};
  const std::string_view key = std::string_view(note).substr(0, 4);
  if (m_expects == Expects::kText && key == "BMC:") {
    survey.metadata.emplace_back("HEADER_TEXT_6", note.substr(key.size()));
    m_expects = Expects::kExtent;
  } else if (key == "ZOM:") {
    survey.metadata.emplace_back("EXTENT_NOTE", note.substr(key.size()));
    m_expects = Expects::kNothing;
  } else {
    m_expects = Expects::kNothing;
    return;
  }
  survey.consumedNotes.push_back(record.Position());
}

}  // namespace kesp::ogr
