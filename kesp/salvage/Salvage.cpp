#include "kesp/salvage/Salvage.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "kesp/format/RecordKinds.h"
#include "kesp/format/TagBlock.h"
#include "kesp/platform/ByteSource.h"
#include "kesp/recordfile/FileHeader.h"
#include "kesp/recordfile/KespDataFile.h"
#include "kesp/recordfile/RebuiltFile.h"
#include "kesp/recordfile/RecordHeader.h"
#include "kesp/records/KespTag.h"

namespace kesp {
namespace {

constexpr std::uint16_t kNewestFileVersion = 3;
constexpr std::uint32_t kKnownFlags = 0x1FFF;  // every KESP_FLAG

bool IsPossibleBody(std::uint32_t type, std::uint16_t version, std::span<const std::byte> body) {
  FieldChecker checker(body);
  constexpr BodyFields kFields{};
  WithBody(type, version, [&](auto describe) { describe(checker, kFields); });
  return checker.IsPossible();
}

RecordHeader DecodeHeader(std::span<const std::byte> bytes) {
  RecordHeader header;
  FieldReader reader(bytes);
  DescribeRecordHeader(reader, header);
  return header;
}

class Salvager {
 public:
  // A version of 0 keeps that of the source.
  Salvager(CKespDataFile& source, RebuiltFile& out, std::uint16_t version, SalvageReport& report)
      : m_source(source),
        m_file(source.m_file),
        m_out(out),
        m_version(version),
        m_report(report),
        m_length(m_file.GetLength()) {}

  // Returns false when a record can't be written or the system can't read; raises what the file objects raise.
  bool Run() {
    PutFileHeader();
    // Goes up to the length at the start, so that it ends even while a writer appends. Each step goes forward, except
    // the one that goes back to the end of the file header.
    while (m_position < m_length) {
      [[maybe_unused]] const std::uint64_t before = m_position;
      [[maybe_unused]] const bool hadGoneBack = m_hasGoneBack;
      const Step step = Next();
      if (step == Step::kFailed || m_source.m_systemError != 0) return false;
      if (step == Step::kEnd) return true;
      assert(m_position > before || m_hasGoneBack != hadGoneBack);
    }
    return true;
  }

  // Ends where the walk ends.
  bool RunToDamage() {
    m_length = std::min(m_length, m_source.LengthLimit());
    std::array<std::byte, kFileHeaderSize> header{};
    const auto view = View(0, kFileHeaderSize);
    std::copy(view.begin(), view.end(), header.begin());
    m_position = m_source.m_firstRecordOffset;
    if (m_position > kFileHeaderSize) m_report.applicationBytes = m_position - kFileHeaderSize;
    PutFileHeader(header);
    auto step = Step::kGoOn;
    while (step == Step::kGoOn) step = NextToDamage();
    return step == Step::kEnd;
  }

 private:
  enum class Step { kGoOn, kEnd, kFailed };

  // Copies the file header, without the application header and with the version that was asked for. A header that can't
  // be opened, or whose first record is after other records, is written again; the records are then taken to begin
  // right after it.
  void PutFileHeader() {
    std::array<std::byte, kFileHeaderSize> header{};
    const auto view = View(0, kFileHeaderSize);
    std::copy(view.begin(), view.end(), header.begin());
    const std::uint32_t first =
        kHeaderLengthCountsFrom + LoadLittle<std::uint32_t>(header.data() + kHeaderLengthCountsFrom - 4);
    KESP_ERROR_TYPE error = KESP_ERROR_NONE;
    if (!std::equal(kSignature.begin(), kSignature.end(), header.begin(), IsSameByte)) {
      error = KESP_ERROR_SIGNATURE;
    } else if (view.size() >= kHeaderLengthCountsFrom && first > m_length) {
      error = KESP_ERROR_FILE_HEADER;
    } else if (view.size() < kFileHeaderSize) {
      error = KESP_ERROR_EOF;
    }
    m_position = m_firstRecord = first;
    std::uint64_t ignored = 0;
    // If the walk from that record reaches the end of the file, it is the first one, whatever it looks like.
    if (error == KESP_ERROR_NONE && first > kFileHeaderSize && !IsExactAt(first, ignored) &&
        FindBefore(first, kFileHeaderSize) != first && (first == m_length || WalkAll() != m_length)) {
      error = KESP_ERROR_FILE_HEADER;
    }
    if (error == KESP_ERROR_NONE && first > kFileHeaderSize) m_report.applicationBytes = first - kFileHeaderSize;
    if (error != KESP_ERROR_NONE) {
      std::transform(kSignature.begin(), kSignature.end(), header.begin(),
                     [](char c) { return static_cast<std::byte>(c); });
      std::byte* const version = header.data() + kSignature.size();
      const auto found = LoadLittle<std::uint16_t>(version);
      if (found == 0 || found > kNewestFileVersion) StoreLittle(version, kNewestFileVersion);
      m_firstRecord = kFileHeaderSize;
      (void)Skip(0, std::min<std::uint64_t>(kFileHeaderSize, m_length), error);
    }
    PutFileHeader(header);
  }
  void PutFileHeader(std::array<std::byte, kFileHeaderSize>& header) {
    if (m_version != 0) StoreLittle(header.data() + kSignature.size(), m_version);
    StoreLittle(header.data() + kHeaderLengthCountsFrom - 4, kOwnHeaderLength);
    m_out.PutFileHeader(header);
  }

