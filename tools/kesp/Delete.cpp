// kesp delete: marks features or points deleted in the file, all that were asked for or none.
#include <algorithm>
#include <map>
#include <optional>
#include <set>

#include "tools/kesp/Commands.h"
#include "tools/kesp/Dataset.h"
#include "tools/kesp/Opening.h"

namespace kesp::tool {
namespace {

struct Plan {
  struct Whole {
    CKespFeature* feature;
    // cppcheck-suppress unusedStructMember
    bool forItsPoints;  // none of its points is to stay, and a feature without points falls short
  };
  std::vector<Whole> features;
  std::vector<CKespPoint*> points;
  std::set<std::uint32_t> positions;  // of the records that will be marked in the file
};

template <class Number>
std::vector<Number> WithoutRepeats(std::vector<Number> numbers) {
  std::sort(numbers.begin(), numbers.end());
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  return numbers;
}

void PlanFeature(Plan& plan, CKespFeature& feature, bool forItsPoints) {
  plan.features.push_back({&feature, forItsPoints});
  for (const auto& point : feature.m_pointList) plan.positions.insert(point->m_filePosition);
  for (const auto& attribute : feature.m_attributeList) plan.positions.insert(attribute->m_filePosition);
}

// The feature in whose list the point stands. None when a later feature took the number that both carry.
CKespFeature* OwnerOf(const CKespFile& file, const CKespPoint& point) {
  CKespFeature* feature = nullptr;
  (void)file.m_featureIndex.Lookup(point.FeatureNumber, feature);
  if (feature == nullptr) return nullptr;
  const auto& points = feature->m_pointList;
  const bool isIn = std::any_of(points.begin(), points.end(), [&](const auto& own) { return own == &point; });
  return isIn ? feature : nullptr;
}

// Nothing, and a complaint for each number that won't do, unless all can be deleted.
std::optional<Plan> MakePlan(const CKespFile& file, const DeleteOptions& options) {
  Plan plan;
  bool isGood = true;
  const auto refuse = [&](const std::string& what) {
    Complain(options.path, what);
    isGood = false;
  };
  for (const std::uint32_t number : WithoutRepeats(options.features)) {
    CKespFeature* feature = nullptr;
    if (file.m_featureIndex.Lookup(number, feature)) {
      PlanFeature(plan, *feature, false);
    } else {
      refuse("there is no feature " + std::to_string(number));
    }
  }
  std::map<std::uint32_t, std::vector<CKespPoint*>> pointsOf;  // by the feature's number
  for (const std::uint32_t number : WithoutRepeats(options.points)) {
    CKespPoint* point = nullptr;
    if (!file.m_pointIndex.Lookup(number, point)) {
      refuse("there is no point " + std::to_string(number));
    } else if (OwnerOf(file, *point) == nullptr) {
      refuse("point " + std::to_string(number) + " stands in a feature whose number, " +
             std::to_string(point->FeatureNumber) + ", a later one took");
    } else {
      pointsOf[point->FeatureNumber].push_back(point);
    }
  }
  if (!isGood) return std::nullopt;
  for (const auto& [number, points] : pointsOf) {
    CKespFeature* const feature = OwnerOf(file, *points.front());
    if (static_cast<std::size_t>(feature->GetNumPoints()) == points.size()) {
      PlanFeature(plan, *feature, true);
      continue;
    }
    for (CKespPoint* point : points) {
      plan.points.push_back(point);
      plan.positions.insert(point->m_filePosition);
    }
  }
  return plan;
}

// The answers of single rewrites say too little; what came of them is read from the file afterwards. The header is not
// touched: its summary is its host's.
void Carry(CKespFile& file, const Plan& plan) {
  for (const Plan::Whole& whole : plan.features) file.DeleteFeatureAndAssociatedRec(whole.feature);
  for (CKespPoint* point : plan.points) {
    point->SetDelete();
    (void)(file.m_pDataFile->Seek(point->m_filePosition) &&
           file.m_pDataFile->UpdateRecord(point, KESP_SRC_DELETED, true));
  }
  file.m_pDataFile->Flush();
}

// Reads the file anew, as everybody else does. Records never move, so the places tell.
bool IsCarriedOut(const std::string& path, const Plan& plan) {
  CKespFile file;
  if (OpenForReading(file, path) || !ReadDataset(file, DeletedRecords::kPassOver).verdict.IsWhole()) return false;
  return std::none_of(file.m_recordList.begin(), file.m_recordList.end(), [&](const CKespRecord* record) {
    return (record->m_recordType == KESP_RECORD_POINT || record->m_recordType == KESP_RECORD_ATTRIBUTE) &&
           plan.positions.contains(record->m_filePosition);
  });
}

void Report(Output& out, const Plan& plan, bool dryRun) {
  const std::string deleted = dryRun ? "would be deleted" : "deleted";
  for (const auto& [feature, forItsPoints] : plan.features) {
    out.Put("feature " + std::to_string(feature->FeatureNumber) + " \"" + Printable(feature->FeatureName) + "\": ");
    if (feature->m_pointList.empty() && feature->m_attributeList.empty()) {
      out.Put("nothing is left to delete\n");
      continue;
    }
    out.Put(Counted(static_cast<std::uint64_t>(feature->GetNumPoints()), "point") + " and " +
            Counted(static_cast<std::uint64_t>(feature->GetNumAttributes()), "attribute"));
    out.Put(" " + deleted + (forItsPoints ? ", since none of its points stays\n" : "\n"));
  }
  for (const CKespPoint* point : plan.points) {
    out.Put("point " + std::to_string(point->PointNumber) + " of feature " + std::to_string(point->FeatureNumber));
    out.Put(" " + deleted + "\n");
  }
  out.Flush();
}

}  // namespace

ExitStatus Delete(const DeleteOptions& options, Output& out) {
  CKespFile file;
  const auto refused = options.dryRun ? OpenForReading(file, options.path) : OpenForWriting(file, options.path);
  if (refused) return Refuse(*refused, options.path, options.json, out);
  if (const DatasetEnd end = ReadDataset(file, DeletedRecords::kPassOver); !end.verdict.IsWhole()) {
    return Refuse(end.verdict, options.path, options.json, out);
  }
  const std::optional<Plan> plan = MakePlan(file, options);
  if (!plan) return kExitTrouble;
  if (!options.dryRun && !plan->positions.empty()) {
    try {
      Carry(file, *plan);
      if (IsCarriedOut(options.path, *plan)) file.m_pDataFile->Close();
    } catch (const CFileException&) {
      // The container has the reason.
    }
    if (file.m_pDataFile->IsOpen() || file.m_pDataFile->GetSystemError() != 0) {
      Complain(options.path, "not all could be written: " + WhyNotWritten(*file.m_pDataFile));
      return kExitTrouble;
    }
  }
  Report(out, *plan, options.dryRun);
  return kExitWhole;
}

}  // namespace kesp::tool
