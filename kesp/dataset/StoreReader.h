// Reads a whole file into the store of a data set: one walk over the container, record after record.
//
//   const ErrorEnum result = StoreReader(file, !readDeleted).Read();
//
// Ownership: what is read belongs to the data set at once, in its store's lists, in a feature or in both.
// Errors: std::bad_alloc, also where the memory limit of the data set is reached, and the CFileException of a version-1
//   feature that is cut short. The data set then holds what was read so far. A container that runs out of memory ends
//   the walk like damage; see CKespDataFile.
#pragma once
#include <array>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "kesp/dataset/KespFile.h"
#include "kesp/dataset/Store.h"

namespace kesp {

class StoreReader {
 public:
  StoreReader(CKespFile& file, bool skipDeleted)
      : m_file(file), m_container(*file.m_pDataFile), m_own(*file.m_own), m_skipDeleted(skipDeleted) {}

  // Of an open file into a cleared data set.
  ErrorEnum Read();

 private:
  // The two notes after a version-1 header, if they are there. False when reading fails; else the record after them,
  // or null at the end.
  bool ReadHeaderNotes(CKespRecord*& next);
  CKespRecord* ReadNext() { return m_container.ReadNextRecord(m_skipDeleted); }
  bool AtCleanEnd() const { return m_container.GetError() == KESP_ERROR_NORMAL_EOF; }
  const CKespTavoHeader* ReadHeader();
  ErrorEnum ReadRecords(CKespRecord* next);
  // Puts a record where it belongs, and deletes one that belongs nowhere.
  void Add(CKespRecord* record);
  void AddPoint(CKespPoint* point);
  bool Place(CKespRecord* record);
  void PlaceFeature(std::unique_ptr<CKespRecord> record);
  bool PlacePoint(CKespPoint* point);
  bool PlaceEnd(std::unique_ptr<CKespRecord> record);
  bool PlaceAttribute(std::unique_ptr<CKespRecord> record);
  CKespFeature* FeatureOf(std::uint32_t number);
  void NoteMarks(const CKespRecord& record, CKespFeature& feature);
  void NoteNeededVersion(CKespRecord& record);
  std::uint64_t MemoryLimit() const noexcept;
  std::uint64_t MemoryUsed() const noexcept;
  void PropagateMarks();
  void SetExtentFrom(std::u16string_view numbers);

  CKespFile& m_file;
  CKespDataFile& m_container;
  Store& m_own;
  const bool m_skipDeleted;

  CKespFeature* m_lastFeature = nullptr;       // records of one feature follow one another
  std::vector<CKespFeature*> m_marked;         // features that have, or own what has, a flag word other than 0
  std::uint32_t m_points = 0;                  // in the features of the index
  std::array<std::uint64_t, 4> m_kindsSeen{};  // record types and versions seen last
  std::size_t m_kindsCount = 0;
  std::int64_t m_poolBefore = 0;  // what this thread had of the pool
};

}  // namespace kesp