  Step NextToDamage() {
    const std::uint64_t start = m_position;
    const auto endWith = [&](KESP_ERROR_TYPE reason) {
      if (m_source.m_systemError != 0) return Step::kFailed;
      NoteGap(start, m_length, reason);
      return Step::kEnd;
    };
    RecordHeader header;
    if (!ReadHeaderAt(start, header)) return endWith(m_source.GetError());
    if (IsPassedOver(header)) {
      const std::uint64_t end = start + kRecordHeaderSize + header.length;
      if (end > m_length) return endWith(KESP_ERROR_RECORD_HEADER);
      ++((header.flags & KESP_FLAG_DELETED) != 0 ? m_report.deleted : m_report.unknown);
      m_position = end;
      return Step::kGoOn;
    }
    KESP_ERROR_TYPE error = KESP_ERROR_NONE;
    const std::unique_ptr<CKespRecord> record = ReadRecordAt(start, error);
    if (!record) return endWith(error);
    const std::uint64_t end = m_file.GetPosition();
    if (end > m_length) return endWith(KESP_ERROR_RECORD_HEADER);
    return Keep(start, *record, end);
  }
  static bool IsSameByte(char c, std::byte b) { return static_cast<std::byte>(c) == b; }

  std::span<const std::byte> View(std::uint64_t offset, std::size_t count) {
    m_file.Seek(static_cast<std::int64_t>(offset), CFile::begin);
    return m_file.ReadView(count);
  }
  bool Fits(std::uint64_t offset, std::uint64_t count) const {
    return offset <= m_length && count <= m_length - offset;
  }

  // Whether the header has a known type, version and flags, and the body length of that layout. Stores the length of
  // the layout, which is where the next record begins.
  bool IsExact(const RecordHeader& header, std::uint64_t offset, std::uint64_t& bodyLength) {
    const RecordKind& kind = KindOfRecord(header.type);
    if (header.version == 0 || header.version > kind.newest || (header.flags & ~kKnownFlags) != 0) return false;
    const std::uint64_t body = offset + kRecordHeaderSize;
    if (header.type == KESP_RECORD_TAG) {
      bodyLength = header.length;
      if (header.length < kTagFixedPart || !Fits(body, header.length)) return false;
      const auto fixed = View(body, kTagFixedPart);
      return fixed.size() == kTagFixedPart &&
             LoadLittle<std::uint32_t>(fixed.data() + 4) == header.length - static_cast<std::uint32_t>(kTagFixedPart);
    }
    bodyLength = kind.length[header.version];
    const bool isLengthOfVersion2 = header.version == 3 && header.length == kind.length[2];
    return (header.length == bodyLength || isLengthOfVersion2) && Fits(body, bodyLength);
  }
  bool IsExactAt(std::uint64_t offset, std::uint64_t& bodyLength) {
    if (!Fits(offset, kRecordHeaderSize)) return false;
    return IsExact(DecodeHeader(View(offset, kRecordHeaderSize)), offset, bodyLength);
  }
  bool IsEndOrExact(std::uint64_t offset) {
    std::uint64_t ignored = 0;
    return offset == m_length || IsExactAt(offset, ignored);
  }
  // Whether the records go on at `offset`: there is the end, an exact header, or up to `hops` other records followed by
  // one of these.
  bool GoesOnAt(std::uint64_t offset, int hops = 4) {
    if (IsEndOrExact(offset)) return true;
    if (hops == 0 || !Fits(offset, kRecordHeaderSize)) return false;
    const RecordHeader header = DecodeHeader(View(offset, kRecordHeaderSize));
    const std::uint64_t body = offset + kRecordHeaderSize;
    const std::size_t layout = IsPassedOver(header) ? 0 : BodyLengthOf(header.type, header.version);
    if (layout != 0) return header.length != 0 && GoesOnAt(body + layout, hops - 1);
    return IsPassedOver(header) && MayPassOver(header) && GoesOnAt(body + header.length, hops - 1);
  }
  static bool IsPassedOver(const RecordHeader& header) {
    return (header.flags & KESP_FLAG_DELETED) != 0 || KindOfRecord(header.type).use == RecordUse::kPassedOver;
  }
  // A header that the walk skips can point anywhere. After damage only one that looks like a header is followed.
  static bool MayPassOver(const RecordHeader& header) {
    return header.type <= 0xFFFF && header.version <= 0xFF && (header.flags & ~kKnownFlags) == 0 && header.length != 0;
  }

