// Reads a whole file into the store of a data set, in one walk over the container.
//
//   const ErrorEnum result = StoreReader(file, !readDeleted).Read();
//
// Ownership: the data set owns what is read at once, in the store's lists, in a feature or in both.
// Errors: std::bad_alloc, also when the memory limit of the data set is reached, and the CFileException of a version-1
// feature that is cut short. The data set then holds what was read so far. If the container runs out of memory, the
// walk ends as at damage; see CKespDataFile.
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

  // Reads an open file into a cleared data set.
  ErrorEnum Read();

 private:
  // Reads the two notes after a version-1 header, if they are there. Returns false when reading fails; else `next` is
  // the record after them, or null at the end.
  bool ReadHeaderNotes(CKespRecord*& next);
  CKespRecord* ReadNext() { return m_container.ReadNextRecord(m_skipDeleted); }
  bool AtCleanEnd() const { return m_container.GetError() == KESP_ERROR_NORMAL_EOF; }
  const CKespTavoHeader* ReadHeader();
  ErrorEnum ReadRecords(CKespRecord* next);
  // Adds a record to the store, or deletes it if it belongs to nothing.
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

  CKespFeature* m_lastFeature = nullptr;       // records of one feature usually follow each other
  std::vector<CKespFeature*> m_marked;         // features that have or own a flag word other than 0
  std::uint32_t m_points = 0;                  // points of the features in the index
  std::array<std::uint64_t, 4> m_kindsSeen{};  // the record types and versions seen last
  std::size_t m_kindsCount = 0;
  std::int64_t m_poolBefore = 0;  // bytes that this thread had from the pool
};

}  // namespace kesp
