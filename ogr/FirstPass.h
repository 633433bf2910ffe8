// The walk that fills a Survey: over the whole file, and later over what has been appended.
#pragma once
#include <cstdint>
#include <optional>
#include <vector>

#include "ogr/HeaderTexts.h"
#include "ogr/Run.h"
#include "ogr/Survey.h"

namespace kesp::ogr {

class FirstPass {
 public:
  // Borrows both.
  FirstPass(SurveyFile& file, Survey& survey)
      : m_file(file),
        m_cursor(file, file.IsWritable() ? Cursor::Deleted::kAll : Cursor::Deleted::kAsFile),
        m_survey(survey) {}

  // Reads from where the last call ended to the end of the file.
  void Run();

 private:
  void Take(const RecordView& record);
  bool StatesItsLength(const RecordView& record);
  void NoteNumber(const RecordView& record);
  void TakeFeature(const RecordView& record);
  void TakeEnd(const RecordView& record);
  void EndRun();
  void TakePoints(const RecordView& record);
  void TakePoint(const PointView& point, std::uint64_t position);
  void TakeStraggler(const PointView& point, std::uint64_t position, bool isFinite);
  void TakeAttribute(const RecordView& record);
  void TakeStragglingAttribute(const RecordView& record);
  void TakeTag(const RecordView& record);

  SurveyFile& m_file;
  Cursor m_cursor;
  Survey& m_survey;
  std::uint64_t m_end = 0;  // of what was read
  // The first deleted record, in a file to be changed, that readers step over by a length that isn't its own. They
  // would not come to what is appended.
  std::optional<std::uint64_t> m_misstated;
  HeaderTexts m_afterHeader;
  ogr::Run m_run;
  bool m_hasBegun = false;
  std::size_t m_layer = 0;                       // of the feature whose run it is
  std::uint64_t m_feature = 0;                   // how many features were met
  std::uint64_t m_pointsOfFeature = 0;           // in its run, with finite coordinates
  Box m_box;                                     // of these points
  std::vector<std::uint64_t> m_lastFeatureWith;  // by attribute code, what m_feature was
};

}  // namespace kesp::ogr
