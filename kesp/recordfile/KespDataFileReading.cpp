// Walks over the records of an open file, and makes objects for record types.
#include <cerrno>
#include <memory>
#include <tuple>
#include <utility>

#include "kesp/format/RecordKinds.h"
#include "kesp/format/RecordView.h"
#include "kesp/platform/BlockReader.h"
#include "kesp/recordfile/KespDataFile.h"
#include "kesp/recordfile/PlainPoints.h"
#include "kesp/recordfile/RecordHeader.h"
#include "kesp/records/KespAttribute.h"
#include "kesp/records/KespFeature.h"
#include "kesp/records/KespFeatureEnd.h"
#include "kesp/records/KespNote.h"
#include "kesp/records/KespPoint.h"
#include "kesp/records/KespTag.h"
#include "kesp/records/KespTavoHeader.h"

namespace {

std::unique_ptr<CKespRecord> MakeRecord(KESP_RECORD_TYPE type) {
  switch (type) {
    case KESP_RECORD_FEATURE:
      return std::make_unique<CKespFeature>();
    case KESP_RECORD_POINT:
      return std::make_unique<CKespPoint>();
    case KESP_RECORD_HEADER:
      return std::make_unique<CKespTavoHeader>();
    case KESP_RECORD_FEATURE_END:
      return std::make_unique<CKespFeatureEnd>();
    case KESP_RECORD_ATTRIBUTE:
      return std::make_unique<CKespAttribute>();
    case KESP_RECORD_NOTE:
      return std::make_unique<CKespNote>();
    case KESP_RECORD_TAG:
      return std::make_unique<CKespTag>();
    default:
      return nullptr;
  }
}

// Stores a position in the caller's variable, even when the read raises.
template <class To, class From>
struct StoreAtEnd {
  To& to;
  const From& from;
  ~StoreAtEnd() { to = static_cast<To>(from); }
};
template <class To, class From>
StoreAtEnd(To&, const From&) -> StoreAtEnd<To, From>;

}  // namespace

// A fast path for what nearly every record is: a point of the newest version without flags. Reads it if all of it is in
// the buffer; otherwise returns null and consumes nothing.
CKespPoint* CKespDataFile::ReadPlainPoint() {
  const std::byte* const bytes = m_file.Buffered(kesp::kPlainPointSize);
  if (bytes == nullptr || !kesp::IsPlainPoint(bytes)) return nullptr;
  // Compared in 32 bits, as in ReadHeader.
  const std::uint64_t start = m_file.GetPosition();
  if (static_cast<std::uint32_t>(start + kesp::kPlainPointSize) > LimitedLength(m_file.KnownLength())) return nullptr;
  auto point = std::make_unique<CKespPoint>();
  kesp::UncheckedFieldReader reader({bytes + kesp::kRecordHeaderSize, kesp::kPlainPointBody});
  std::get<kesp::kNewestPoint - 1>(kesp::kPointBodies)(reader, *point);
  point->m_filePosition = static_cast<std::uint32_t>(start);
  m_file.Skip(kesp::kPlainPointSize);
  return point.release();
}

void CKespDataFile::ReadAhead(bool recordsAreKept) noexcept {
  constexpr std::uint64_t kWorthIt = std::uint64_t{4} << 20;  // bytes
  if (IsOpen() && m_file.KnownLength() >= m_file.GetPosition() + kWorthIt) m_file.StartBlockReader(recordsAreKept);
}

void CKespDataFile::AllowReadAhead(bool allowed) noexcept { kesp::BlockReader::Allow(allowed); }

