#include "tools/kesp/Joining.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <unordered_map>

#include "tools/kesp/Console.h"
#include "tools/kesp/Opening.h"
#include "tools/kesp/RecordWalk.h"

namespace kesp::tool {
namespace {

constexpr std::uint32_t kFileHeaderSize = 50;

bool StartsWith(const CKespRecord& record, std::u16string_view key) {
  return record.m_recordType == KESP_RECORD_NOTE &&
         static_cast<const CKespNote&>(record).NoteText.View().starts_with(key);
}

// Sorts the records of one file, as a data set does it.
class Collector {
 public:
  explicit Collector(Source& source) : m_source(source) {}

  void Add(std::unique_ptr<CKespRecord> record) {
    if (IsOfHeader(*record)) {
      m_source.header.push_back(std::move(record));
    } else if (const auto feature = FeatureOf(*record); feature && !m_features.contains(*feature)) {
      ++m_source.counts.withoutFeature;
    } else if (record->m_recordType != KESP_RECORD_HEADER) {
      Count(*record);
      m_source.records.push_back(std::move(record));
    }
  }

 private:
  // The header record comes first in a whole file, and "BMC:" before "ZOM:".
  bool IsOfHeader(const CKespRecord& record) const {
    const Records& header = m_source.header;
    if (header.empty()) return true;
    if (!m_source.records.empty() || m_source.counts.withoutFeature != 0 || header.front()->m_recordVersion != 1) {
      return false;
    }
    return (header.size() == 1 && StartsWith(record, u"BMC:")) ||
           (!StartsWith(*header.back(), u"ZOM:") && StartsWith(record, u"ZOM:"));
  }
  static std::optional<std::uint32_t> FeatureOf(const CKespRecord& record) {
    switch (record.m_recordType) {
      case KESP_RECORD_POINT:
        return static_cast<const CKespPoint&>(record).FeatureNumber;
      case KESP_RECORD_ATTRIBUTE:
        return static_cast<const CKespAttribute&>(record).FeatureNumber;
      case KESP_RECORD_FEATURE_END:
        return static_cast<const CKespFeatureEnd&>(record).FeatureNumber;
      default:
        return std::nullopt;
    }
  }
  void Count(const CKespRecord& record) {
    JoinCounts& counts = m_source.counts;
    if (record.m_recordType == KESP_RECORD_FEATURE) {
      ++counts.features;
      m_features.insert(static_cast<const CKespFeature&>(record).FeatureNumber);
    }
    if (record.m_recordType == KESP_RECORD_POINT) ++counts.points;
    if (record.m_recordType == KESP_RECORD_ATTRIBUTE) ++counts.attributes;
    if (record.m_recordType == KESP_RECORD_NOTE) ++counts.notes;
    if (record.m_recordType == KESP_RECORD_TAG) ++counts.tags;
  }

