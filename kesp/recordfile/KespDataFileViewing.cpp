// The walk that returns views of records instead of objects.
#include <algorithm>
#include <cerrno>
#include <limits>
#include <new>

#include "kesp/format/RecordKinds.h"
#include "kesp/format/RecordView.h"
#include "kesp/recordfile/KespDataFile.h"
#include "kesp/recordfile/PlainPoints.h"
#include "kesp/recordfile/RecordHeader.h"

namespace {

// Whether a reader accepts the choices in a body. Unknown kinds of attribute are repaired, but not in version 1.
KESP_ERROR_TYPE ErrorOf(std::uint32_t recordType, std::uint16_t version, const std::byte* body) noexcept {
  if (recordType == KESP_RECORD_FEATURE) {
    const KESP_FEATURE_TYPE type = kesp::FeatureView(body, version).FeatureType();
    if (type < KESP_FEATURE_POINT || type > KESP_FEATURE_AREA) return KESP_ERROR_BAD_RECORD;
  } else if (recordType == KESP_RECORD_ATTRIBUTE && version == 1) {
    const std::uint16_t kind = kesp::AttributeView(body, version).StoredKind();
    if (kind < KESP_ATTRIBUTE_STRING || kind > KESP_ATTRIBUTE_OTHER) return KESP_ERROR_ATTRIBUTE_TYPE;
  }
  return KESP_ERROR_NONE;
}

}  // namespace

// Takes as many plain points as lie in the buffer one after another, at most `most`. Returns their bytes, record
// headers included; none if the next record is something else or not all of it is in the buffer.
std::span<const std::byte> CKespDataFile::ViewPlainPoints(std::size_t most) {
  // Positions that don't wrap at 32 bits, and bodies that don't go past the limit, need no test for each record.
  const std::uint64_t end = std::min(m_file.KnownLength(), m_lengthLimit);
  if (end > std::numeric_limits<std::uint32_t>::max() || m_file.GetPosition() > end) return {};
  std::span<const std::byte> bytes = m_file.Buffered();
  bytes = bytes.first(static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), end - m_file.GetPosition())));
  const std::size_t room = std::min(most, bytes.size() / kesp::kPlainPointSize);
  std::size_t count = 0;
  while (count < room && kesp::IsPlainPoint(bytes.data() + count * kesp::kPlainPointSize)) ++count;
  m_file.Skip(count * kesp::kPlainPointSize);
  return bytes.first(count * kesp::kPlainPointSize);
}

// A fast path for records without flags that have the length of their layout and lie in the buffer. Returns false and
// consumes nothing for all others.
inline bool CKespDataFile::ViewBuffered(kesp::RecordView& view) {
  const std::span<const std::byte> bytes = m_file.Buffered();
  if (bytes.size() < kesp::kRecordHeaderSize) return false;
  const auto type = kesp::LoadLittle<std::uint32_t>(bytes.data() + kesp::RecordHeaderPlaces::kType);
  const auto version = kesp::LoadLittle<std::uint16_t>(bytes.data() + kesp::RecordHeaderPlaces::kVersion);
  // The lengths of the newest versions are constants in branches of their own. So the processor goes on to the next
  // record before it has the bytes of this one.
  constexpr auto kLength = [](std::uint32_t kind) { return kesp::BodyLengthOf(kind, kesp::KindOfRecord(kind).newest); };
  if (type == KESP_RECORD_POINT && version == kesp::kNewestPoint)
    return ViewBuffered(view, bytes, kLength(KESP_RECORD_POINT));
  if (type == KESP_RECORD_ATTRIBUTE && version == kesp::NewestOf(kesp::kAttributeBodies)) {
    return ViewBuffered(view, bytes, kLength(KESP_RECORD_ATTRIBUTE));
  }
  if (type == KESP_RECORD_FEATURE && version == kesp::NewestOf(kesp::kFeatureBodies)) {
    return ViewBuffered(view, bytes, kLength(KESP_RECORD_FEATURE));
  }
  if (type == KESP_RECORD_FEATURE_END && version == 1)
    return ViewBuffered(view, bytes, kLength(KESP_RECORD_FEATURE_END));
  const std::size_t length = kesp::BodyLengthOf(type, version);
  return length != 0 && ViewBuffered(view, bytes, length);
}

[[gnu::always_inline]] inline bool CKespDataFile::ViewBuffered(kesp::RecordView& view, std::span<const std::byte> bytes,
                                                               std::size_t length) {
  using Places = kesp::RecordHeaderPlaces;
  const auto flags = kesp::LoadLittle<std::uint32_t>(bytes.data() + Places::kFlags);
  const auto stated = kesp::LoadLittle<std::uint32_t>(bytes.data() + Places::kLength);
  if (flags != 0 || stated != length || bytes.size() - kesp::kRecordHeaderSize < length) return false;
  // Compared in 32 bits, as in ReadHeader.
  const std::uint64_t start = m_file.GetPosition();
  const auto end = static_cast<std::uint32_t>(start + kesp::kRecordHeaderSize + length);
  if (end > LimitedLength(m_file.KnownLength())) return false;
  const auto type = kesp::LoadLittle<std::uint32_t>(bytes.data() + Places::kType);
  const auto version = kesp::LoadLittle<std::uint16_t>(bytes.data() + Places::kVersion);
  const std::span<const std::byte> body = bytes.subspan(kesp::kRecordHeaderSize, length);
  if (ErrorOf(type, version, body.data()) != KESP_ERROR_NONE) return false;
  view.m_type = static_cast<KESP_RECORD_TYPE>(type);
  view.m_version = version;
  view.m_isSkipped = false;
  view.m_storedFlags = 0;
  view.m_statedLength = stated;
  view.m_position = start;
  view.m_body = body;
  m_file.Skip(kesp::kRecordHeaderSize + length);
  return true;
}