// Fills `header` as far as the file goes; the rest stays 0. Throws when memory runs out.
bool CKespDataFile::ReadHeader(kesp::RecordHeader& header) {
  const auto fail = [this](KESP_ERROR_TYPE error) {
    m_error = error;
    return false;
  };
  try {
    const std::span<const std::byte> bytes = m_file.ReadView(kesp::kRecordHeaderSize);
    if (bytes.size() < kesp::kRecordHeaderSize) {
      kesp::FieldReader reader(bytes);
      kesp::DescribeRecordHeader(reader, header);
      return fail(bytes.empty() ? KESP_ERROR_NORMAL_EOF : KESP_ERROR_EOF);
    }
    kesp::UncheckedFieldReader reader(bytes);
    kesp::DescribeRecordHeader(reader, header);
    if (header.length == 0) return fail(KESP_ERROR_RECORD_HEADER);

    // Compared in 32 bits, as positions are kept: a length so large that the sum wraps passes, and the walk then ends
    // past the end of the file. The system is asked for the length only when a body seems to go past it.
    const auto bodyEnd = static_cast<std::uint32_t>(m_file.GetPosition() + header.length);
    if (bodyEnd > LimitedLength(m_file.KnownLength()) && bodyEnd > LimitedLength(m_file.GetLength())) {
      return fail(KESP_ERROR_RECORD_HEADER);
    }
    return true;
  } catch (const CFileException& e) {
    NoteFailure(e);
    return false;
  }
}

bool CKespDataFile::ReadNextRecordHeader(KESP_RECORD_TYPE& type, unsigned short& version, std::uint32_t& flags,
                                         std::uint32_t& length) {
  m_error = KESP_ERROR_NONE;
  if (!IsOpen()) return false;
  kesp::RecordHeader header;
  const bool good = Guarded([&] { return ReadHeader(header); });
  type = static_cast<KESP_RECORD_TYPE>(header.type);
  version = header.version;
  flags = header.flags;
  length = header.length;
  return good;
}

bool CKespDataFile::ReadNextRecordHeader(KESP_RECORD_TYPE& type, unsigned short& version, unsigned long& flags,
                                         unsigned long& length) {
  std::uint32_t flags32 = 0;
  std::uint32_t length32 = 0;
  if (!IsOpen()) {
    m_error = KESP_ERROR_NONE;
    return false;
  }
  const bool good = ReadNextRecordHeader(type, version, flags32, length32);
  flags = flags32;
  length = length32;
  return good;
}

CKespRecord* CKespDataFile::ReadNextRecord(std::uint32_t& position, bool skipDeleted) {
  std::uint64_t wide = position;
  const StoreAtEnd storePosition{position, wide};
  return ReadNext(wide, skipDeleted);
}

CKespRecord* CKespDataFile::ReadNext(std::uint64_t& position, bool skipDeleted) {
  m_error = KESP_ERROR_NONE;
  m_ranOutOfMemory = false;
  if (!IsOpen()) return nullptr;
  try {
    const std::uint64_t start = m_file.GetPosition();
    if (CKespPoint* const point = ReadPlainPoint()) {
      position = start;
      return point;
    }
    return ReadAnyRecord(position, skipDeleted);
  } catch (const std::bad_alloc&) {
    m_error = KESP_ERROR_NONE;
    m_ranOutOfMemory = true;
    NoteError(ENOMEM);
    return nullptr;
  }
}

// Reads the header of the next record into `header`, and `position` becomes its offset. Goes to the body of a record
// that a walk returns, and past one that it skips. kEnd is the end or damage, with m_error. Throws what the file object
// throws.
CKespDataFile::Step CKespDataFile::StepToBody(std::uint64_t& position, kesp::RecordHeader& header, bool skipDeleted) {
  position = m_file.GetPosition();
  header = {};
  // When the system fails to read a header, the walk ends without a code.
  if (!ReadHeader(header)) return Step::kEnd;
  const kesp::RecordKind& kind = kesp::KindOfRecord(header.type);
  // Before the type is checked: a deleted record of any type is skipped.
  if (((header.flags & KESP_FLAG_DELETED) != 0 && skipDeleted) || kind.use == kesp::RecordUse::kPassedOver) {
    m_file.Seek(header.length, CFile::current);
    return Step::kSkipped;
  }
  if (kind.use == kesp::RecordUse::kRefused) {
    m_error = header.type == KESP_RECORD_NONE ? KESP_ERROR_RECORD_TYPE : KESP_ERROR_UNICODE;
  } else if (header.version > kind.newest) {
    m_error = KESP_ERROR_VERSION;
  }
  return m_error == KESP_ERROR_NONE ? Step::kRecord : Step::kEnd;
}