  Source& m_source;
  std::unordered_set<std::uint32_t> m_features;
};

void TellLeftOut(const Source& source) {
  const auto tell = [&](std::uint64_t count, const char* what, const char* why) {
    if (count != 0) Complain(source.path, Counted(count, what) + why);
  };
  tell(source.counts.unknown, "record", " of unknown type left out");
  tell(source.counts.withoutFeature, "record", " without a feature left out");
  tell(source.counts.applicationBytes, "byte", " before the first record, the application's own, left out");
}

std::optional<ExitStatus> ReadSource(Source& source, bool json, Output& out) {
  if (source.steady.IsWritten()) {
    Complain(source.path, kIsWritten);
    return kExitTrouble;
  }
  if (const auto refused = OpenForReading(source.file, source.path)) return Refuse(*refused, source.path, json, out);
  const std::uint32_t first = source.file.m_firstRecordOffset;
  source.counts.applicationBytes = first > kFileHeaderSize ? first - kFileHeaderSize : 0;
  Collector collector(source);
  RecordWalk walk(source.file, DeletedRecords::kPassOver);
  for (auto step = walk.Next(); step != RecordWalk::Step::kEnd; step = walk.Next()) {
    if (step == RecordWalk::Step::kRecord) {
      if (auto record = walk.TakeRecord()) collector.Add(std::move(record));
    } else if (!walk.View().IsDeleted()) {
      ++source.counts.unknown;
    }
  }
  if (!walk.End().IsWhole()) return Refuse(walk.End(), source.path, json, out);
  TellLeftOut(source);
  return std::nullopt;
}

using NumberMap = std::unordered_map<std::uint32_t, std::uint32_t>;

std::uint32_t Mapped(const NumberMap& map, std::uint32_t number) {
  const auto entry = map.find(number);
  return entry == map.end() ? number : entry->second;
}

// The numbers that a source has, each once, in file order.
struct OwnNumbers {
  explicit OwnNumbers(const Source& source) {
    std::unordered_set<std::uint32_t> seenFeatures;
    std::unordered_set<std::uint32_t> seenPoints;
    for (const auto& record : source.records) {
      if (record->m_recordType == KESP_RECORD_FEATURE) {
        const std::uint32_t number = static_cast<const CKespFeature&>(*record).FeatureNumber;
        if (seenFeatures.insert(number).second) features.push_back(number);
      } else if (record->m_recordType == KESP_RECORD_POINT) {
        const std::uint32_t number = static_cast<const CKespPoint&>(*record).PointNumber;
        if (seenPoints.insert(number).second) points.push_back(number);
      }
    }
  }
  std::vector<std::uint32_t> features;
  std::vector<std::uint32_t> points;
};

// Gives the numbers out of `own` that are taken new ones, and takes all. False when there are no numbers left.
bool MapTaken(NumberMap& map, const std::vector<std::uint32_t>& own, NumberSpace& space) {
  for (const std::uint32_t number : own) {
    if (!space.taken.contains(number)) continue;
    const auto given = space.TakeFree();
    if (!given) return false;
    map[number] = *given;
  }
  for (const std::uint32_t number : own) space.taken.insert(Mapped(map, number));
  return true;
}

std::string SomeOf(const NumberMap& map) {
  constexpr std::size_t kMostShown = 10;
  std::vector<std::uint32_t> numbers;
  for (const auto& [number, given] : map) numbers.push_back(number);
  std::sort(numbers.begin(), numbers.end());
  std::string text;
  for (std::size_t i = 0; i < std::min(numbers.size(), kMostShown); ++i) {
    text += (i == 0 ? "" : ", ") + std::to_string(numbers[i]);
  }
  return numbers.size() > kMostShown ? text + " and others" : text;
}

// Puts other numbers into a source's records.
class Renumberer {
 public:
  Renumberer(const NumberMap& features, const NumberMap& points) : m_features(features), m_points(points) {}

  // What is wrong, or nothing.
  std::string Apply(CKespRecord& record) const {
    switch (record.m_recordType) {
      case KESP_RECORD_FEATURE:
        Change(m_features, static_cast<CKespFeature&>(record).FeatureNumber);
        return {};
      case KESP_RECORD_POINT:
        Change(m_features, static_cast<CKespPoint&>(record).FeatureNumber);
        Change(m_points, static_cast<CKespPoint&>(record).PointNumber);
        return {};
      case KESP_RECORD_ATTRIBUTE:
        Change(m_features, static_cast<CKespAttribute&>(record).FeatureNumber);
        return {};
      case KESP_RECORD_FEATURE_END:
        Change(m_features, static_cast<CKespFeatureEnd&>(record).FeatureNumber);
        return {};
      case KESP_RECORD_TAG:
        return ApplyToTag(static_cast<CKespTag&>(record));
      default:
        return {};
    }
  }

 private:
  static void Change(const NumberMap& map, std::uint32_t& number) { number = Mapped(map, number); }

