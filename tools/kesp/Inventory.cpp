#include "tools/kesp/Inventory.h"

namespace kesp::tool {
namespace {

template <class Map>
auto FindIn(const Map& map, std::uint32_t number) -> const typename Map::mapped_type* {
  const auto entry = map.find(number);
  return entry == map.end() ? nullptr : &entry->second;
}

void Enter(Inventory& inventory, const RecordView& record, Inventory::Item item) {
  const auto owner = [&](std::uint32_t number) -> Inventory::Feature* {
    const std::size_t* const index = FindIn(item.isDeleted ? inventory.latest : inventory.live, number);
    return index != nullptr ? &inventory.features[*index] : nullptr;
  };
  switch (record.Type()) {
    case KESP_RECORD_FEATURE: {
      item.number = record.AsFeature().FeatureNumber();
      inventory.latest[item.number] = inventory.features.size();
      (item.isDeleted ? inventory.deleted : inventory.live)[item.number] = inventory.features.size();
      inventory.features.push_back({item, record.AsFeature().FeatureName().ToString(), {}, {}, {}});
      return;
    }
    case KESP_RECORD_POINT: {
      item.number = record.AsPoint().PointNumber();
      Inventory::Feature* const feature = owner(record.AsPoint().FeatureNumber());
      if (feature == nullptr) {
        if (!item.isDeleted) inventory.pointsWithoutFeature.push_back(item.number);
        return;
      }
      const auto index = static_cast<std::size_t>(feature - inventory.features.data());
      (item.isDeleted ? inventory.deletedPoints : inventory.livePoints)[item.number] = {index, feature->points.size()};
      feature->points.push_back(item);
      return;
    }
    case KESP_RECORD_ATTRIBUTE:
      if (auto* const feature = owner(record.AsAttribute().FeatureNumber())) {
        feature->attributes.push_back(item);
      }
      return;
    case KESP_RECORD_FEATURE_END:
      if (auto* const feature = owner(record.AsFeatureEnd().FeatureNumber())) {
        feature->ends.push_back(item);
      }
      return;
    default:
      return;
  }
}

// False when the record there can't be read.
bool ViewAt(CKespDataFile& file, std::uint64_t offset, RecordView& view) {
  try {
    file.m_file.Seek(static_cast<std::int64_t>(offset), CFile::begin);
    return file.ReadNextView(view, false) && view.Position() == offset;
  } catch (const CFileException&) {
    return false;  // a body that is cut short
  }
}

}  // namespace

const Inventory::Feature* Inventory::FindFeature(std::uint32_t number) const {
  const std::size_t* const index = FindIn(live, number);
  return index != nullptr ? &features[*index] : nullptr;
}
const Inventory::Feature* Inventory::FindDeletedFeature(std::uint32_t number) const {
  const std::size_t* const index = FindIn(deleted, number);
  return index != nullptr ? &features[*index] : nullptr;
}
const Inventory::PointPlace* Inventory::FindPoint(std::uint32_t number) const { return FindIn(livePoints, number); }
const Inventory::PointPlace* Inventory::FindDeletedPoint(std::uint32_t number) const {
  return FindIn(deletedPoints, number);
}

Inventory TakeInventory(CKespDataFile& file, DeletedRecords deleted) {
  Inventory inventory;
  RecordWalk walk(file, DeletedRecords::kPassOver);
  for (auto step = walk.Next(); step != RecordWalk::Step::kEnd; step = walk.Next()) {
    RecordView record = walk.View();
    const std::uint64_t offset = record.Position();
    const std::uint64_t steppedTo = offset + kRecordHeaderSize + record.StatedLength();
    const bool isLive = step == RecordWalk::Step::kRecord;
    inventory.liveRecords += isLive ? 1 : 0;
    if (isLive && inventory.firstLive == 0) inventory.firstLive = static_cast<std::uint32_t>(offset);
    if (!isLive && (deleted == DeletedRecords::kPassOver || !record.IsDeleted())) continue;
    // A deleted record may be anything: one that can't be read is passed over, as by everyone.
    if (isLive || ViewAt(file, offset, record)) {
      const bool isSteppable = file.m_file.GetPosition() == steppedTo;
      Enter(inventory, record, {static_cast<std::uint32_t>(offset), 0, !isLive, isSteppable});
    }
    if (!isLive) file.m_file.Seek(static_cast<std::int64_t>(steppedTo), CFile::begin);
  }
  inventory.end = walk.End();
  return inventory;
}

std::unique_ptr<CKespRecord> ReadAt(CKespDataFile& file, std::uint64_t offset) {
  try {
    file.m_file.Seek(static_cast<std::int64_t>(offset), CFile::begin);
    std::unique_ptr<CKespRecord> record(file.ReadNextRecord(false));
    return record && record->m_filePosition == static_cast<std::uint32_t>(offset) ? std::move(record) : nullptr;
  } catch (const CFileException&) {
    return nullptr;  // a body that is cut short
  }
}

}  // namespace kesp::tool
