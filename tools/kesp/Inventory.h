// Which records of a file make up which feature, and where they are. The sub-commands that change features in place use
// it.
//
//   const Inventory inventory = TakeInventory(file, DeletedRecords::kPassOver);
//   if (!inventory.end.IsWhole()) return Refuse(inventory.end, path, json, out);
//
// A record belongs to the last feature of its number before it, as in a data set. When deleted records are included, a
// deleted one may belong to a deleted feature. Records without a feature are left out, except the numbers of points.
#pragma once
#include <memory>
#include <unordered_map>
#include <vector>

#include "tools/kesp/RecordWalk.h"

namespace kesp::tool {

struct Inventory {
  struct Item {
    std::uint32_t offset = 0;  // of the record header
    std::uint32_t number = 0;  // of a feature or a point
    bool isDeleted = false;
    // The length in its header is that of its body. Otherwise it must not be marked deleted or restored: a reader steps
    // over a deleted record by that length, and reads others by their layout.
    bool isSteppable = false;
  };
  struct Feature {
    Item record;
    CString name;
    std::vector<Item> points;
    std::vector<Item> attributes;
    std::vector<Item> ends;
  };
  struct PointPlace {
    std::size_t feature;  // indexes of the two lists
    std::size_t point;
  };

  // The last feature or point of that number in the file; null if there is none.
  const Feature* FindFeature(std::uint32_t number) const;
  const PointPlace* FindPoint(std::uint32_t number) const;
  const Feature* FindDeletedFeature(std::uint32_t number) const;
  const PointPlace* FindDeletedPoint(std::uint32_t number) const;

  std::vector<Feature> features;  // in file order
  std::unordered_map<std::uint32_t, std::size_t> live;
  std::unordered_map<std::uint32_t, std::size_t> latest;  // deleted ones as well
  std::unordered_map<std::uint32_t, std::size_t> deleted;
  std::unordered_map<std::uint32_t, PointPlace> livePoints;
  std::unordered_map<std::uint32_t, PointPlace> deletedPoints;
  std::vector<std::uint32_t> pointsWithoutFeature;  // that are not deleted
  std::uint64_t liveRecords = 0;
  std::uint32_t firstLive = 0;  // offset of the first record that is not deleted: the header's, in a whole file
  Verdict end;
};

Inventory TakeInventory(CKespDataFile& file, DeletedRecords deleted);

// The record there; null when it can't be read.
std::unique_ptr<CKespRecord> ReadAt(CKespDataFile& file, std::uint64_t offset);

}  // namespace kesp::tool