  // The numbers are changed in the block's own bytes, so that all else in it stays.
  std::string ApplyToTag(CKespTag& tag) const {
    const TagParts parts = PartsOf(tag);
    if (!parts.payload) return {};
    const auto at = reinterpret_cast<const unsigned char*>(parts.payload->data()) - tag.m_pData;
    const std::span<unsigned char> payload(tag.m_pData + at, parts.payload->size());
    switch (tag.m_tagType) {
      case KESP_TAG_GPS_MARK:
        if (payload.size() < 16) return {};
        ChangeWord(m_features, payload, 0);
        ChangeWord(m_points, payload, 1);
        return {};
      case KESP_TAG_FEATURE_LINK:
        if (payload.size() < 24) return {};
        ChangeWord(m_features, payload, 0);
        ChangeWord(m_features, payload, 2);
        return {};
      case KESP_TAG_NAMED_FLAG:
        if (payload.size() >= 8 && parts.name && parts.name->CompareNoCase("FeatureChanges") == 0) {
          ChangeWord(m_features, payload, 0);
        }
        return {};
      case KESP_TAG_QUALITY_MARK:
        return payload.size() < 20 ? std::string() : ChangeFloat(payload);
      case KESP_TAG_QUALITY_MARK_EX:
        return payload.size() < 24 ? std::string() : ChangeFloat(payload);
      case KESP_TAG_POS_ERR_MARK:
        return payload.size() < 16 ? std::string() : ChangeFloat(payload);
      default:
        return {};
    }
  }
  static std::uint32_t WordAt(std::span<const unsigned char> payload, std::size_t index) {
    std::uint32_t word = 0;
    for (std::size_t i = 4; i-- != 0;) word = word << 8 | payload[4 * index + i];
    return word;
  }
  static void PutWord(std::span<unsigned char> payload, std::size_t index, std::uint32_t word) {
    for (std::size_t i = 0; i < 4; ++i) payload[4 * index + i] = static_cast<unsigned char>(word >> 8 * i);
  }
  static void ChangeWord(const NumberMap& map, std::span<unsigned char> payload, std::size_t index) {
    PutWord(payload, index, Mapped(map, WordAt(payload, index)));
  }
  // The number of a point as a float, which has room for 24 bits of it.
  std::string ChangeFloat(std::span<unsigned char> payload) const {
    const auto stored = std::bit_cast<float>(WordAt(payload, 0));
    if (!(stored >= 0 && stored < 4294967296.0F)) return {};
    const auto entry = m_points.find(static_cast<std::uint32_t>(stored));
    if (entry == m_points.end()) return {};
    const auto given = static_cast<float>(entry->second);
    if (static_cast<double>(given) != static_cast<double>(entry->second)) {
      return "a mark of point " + std::to_string(entry->first) + " can't hold the new number " +
             std::to_string(entry->second) + ", since it is stored as a float";
    }
    PutWord(payload, 0, std::bit_cast<std::uint32_t>(given));
    return {};
  }