CKespRecord* CKespDataFile::ReadAnyRecord(std::uint64_t& position, bool skipDeleted) {
  std::unique_ptr<CKespRecord> record;
  try {
    kesp::RecordHeader header;
    Step step = Step::kSkipped;
    while (step == Step::kSkipped) step = StepToBody(position, header, skipDeleted);
    if (step == Step::kEnd) return nullptr;
    record = MakeRecord(static_cast<KESP_RECORD_TYPE>(header.type));
    record->m_recordVersion = header.version;
    record->SetSourceFlag(header.flags);
    record->m_filePosition = static_cast<std::uint32_t>(position);
  } catch (const CFileException& e) {
    NoteFailure(e);
    return nullptr;
  }
  return ReadBodyOf(std::move(record));
}

// A version-1 feature body that is cut short throws to the caller.
CKespRecord* CKespDataFile::ReadBodyOf(std::unique_ptr<CKespRecord> record) {
  m_file.ForgetSystemError();
  if (record->Read(m_file)) return record.release();
  m_error = record->GetError();
  // Records catch their own exceptions.
  m_ranOutOfMemory = m_file.LastSystemError() == ENOMEM;
  if (m_file.LastSystemError() != 0) NoteError(m_file.LastSystemError());
  return nullptr;
}

bool CKespDataFile::EndsWhole() {
  m_error = KESP_ERROR_NONE;
  if (!IsOpen()) return false;
  const std::uint64_t before = m_file.GetPosition();
  const bool whole = Guarded([this] { return SeekToFirstRecord() && WalkOverHeaders(); });
  return Guarded([&] { return m_file.Seek(static_cast<std::int64_t>(before), CFile::begin), whole; });
}

// Takes the same way through the file as ReadNextRecord when it skips deleted records.
bool CKespDataFile::WalkOverHeaders() {
  const auto fail = [this](KESP_ERROR_TYPE error) {
    m_error = error;
    return false;
  };
  for (;;) {
    const std::uint64_t start = m_file.GetPosition();
    kesp::RecordHeader header;
    if (!ReadHeader(header)) return m_error == KESP_ERROR_NORMAL_EOF;
    const kesp::RecordKind& kind = kesp::KindOfRecord(header.type);
    std::uint64_t length = header.length;
    if ((header.flags & KESP_FLAG_DELETED) == 0 && kind.use != kesp::RecordUse::kPassedOver) {
      // A body that is read has the length of its layout, whatever the header says. A tag states its own length.
      length = kesp::BodyLengthOf(header.type, header.version);
      if (header.type == KESP_RECORD_TAG && header.version <= kind.newest) {
        const std::span<const std::byte> fixed = m_file.ReadView(2 * sizeof(std::uint32_t));
        if (fixed.size() < 2 * sizeof(std::uint32_t)) return fail(KESP_ERROR_EOF);
        length = kesp::LoadLittle<std::uint32_t>(fixed.data() + sizeof(std::uint32_t));
      } else if (length == 0 || header.type == KESP_RECORD_FEATURE || header.version == 1) {
        // A record that is refused, or whose body may be.
        if (!m_file.ReachesTo(m_file.GetPosition() + length)) return fail(KESP_ERROR_EOF);
        m_file.Seek(static_cast<std::int64_t>(start), CFile::begin);
        kesp::RecordView view;
        if (!ViewAnyRecord(view, true, Skipped::kLeftOut)) return false;
        continue;
      }
    }
    if (!m_file.ReachesTo(m_file.GetPosition() + length)) return fail(KESP_ERROR_EOF);
    m_file.Seek(static_cast<std::int64_t>(length), CFile::current);
  }
}

CKespRecord* CKespDataFile::ReadNextRecord(unsigned long& position, bool skipDeleted) {
  auto position32 = static_cast<std::uint32_t>(position);
  const StoreAtEnd storePosition{position, position32};
  return ReadNextRecord(position32, skipDeleted);
}

CKespRecord* CKespDataFile::ReadNextRecord(bool skipDeleted) {
  std::uint32_t position = 0;
  return ReadNextRecord(position, skipDeleted);
}
