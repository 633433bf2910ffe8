// Where the records of a file are, by what identifies them: for the many searches of one file that would each walk over
// it. A container fills it with one walk, in the order of the file.
//
// Points are found by both their numbers, attributes by feature number and name, others by their type only. Different
// records may be taken for the same, so what is found is to be compared.
//
// Memory: 8 bytes for each record of the file, up to 16 while it is filled. Errors: std::bad_alloc from Add and Settle.
#pragma once
#include <array>
#include <cstdint>
#include <span>
#include <vector>

class CKespRecord;

namespace kesp {

class RecordPlaces {
 public:
  void Add(const CKespRecord& record, std::uint32_t position) { m_entries.push_back(Entry(record, position)); }
  // To be called after the last Add, before the questions.
  void Settle();

  // Whether this record was added with this position.
  bool Has(const CKespRecord& record, std::uint32_t position) const;
  // Where the same record may be: at or after `from`, and then before it. PositionIn takes the position out of an
  // entry.
  using Entries = std::span<const std::uint64_t>;
  std::array<Entries, 2> Candidates(const CKespRecord& record, std::uint64_t from) const;
  static std::uint32_t PositionIn(std::uint64_t entry) noexcept { return static_cast<std::uint32_t>(entry); }

  // The part of the file that was walked over, and what the walk depends on.
  std::uint32_t begin = 0;
  std::uint64_t end = 0;
  std::uint64_t fileLength = 0;
  std::uint64_t lengthLimit = 0;

 private:
  static std::uint64_t Entry(const CKespRecord& record, std::uint64_t position);

  std::vector<std::uint64_t> m_entries;  // hash and position; sorted up to m_settled
  std::size_t m_settled = 0;
};

}  // namespace kesp
