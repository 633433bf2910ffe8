// The header record as metadata: its texts, its times and the extent that the host gave.
#pragma once
#include <string>
#include <string_view>

#include "kesp/format/RecordView.h"

namespace kesp::ogr {

struct Survey;

// Takes the first records of a file. After a header record of version 1 there may be two notes that continue it.
class HeaderTexts {
 public:
  void See(const RecordView& record, Survey& survey, bool isFirst);

 private:
  enum class Expects { kNothing, kText, kExtent };  // of the next record
  static void TakeHeader(const RecordView& record, Survey& survey);

  Expects m_expects = Expects::kNothing;
};

}  // namespace kesp::ogr