  // Handles one record where records are known to begin, or searches for the next such place.
  Step Next() {
    const std::uint64_t start = m_position;
    RecordHeader header;
    if (!ReadHeaderAt(start, header)) {
      if (m_source.GetError() == KESP_ERROR_NORMAL_EOF) return Step::kEnd;
      return m_source.GetError() == KESP_ERROR_NONE ? Step::kFailed : Damage(start, m_source.GetError());
    }
    if (IsPassedOver(header)) return PassOver(start, header);

    const std::uint64_t body = start + kRecordHeaderSize;
    std::uint64_t bodyLength = 0;
    const bool isExact = IsExact(header, start, bodyLength);
    // A record that was cut short may be followed by others: a writer was interrupted, and a later one appended.
    std::uint64_t inside = 0;  // start of another record inside this one; 0 for none
    if (isExact && !GoesOnAt(body + bodyLength) && !IsBelieved(start)) {
      inside = RecordWithin(body, body + bodyLength);
      if (inside != 0 && m_damaged) return Skip(start, inside, KESP_ERROR_RECORD_HEADER);
      // Only the header of the record is left.
      if (m_damaged && !IsPossible(header, body, bodyLength)) return Damage(start, KESP_ERROR_RECORD_HEADER);
    }
    KESP_ERROR_TYPE error = KESP_ERROR_NONE;
    const std::unique_ptr<CKespRecord> record = ReadRecordAt(start, error);
    if (!record) {
      if (error == KESP_ERROR_NONE && m_source.m_systemError != 0) return Step::kFailed;
      // A body that can't be, after an exact header: the next record is where the header says.
      if (isExact && GoesOnAt(body + bodyLength)) return Skip(start, body + bodyLength, error);
      return Damage(start, error);
    }
    const std::uint64_t end = m_file.GetPosition();
    if (inside == 0 && (isExact || GoesOnAt(end) || IsBelieved(start))) return Keep(start, *record, end);
    return KeepTheLast(start, *record, end, inside);
  }
  // The walk reads this record and goes wrong after it. The copy keeps it, as the walk does.
  Step KeepTheLast(std::uint64_t start, CKespRecord& record, std::uint64_t end, std::uint64_t inside) {
    if (m_damaged) return Damage(start, KESP_ERROR_RECORD_HEADER);
    if (Keep(start, record, end) == Step::kFailed) return Step::kFailed;
    const std::uint64_t found = inside != 0 ? inside : Find(start + kRecordHeaderSize);
    return Skip(found < end ? start : end, found, KESP_ERROR_RECORD_HEADER);
  }
  bool ReadHeaderAt(std::uint64_t start, RecordHeader& header) {
    m_file.Seek(static_cast<std::int64_t>(start), CFile::begin);
    KESP_RECORD_TYPE type = KESP_RECORD_NONE;
    const bool isRead = m_source.ReadNextRecordHeader(type, header.version, header.flags, header.length);
    header.type = type;
    return isRead;
  }
  // Null, with the reason in `error`, when there is none to be read.
  std::unique_ptr<CKespRecord> ReadRecordAt(std::uint64_t start, KESP_ERROR_TYPE& error) {
    m_file.Seek(static_cast<std::int64_t>(start), CFile::begin);
    try {
      std::unique_ptr<CKespRecord> record(m_source.ReadNextRecord(false));
      error = m_source.GetError();
      return record;
    } catch (const CFileException& e) {
      if (e.m_cause != CFileException::endOfFile) throw;
      error = KESP_ERROR_EOF;
      return nullptr;
    }
  }

