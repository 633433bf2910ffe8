#include "ogr/FeatureRecords.h"

#include "kesp/platform/Exception.h"

namespace kesp::ogr {
namespace {

template <class Record>
bool Move(std::unique_ptr<CKespRecord>& from, std::vector<std::unique_ptr<Record>>& to, std::uint32_t feature) {
  auto* const record = dynamic_cast<Record*>(from.get());
  if (record == nullptr || record->FeatureNumber != feature) return false;
  (void)from.release();
  to.emplace_back(record);
  return true;
}

class Reading {
 public:
  Reading(SurveyFile& file, const Directory& directory)
      : m_container(file.ForWriting()), m_skipsDeleted(!file.IncludesDeleted()), m_directory(directory) {}

  bool Read(std::uint64_t position) {
    std::unique_ptr<CKespRecord> record = Next(position);
    m_records.feature.reset(dynamic_cast<CKespFeature*>(record.get()));
    if (m_records.feature == nullptr) return false;
    (void)record.release();
    if (m_records.feature->m_filePosition != position) return false;
    while ((record = Next()) != nullptr && record->m_recordType != KESP_RECORD_FEATURE) {
      Take(record);
      if (!m_records.ends.empty()) break;
    }
    for (const auto& straggler : m_directory.StragglersOf(m_records.feature->FeatureNumber, position)) {
      record = Next(straggler.position);
      if (record != nullptr && record->m_filePosition == straggler.position) Take(record);
    }
    return true;
  }
  FeatureRecords TakeAll() { return std::move(m_records); }

 private:
  std::unique_ptr<CKespRecord> Next() {
    return std::unique_ptr<CKespRecord>(m_container.ReadNextRecord(m_skipsDeleted));
  }
  std::unique_ptr<CKespRecord> Next(std::uint64_t position) {
    m_container.Seek(position);
    return Next();
  }
  void Take(std::unique_ptr<CKespRecord>& record) {
    const std::uint32_t number = m_records.feature->FeatureNumber;
    if (Move(record, m_records.attributes, number) || Move(record, m_records.points, number)) return;
    Move(record, m_records.ends, number);
  }

  CKespDataFile& m_container;
  bool m_skipsDeleted;
  const Directory& m_directory;
  FeatureRecords m_records;
};

}  // namespace

std::optional<FeatureRecords> ReadRecords(SurveyFile& file, const Directory& directory, std::uint64_t position) try {
  Reading reading(file, directory);
  if (!reading.Read(position)) return std::nullopt;
  return reading.TakeAll();
} catch (const CFileException&) {
  return std::nullopt;
}

void AddMarks(const FeatureRecords& records, Marking marking, Amendments& amendments) {
  const auto mark = [&](CKespRecord& record) {
    if (record.IsDeleted() == (marking == Marking::kDelete)) return false;
    if (marking == Marking::kRestore) {
      record.ClearDelete();
    } else {
      record.SetDelete();
      record.SetSourceFlag(KESP_SRC_DELETED);
    }
    return true;
  };
  AddAmendment(*records.feature, amendments, mark);
  for (const auto& record : records.attributes) AddAmendment(*record, amendments, mark);
  for (const auto& record : records.points) AddAmendment(*record, amendments, mark);
  for (const auto& record : records.ends) AddAmendment(*record, amendments, mark);
}

}  // namespace kesp::ogr