  const NumberMap& m_features;
  const NumberMap& m_points;
};

bool Renumber(Source& source, const NumberMap& features, const NumberMap& points) {
  const Renumberer renumberer(features, points);
  for (const auto& record : source.records) {
    if (const std::string wrong = renumberer.Apply(*record); !wrong.empty()) {
      Complain(source.path, wrong);
      return false;
    }
  }
  source.counts.renumberedFeatures = features.size();
  source.counts.renumberedPoints = points.size();
  return true;
}

}  // namespace

std::optional<ExitStatus> ReadSources(Sources& sources, const std::vector<std::string>& paths, bool json, Output& out) {
  for (const std::string& path : paths) {
    sources.push_back(std::make_unique<Source>(path));
    if (const auto status = ReadSource(*sources.back(), json, out)) return status;
  }
  return std::nullopt;
}

void NumberSpace::Use(std::uint32_t number) {
  used.insert(number);
  highest = std::max(highest, number);
}

std::optional<std::uint32_t> NumberSpace::TakeFree() {
  std::uint32_t free = highest + 1;  // 0 after the last one
  // cppcheck-suppress knownConditionTrueFalse
  if (free == 0 && used.size() >= std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
  for (free = std::max(free, lowest); used.contains(free); ++free) {
  }
  if (highest == std::numeric_limits<std::uint32_t>::max()) lowest = free + 1;
  Use(free);
  return free;
}

Numbers NumbersIn(const Inventory& inventory) {
  Numbers numbers;
  for (const auto& [number, index] : inventory.live) numbers.features.taken.insert(number);
  for (const auto& [number, place] : inventory.livePoints) numbers.points.taken.insert(number);
  for (const std::uint32_t number : inventory.pointsWithoutFeature) {
    numbers.points.taken.insert(number);
    numbers.points.Use(number);
  }
  for (const Inventory::Feature& feature : inventory.features) {
    numbers.features.Use(feature.record.number);
    for (const Inventory::Item& point : feature.points) numbers.points.Use(point.number);
  }
  return numbers;
}

// cppcheck-suppress constParameter
bool GiveNumbers(Sources& sources, Numbers& taken, Collisions collisions) {
  std::vector<OwnNumbers> owns;
  for (const auto& source : sources) {
    const OwnNumbers& own = owns.emplace_back(*source);
    for (const std::uint32_t number : own.features) taken.features.Use(number);
    for (const std::uint32_t number : own.points) taken.points.Use(number);
  }
  bool isGood = true;
  for (std::size_t i = 0; i < sources.size(); ++i) {
    NumberMap features;
    NumberMap points;
    if (!MapTaken(features, owns[i].features, taken.features) || !MapTaken(points, owns[i].points, taken.points)) {
      Complain(sources[i]->path, "there is no number left to give");
      return false;
    }
    if (collisions == Collisions::kRenumber) {
      isGood = Renumber(*sources[i], features, points) && isGood;
      continue;
    }
    if (!features.empty()) Complain(sources[i]->path, "feature numbers that are taken: " + SomeOf(features));
    if (!points.empty()) Complain(sources[i]->path, "point numbers that are taken: " + SomeOf(points));
    isGood = isGood && features.empty() && points.empty();
  }
  if (!isGood && collisions == Collisions::kRefuse) Complain({}, "nothing is written; --renumber gives new numbers");
  return isGood;
}

unsigned short NeededVersion(CKespRecord& record) {
  unsigned short version = 0;
  return record.GetMinimumKespVersionFromRecordVersion(version, record.m_recordVersion) ? version : 0;
}

std::vector<CKespRecord*> AllRecords(const Sources& sources) {
  std::vector<CKespRecord*> records;
  for (const auto& source : sources) {
    for (const auto& record : source->records) records.push_back(record.get());
  }
  return records;
}

std::uint64_t BytesOf(const std::vector<CKespRecord*>& records) {
  std::uint64_t bytes = 0;
  for (CKespRecord* const record : records) bytes += kRecordHeaderSize + record->GetLength(0);
  return bytes;
}

JoinCounts TotalOf(const Sources& sources) {
  JoinCounts total;
  for (const auto& source : sources) {
    const JoinCounts& counts = source->counts;
    total.features += counts.features;
    total.points += counts.points;
    total.attributes += counts.attributes;
    total.notes += counts.notes;
    total.tags += counts.tags;
    total.renumberedFeatures += counts.renumberedFeatures;
    total.renumberedPoints += counts.renumberedPoints;
    total.unknown += counts.unknown;
    total.withoutFeature += counts.withoutFeature;
    total.applicationBytes += counts.applicationBytes;
  }
  return total;
}

void WriteCounts(JsonWriter& json, const char* key, const JoinCounts& counts) {
  const auto put = [&](const char* name, std::uint64_t count) {
    json.Key(name).Number(static_cast<std::int64_t>(count));
  };
  json.Key(key).BeginObject();
  put("features", counts.features);
  put("points", counts.points);
  put("attributes", counts.attributes);
  put("notes", counts.notes);
  put("tags", counts.tags);
  json.EndObject();
  json.Key("renumbered").BeginObject();
  put("features", counts.renumberedFeatures);
  put("points", counts.renumberedPoints);
  json.EndObject();
  json.Key("leftOut").BeginObject();
  put("unknown", counts.unknown);
  put("withoutFeature", counts.withoutFeature);
  put("applicationBytes", counts.applicationBytes);
  json.EndObject();
}

std::string DescribeCounts(const JoinCounts& counts) {
  std::string text = Counted(counts.features, "feature") + " with " + Counted(counts.points, "point") + " and " +
                     Counted(counts.attributes, "attribute") + ", " + Counted(counts.notes, "note") + " and " +
                     Counted(counts.tags, "tag");
  if (counts.renumberedFeatures + counts.renumberedPoints != 0) {
    text += "; " + Counted(counts.renumberedFeatures, "feature number") + " and " +
            Counted(counts.renumberedPoints, "point number") + " new";
  }
  return text;
}

void PutSummary(CKespTavoHeader& header, const CKespFile& dataset) {
  if (header.m_recordVersion < 2) return;
  CBoundingBox extent;
  CTime first;
  CTime last;
  CString text;
  dataset.GetKespDataSummary(header.PointCount, header.FeatureCount, extent, first, last, text);
  extent.Get(header.DataExtent1, header.DataExtent2, header.DataExtent3, header.DataExtent4);
  if (header.PointCount == 0) return;
  header.FirstPointTime = static_cast<std::uint32_t>(first.GetTime());
  header.LastPointTime = static_cast<std::uint32_t>(last.GetTime());
  header.LastPointText = text;
}

}  // namespace kesp::tool