  // Whether the walk is right about the record at `start`, which it reaches. It is right about all of a file whose end
  // it reaches, and otherwise about what is before the last record that it reads or the last exact header: it does not
  // get there by chance. The walk is only run when a record looks like damage, since a sound file may have such records
  // too, for example with wrong lengths that readers ignore.
  bool IsBelieved(std::uint64_t start) {
    if (m_damaged) return false;
    if (!m_believed) m_believed = WalkAll();
    return start < *m_believed;
  }
  // Returns the start of the walk's last record or exact header, or the end of the file if the walk reaches it.
  std::uint64_t WalkAll() {
    std::uint64_t last = m_firstRecord;
    std::uint64_t start = m_firstRecord;
    while (start < m_length) {
      RecordHeader header;
      if (!ReadHeaderAt(start, header)) return last;
      std::uint64_t bodyLength = 0;
      if (IsExact(header, start, bodyLength)) last = start;
      if (IsPassedOver(header)) {
        start += kRecordHeaderSize + header.length;
        continue;
      }
      KESP_ERROR_TYPE error = KESP_ERROR_NONE;
      if (!ReadRecordAt(start, error)) return last;
      last = start;
      start = m_file.GetPosition();
    }
    return start == m_length ? m_length : last;
  }

  Step Keep(std::uint64_t start, CKespRecord& record, std::uint64_t end) {
    if (!Put(start, record)) {
      if (m_source.m_systemError == 0) m_source.m_systemError = m_out.SystemError();
      return Step::kFailed;
    }
    ++m_report.kept;
    m_position = end;
    return Step::kGoOn;
  }
  // Writes the record in its own version, or in the version asked for if that is older. A record of version 0 is
  // treated as the newest version.
  bool Put(std::uint64_t start, CKespRecord& record) {
    const RecordKind& kind = KindOfRecord(record.m_recordType);
    const std::uint16_t own = record.m_recordVersion;
    std::uint16_t version = own != 0 ? own : kind.newest;
    if (m_version != 0) version = std::min(version, m_version);
    const RecordHeader header{record.m_recordType, version, record.m_flags,
                              static_cast<std::uint32_t>(record.GetLength(version))};
    // Copies the bytes: writing through the class could cut a text earlier or drop an old header's time. Except for a
    // version-2 header record, which names the file version.
    const bool isOldVersion = m_version != 0 && m_version < kNewestFileVersion;
    const bool namesVersion = record.m_recordType == KESP_RECORD_HEADER && version == 2 && isOldVersion;
    if (version == own && kind.length[version] != 0 && !namesVersion) {
      const auto body = View(start + kRecordHeaderSize, header.length);
      if (body.size() < header.length) return false;
      m_out.Put(header, body);
      return true;
    }
    if (m_version != 0) m_report.loss.Add(record, version);
    return m_out.Put(header, record);
  }

  // Skips a record that the walk skips, if it has the length that its header states.
  Step PassOver(std::uint64_t start, const RecordHeader& header) {
    const bool isDeleted = (header.flags & KESP_FLAG_DELETED) != 0;
    const std::uint64_t body = start + kRecordHeaderSize;
    std::uint64_t& count = isDeleted ? m_report.deleted : m_report.unknown;
    std::uint64_t bodyLength = 0;
    const bool isExact = IsExact(header, start, bodyLength);
    const std::uint64_t end = body + header.length;
    const bool goesOn = GoesOnAt(end);
    const auto passTo = [&](std::uint64_t to) {
      ++count;
      m_position = to;
      return Step::kGoOn;
    };
    if (isExact && goesOn) return passTo(end);
    const std::uint64_t inside = RecordWithin(body, end);
    if ((inside == 0 && goesOn && MayPassOver(header)) || IsBelieved(start)) return passTo(end);
    // A record that was marked deleted was whole then. But a tag's length proves nothing.
    if (isExact && header.type != KESP_RECORD_TAG) return passTo(body + bodyLength);
    // With records inside it is not a record, but a header that points to the wrong place.
    if (inside != 0) return Skip(start, inside, KESP_ERROR_RECORD_HEADER);
    if (isExact) return passTo(end);
    // It is either the last record before the damage or a damaged header: the next certain record decides.
    const std::uint64_t found = Find(body);
    const bool isWhole = end <= found && end <= m_length;
    if (isWhole) ++count;
    return Skip(isWhole ? end : start, found, KESP_ERROR_RECORD_HEADER);
  }

