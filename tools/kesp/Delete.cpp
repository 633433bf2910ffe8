// kesp delete and kesp undelete: mark features or points deleted in the file, or take that back, all that were asked
// for or none.
#include <algorithm>
#include <map>
#include <set>

#include "tools/kesp/Amending.h"
#include "tools/kesp/Commands.h"
#include "tools/kesp/Inventory.h"
#include "tools/kesp/JsonWriter.h"

namespace kesp::tool {
namespace {

enum class Mode { kDelete, kUndelete };

// What will be marked, or restored.
struct Plan {
  struct Whole {
    // cppcheck-suppress unusedStructMember
    const Inventory::Feature* feature;
    // cppcheck-suppress unusedStructMember
    bool forItsPoints;  // none of its points is to stay, and a feature without points falls short
  };
  struct Single {
    // cppcheck-suppress unusedStructMember
    const Inventory::Feature* feature;
    const Inventory::Item* point;
  };
  std::vector<Whole> features;
  std::vector<Single> points;
  std::vector<std::string> refusals;
};

std::string Number(const char* what, std::uint32_t number) { return what + std::to_string(number); }

std::size_t CountLive(const std::vector<Inventory::Item>& items) {
  return static_cast<std::size_t>(
      std::count_if(items.begin(), items.end(), [](const Inventory::Item& item) { return !item.isDeleted; }));
}

void PlanDeletion(Plan& plan, const Inventory& inventory, const DeleteOptions& options) {
  for (const std::uint32_t number : std::set(options.features.begin(), options.features.end())) {
    if (const Inventory::Feature* const feature = inventory.FindFeature(number)) {
      plan.features.push_back({feature, false});
    } else {
      plan.refusals.push_back(Number("there is no feature ", number));
    }
  }
  std::map<std::uint32_t, std::vector<Plan::Single>> pointsOf;  // by the feature's number
  for (const std::uint32_t number : std::set(options.points.begin(), options.points.end())) {
    const Inventory::PointPlace* const place = inventory.FindPoint(number);
    const Inventory::Feature* const feature = place != nullptr ? &inventory.features[place->feature] : nullptr;
    if (feature == nullptr) {
      plan.refusals.push_back(Number("there is no point ", number));
    } else if (feature != inventory.FindFeature(feature->record.number)) {
      plan.refusals.push_back(Number("point ", number) + " is in a feature whose number, " +
                              std::to_string(feature->record.number) + ", a later one took");
    } else {
      pointsOf[feature->record.number].push_back({feature, &feature->points[place->point]});
    }
  }
  for (const auto& [number, points] : pointsOf) {
    const Inventory::Feature* const feature = points.front().feature;
    if (points.size() == CountLive(feature->points)) {
      plan.features.push_back({feature, true});
    } else {
      plan.points.insert(plan.points.end(), points.begin(), points.end());
    }
  }
}

void PlanRestoring(Plan& plan, const Inventory& inventory, const DeleteOptions& options) {
  for (const std::uint32_t number : std::set(options.features.begin(), options.features.end())) {
    const Inventory::Feature* const feature = inventory.FindDeletedFeature(number);
    if (inventory.FindFeature(number) != nullptr) {
      plan.refusals.push_back(Number("there is a feature ", number) + " that is not deleted");
    } else if (feature == nullptr) {
      plan.refusals.push_back(Number("there is no deleted feature ", number));
    } else {
      plan.features.push_back({feature, false});
    }
  }
  for (const std::uint32_t number : std::set(options.points.begin(), options.points.end())) {
    const Inventory::PointPlace* const place = inventory.FindDeletedPoint(number);
    const Inventory::Feature* const feature = place != nullptr ? &inventory.features[place->feature] : nullptr;
    if (inventory.FindPoint(number) != nullptr) {
      plan.refusals.push_back(Number("there is a point ", number) + " that is not deleted");
    } else if (feature == nullptr) {
      plan.refusals.push_back(Number("there is no deleted point ", number));
    } else if (feature->record.isDeleted) {
      plan.refusals.push_back(Number("point ", number) + Number(" goes with feature ", feature->record.number) +
                              ", which is deleted; restore that");
    } else {
      plan.points.push_back({feature, &feature->points[place->point]});
    }
  }
}

// Of a whole feature those that are, or are not, deleted yet.
std::vector<const Inventory::Item*> ItemsOf(const Plan& plan, Mode mode) {
  std::vector<const Inventory::Item*> items;
  const auto add = [&](const Inventory::Item& item) {
    if (item.isDeleted == (mode == Mode::kUndelete)) items.push_back(&item);
  };
  for (const auto& [feature, forItsPoints] : plan.features) {
    add(feature->record);
    for (const auto* list : {&feature->points, &feature->attributes, &feature->ends})
      std::for_each(list->begin(), list->end(), add);
  }
  for (const Plan::Single& single : plan.points) add(*single.point);
  return items;
}

// False after a complaint.
bool Amend(std::vector<Amendment>& amendments, CKespDataFile& file, const std::string& path,
           const std::vector<const Inventory::Item*>& items, Mode mode) {
  for (const Inventory::Item* const item : items) {
    if (!item->isSteppable) {
      Complain(path, "the record at offset " + std::to_string(item->offset) +
                         " states a length that is not its own, by which a deleted record is stepped over; kesp repair "
                         "writes a new file with the right one");
      return false;
    }
    CKespRecord* const record = AddAmendment(amendments, file, item->offset);
    if (record == nullptr) {
      Complain(path, "the record at offset " + std::to_string(item->offset) + " can't be read any more");
      return false;
    }
    if (mode == Mode::kDelete) {
      record->SetDelete();
      record->SetSourceFlag(KESP_SRC_DELETED);
    } else {
      record->ClearDelete();
    }
  }
  return true;
}

struct Counts {
  std::size_t points = 0;
  std::size_t attributes = 0;
};
Counts CountsOf(const Inventory::Feature& feature, Mode mode) {
  const auto count = [mode](const std::vector<Inventory::Item>& items) {
    return mode == Mode::kDelete ? CountLive(items) : items.size() - CountLive(items);
  };
  return {count(feature.points), count(feature.attributes)};
}

void WriteText(Output& out, const Plan& plan, const DeleteOptions& options, Mode mode) {
  const std::string done = mode == Mode::kDelete ? "deleted" : "restored";
  const std::string verb = options.dryRun ? " would be " + done : " " + done;
  for (const auto& [feature, forItsPoints] : plan.features) {
    const Counts counts = CountsOf(*feature, mode);
    out.Put(Number("feature ", feature->record.number) + " \"" + Printable(feature->name) + "\" with " +
            Counted(counts.points, "point") + " and " + Counted(counts.attributes, "attribute") + verb);
    out.Put(forItsPoints ? ", since none of its points stays\n" : "\n");
  }
  for (const auto& [feature, point] : plan.points) {
    out.Put(Number("point ", point->number) + Number(" of feature ", feature->record.number) + verb + "\n");
  }
  if (mode == Mode::kUndelete) {
    out.Put("Marks as added or changed may be gone: a deletion keeps only some of them\n");
  }
}

void WriteJson(Output& out, const Plan& plan, const Verdict& verdict, const DeleteOptions& options, Mode mode) {
  JsonWriter json(out);
  Counts counts{plan.points.size(), 0};
  json.BeginObject();
  WriteVerdict(json, CString::FromPathBytes(options.path), verdict);
  json.Key("dryRun").Bool(options.dryRun);
  json.Key(mode == Mode::kDelete ? "deleted" : "restored").BeginObject();
  json.Key("features").BeginArray();
  for (const auto& [feature, forItsPoints] : plan.features) {
    json.Number(std::int64_t{feature->record.number});
    const Counts own = CountsOf(*feature, mode);
    counts.points += own.points;
    counts.attributes += own.attributes;
  }
  json.EndArray();
  json.Key("points").Number(static_cast<std::int64_t>(counts.points));
  json.Key("attributes").Number(static_cast<std::int64_t>(counts.attributes));
  json.EndObject();
  json.EndObject();
  json.EndLine();
}

ExitStatus Mark(const DeleteOptions& options, Output& out, Mode mode) {
  CKespDataFile file;
  if (const auto refused = OpenForEditing(file, options.path, options.dryRun)) {
    return Refuse(*refused, options.path, options.json, out);
  }
  const bool looksAtDeleted = mode == Mode::kUndelete;
  const Inventory inventory =
      TakeInventory(file, looksAtDeleted ? DeletedRecords::kInclude : DeletedRecords::kPassOver);
  if (!inventory.end.IsWhole()) return Refuse(inventory.end, options.path, options.json, out);
  Plan plan;
  (looksAtDeleted ? PlanRestoring : PlanDeletion)(plan, inventory, options);
  for (const std::string& refusal : plan.refusals) Complain(options.path, refusal);
  if (!plan.refusals.empty()) return kExitTrouble;
  std::vector<Amendment> amendments;
  if (!Amend(amendments, file, options.path, ItemsOf(plan, mode), mode)) return kExitTrouble;
  if (!options.dryRun && !Carry(file, options.path, amendments)) return kExitTrouble;
  if (options.json) {
    WriteJson(out, plan, inventory.end, options, mode);
  } else if (!options.quiet) {
    WriteText(out, plan, options, mode);
  }
  out.Flush();
  return kExitWhole;
}

}  // namespace

ExitStatus Delete(const DeleteOptions& options, Output& out) { return Mark(options, out, Mode::kDelete); }
ExitStatus Undelete(const DeleteOptions& options, Output& out) { return Mark(options, out, Mode::kUndelete); }

}  // namespace kesp::tool