bool CKespDataFile::ReadNextView(kesp::RecordView& view, bool skipDeleted) {
  return ViewNext(view, skipDeleted, Skipped::kLeftOut);
}

bool CKespDataFile::ReadNextStep(kesp::RecordView& view, bool skipDeleted) {
  return ViewNext(view, skipDeleted, Skipped::kReturned);
}

kesp::PointRun CKespDataFile::ReadPointRun() {
  kesp::PointRun run;
  if (!IsOpen()) return run;
  run.m_position = m_file.GetPosition();
  const std::span<const std::byte> points = ViewPlainPoints(std::numeric_limits<std::size_t>::max());
  if (points.empty()) return run;
  run.m_body = points.data() + kesp::kRecordHeaderSize;
  run.m_size = points.size() / kesp::kPlainPointSize;
  run.m_stride = kesp::kPlainPointSize;
  run.m_version = kesp::kNewestPoint;
  return run;
}

inline bool CKespDataFile::ViewNext(kesp::RecordView& view, bool skipDeleted, Skipped skipped) {
  m_error = KESP_ERROR_NONE;
  m_ranOutOfMemory = false;
  if (!IsOpen()) return false;
  try {
    return ViewBuffered(view) || ViewAnyRecord(view, skipDeleted, skipped);
  } catch (const std::bad_alloc&) {
    m_error = KESP_ERROR_NONE;
    m_ranOutOfMemory = true;
    NoteError(ENOMEM);
    return false;
  }
}

bool CKespDataFile::ViewAnyRecord(kesp::RecordView& view, bool skipDeleted, Skipped skipped) {
  kesp::RecordHeader header;
  Step step = Step::kSkipped;
  try {
    do {
      step = StepToBody(view.m_position, header, skipDeleted);
    } while (step == Step::kSkipped && skipped == Skipped::kLeftOut);
  } catch (const CFileException& e) {
    NoteFailure(e);
    return false;
  }
  if (step == Step::kEnd) return false;
  kesp::RecordView next;
  next.m_type = static_cast<KESP_RECORD_TYPE>(header.type);
  next.m_version = header.version;
  next.m_isSkipped = step == Step::kSkipped;
  next.m_storedFlags = header.flags;
  next.m_statedLength = header.length;
  next.m_position = view.m_position;
  try {
    if (step == Step::kRecord && !ViewBodyOf(next)) return false;
  } catch (const CFileException& e) {
    // As when the object is read: hosts recognise the end of an old file by this exception.
    if (next.Type() == KESP_RECORD_FEATURE && next.Version() == 1) throw;
    NoteFailure(e);
    return false;
  }
  view = next;
  return true;
}

bool CKespDataFile::ViewBodyOf(kesp::RecordView& view) {
  if (view.Type() == KESP_RECORD_TAG) return ViewBlockOf(view);
  const bool hasOneLayout = view.Type() == KESP_RECORD_FEATURE_END;
  const std::size_t length = kesp::BodyLengthOf(view.Type(), hasOneLayout ? 1 : view.Version());
  // There is no version 0. Only attributes accept it, as an empty one.
  if (length == 0) return view.Type() == KESP_RECORD_ATTRIBUTE;
  view.m_body = m_file.ReadView(length);
  if (view.m_body.size() < length) {
    if (view.Type() == KESP_RECORD_FEATURE && view.Version() == 1) {
      throw CFileException(CFileException::endOfFile, m_file.GetFilePath());
    }
    const bool isNewestHeader = view.Type() == KESP_RECORD_HEADER && view.Version() != 1;
    m_error = isNewestHeader ? KESP_ERROR_APP_HEADER : KESP_ERROR_EOF;
    return false;
  }
  m_error = ErrorOf(view.Type(), view.Version(), view.m_body.data());
  return m_error == KESP_ERROR_NONE;
}

// A tag's block has the length that the block's own length states.
bool CKespDataFile::ViewBlockOf(kesp::RecordView& view) {
  const std::uint64_t start = m_file.GetPosition();
  view.m_body = m_file.ReadView(kesp::kTagFixedPart);
  if (view.m_body.size() == kesp::kTagFixedPart) {
    const std::uint64_t length = kesp::kTagFixedPart + std::uint64_t{view.AsTag().BlockLength()};
    const std::size_t held =
        static_cast<std::size_t>(std::min<std::uint64_t>(length, kesp::kTagFixedPart + kesp::TagView::kMostBlock));
    if (held == kesp::kTagFixedPart) return true;
    if (m_file.ReachesTo(start + length)) {
      m_file.Seek(static_cast<std::int64_t>(start), CFile::begin);
      view.m_body = m_file.ReadView(held);
      m_file.Skip(length - held);
      if (view.m_body.size() == held) return true;
    }
  }
  m_error = KESP_ERROR_EOF;
  m_file.SeekToEnd();
  return false;
}