  Step Skip(std::uint64_t from, std::uint64_t to, KESP_ERROR_TYPE reason) {
    m_damaged = true;
    NoteGap(from, to, reason);
    m_position = to;
    return Step::kGoOn;
  }

  Step Damage(std::uint64_t offset, KESP_ERROR_TYPE reason) {
    // If not even the first record can be read, the file header may give a wrong place. Tried only once: the search
    // back there may find nothing to keep, and lead here again.
    if (offset == m_firstRecord && offset > kFileHeaderSize && m_report.kept == 0 && !m_hasGoneBack) {
      m_hasGoneBack = true;
      // up to the first record, from the file header on
      const std::uint64_t found = FindBefore(offset, kFileHeaderSize);
      if (found < offset) {
        m_report.applicationBytes = 0;
        return Skip(kFileHeaderSize, found, reason);
      }
    }
    return Skip(offset, Find(offset + 1), reason);
  }

  void NoteGap(std::uint64_t from, std::uint64_t to, KESP_ERROR_TYPE reason) {
    if (to <= from) return;
    ++m_report.gapCount;
    m_report.gapBytes += to - from;
    if (m_report.gaps.size() < SalvageReport::kMostGaps) m_report.gaps.push_back({from, to - from, reason});
  }

  // Returns the start of the next certain record at or after `offset`; the end of the file if there is none.
  std::uint64_t Find(std::uint64_t offset) { return FindBefore(m_length, offset); }
  // The same; returns `limit` when none begins before it.
  std::uint64_t FindBefore(std::uint64_t limit, std::uint64_t from) {
    std::uint64_t offset = from;
    while (offset < limit && Fits(offset, kRecordHeaderSize)) {
      const std::span<const std::byte> bytes = Window(offset, limit - offset + kRecordHeaderSize - 1);
      if (bytes.size() < kRecordHeaderSize) break;
      const auto places =
          static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size() - kRecordHeaderSize + 1, limit - offset));
      std::size_t i = 0;
      while (i < places && !MayBegin(bytes.data() + i)) ++i;
      offset += i;
      if (i == places) continue;
      if (IsCandidate(DecodeHeader(bytes.subspan(i, kRecordHeaderSize)), offset)) return offset;
      ++offset;
    }
    return limit;
  }
  // A copy of the part being searched. Checking what a header points to moves the file's buffer away; without the copy
  // a hostile file could make it fill again for each wrong header.
  std::span<const std::byte> Window(std::uint64_t offset, std::uint64_t count) {
    if (offset < m_windowStart || offset + kRecordHeaderSize > m_windowStart + m_window.size()) {
      const auto view = View(offset, static_cast<std::size_t>(std::min<std::uint64_t>(count, CFile::kMaxView)));
      m_window.assign(view.begin(), view.end());
      m_windowStart = offset;
    }
    return std::span<const std::byte>(m_window).subspan(static_cast<std::size_t>(offset - m_windowStart));
  }
  // Returns the start of a record inside another; 0 for none.
  std::uint64_t RecordWithin(std::uint64_t body, std::uint64_t end) {
    const std::uint64_t limit = std::min(end, m_length);
    const std::uint64_t found = FindBefore(limit, body);
    return found < limit ? found : 0;
  }
  // A quick test that most bytes fail.
  static bool MayBegin(const std::byte* at) {
    const auto type = LoadLittle<std::uint32_t>(at);
    if (type == 0 || type > KESP_RECORD_TAG) return false;
    const auto version = LoadLittle<std::uint16_t>(at + 4);
    return version != 0 && version <= KindOfRecord(type).newest &&
           (LoadLittle<std::uint32_t>(at + 6) & ~kKnownFlags) == 0;
  }
  bool IsCandidate(const RecordHeader& header, std::uint64_t offset) {
    std::uint64_t bodyLength = 0;
    if (!IsExact(header, offset, bodyLength)) return false;
    const std::uint64_t body = offset + kRecordHeaderSize;
    return IsPossible(header, body, bodyLength) && GoesOnAt(body + bodyLength);
  }
  bool IsPossible(const RecordHeader& header, std::uint64_t body, std::uint64_t bodyLength) {
    if (header.type == KESP_RECORD_TAG) return IsPossibleTag(body, header.length);
    return IsPossibleBody(header.type, header.version, View(body, static_cast<std::size_t>(bodyLength)));
  }
  // Reads only the lengths of a tag's block and the end of its name: a tag may be checked many times.
  bool IsPossibleTag(std::uint64_t body, std::uint32_t length) {
    const auto word = [&](std::uint64_t at) {
      const auto bytes = View(at, 4);
      return bytes.size() == 4 ? std::optional(LoadLittle<std::uint32_t>(bytes.data())) : std::nullopt;
    };
    const auto kind = word(body);
    if (!kind || *kind > KESP_TAG_NAMED_FLAG) return false;
    if (length == kTagFixedPart) return true;
    const std::uint64_t block = body + kTagFixedPart;
    const TagBlockLayout layout =
        LayoutOfTagBlock(length - kTagFixedPart, [&](std::uint64_t offset) { return word(block + offset); });
    if (!layout.payloadLength) return false;
    if (*layout.nameBytes < 2) return *layout.nameBytes == 0;
    const auto terminator = View(block + TagBlockLayout::kName + *layout.nameBytes - 2, 2);
    return terminator.size() == 2 && LoadLittle<std::uint16_t>(terminator.data()) == 0;
  }

  CKespDataFile& m_source;
  CFile& m_file;
  RebuiltFile& m_out;
  std::uint16_t m_version;
  SalvageReport& m_report;
  std::uint64_t m_length;
  std::uint64_t m_position = 0;
  std::uint64_t m_firstRecord = 0;
  bool m_damaged = false;
  bool m_hasGoneBack = false;
  std::vector<std::byte> m_window;
  std::uint64_t m_windowStart = 0;
  std::optional<std::uint64_t> m_believed;  // result of WalkAll for IsBelieved; empty until needed
};

}  // namespace

namespace {

template <class Run>
bool CopyWith(CKespDataFile& source, const CString& destination, unsigned short kespVersion, SalvageReport& report,
              Run run) {
  report = {};
  if (!source.IsOpen()) return false;
  const int earlierFailure = std::exchange(source.m_systemError, 0);
  const auto note = [&](const CFileException& failure) {
    if (source.m_systemError == 0) source.m_systemError = failure.m_lOsError;
  };
  bool good = false;
  try {
    if (!source.m_file.IsSameFile(destination)) {
      source.m_file.Flush();
      RebuiltFile out(destination);
      try {
        Salvager salvager(source, out, kespVersion <= kNewestFileVersion ? kespVersion : 0, report);
        good = run(salvager);
      } catch (const CFileException& e) {
        note(e);
      }
      out.Finish();  // what was read is kept
    }
  } catch (const CFileException& e) {
    note(e);
    good = false;
  } catch (const std::bad_alloc&) {
    if (source.m_systemError == 0) source.m_systemError = ENOMEM;
    good = false;
  }
  if (earlierFailure != 0) source.m_systemError = earlierFailure;
  return good;
}

// Opens the file without a look at its header, which may be damaged.
template <class Open>
bool SalvageUnchecked(Open open, const CString& destination, unsigned short kespVersion, SalvageReport& report) {
  report = {};
  try {
    CKespDataFile file;
    return open(file.m_file) && Salvage(file, destination, kespVersion, report);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace

bool Salvage(CKespDataFile& source, const CString& destination, unsigned short kespVersion, SalvageReport& report) {
  return CopyWith(source, destination, kespVersion, report, [](Salvager& salvager) { return salvager.Run(); });
}

bool Rebuild(CKespDataFile& source, const CString& destination, unsigned short kespVersion, SalvageReport& report) {
  return CopyWith(source, destination, kespVersion, report, [](Salvager& salvager) { return salvager.RunToDamage(); });
}

bool Salvage(const CString& source, const CString& destination, unsigned short kespVersion, SalvageReport& report) {
  return SalvageUnchecked([&](CFile& file) { return file.Open(source, CFile::modeRead | CFile::shareDenyNone); },
                          destination, kespVersion, report);
}

bool Salvage(std::unique_ptr<ByteSource> source, const CString& destination, unsigned short kespVersion,
             SalvageReport& report) {
  return SalvageUnchecked([&](CFile& file) { return file.Open(std::move(source), CString()); }, destination,
                          kespVersion, report);
}

}  // namespace kesp
