#include "ogr/FirstPass.h"

#include <algorithm>
#include <utility>

#include "ogr/Tags.h"

namespace kesp::ogr {
namespace {

void Include(Box& box, const Box& other) {
  box.Include(other.minX, other.minY);
  box.Include(other.maxX, other.maxY);
}

}  // namespace

void FirstPass::Run() {
  if (m_end == 0) {
    m_cursor.GoToFirst();
  } else {
    m_cursor.GoTo(m_end);
  }
  while (const RecordView* record = m_cursor.Read()) Take(*record);
  m_survey.openFeature = m_run.Number();
  EndRun();
  m_survey.directory.Finish();
  m_survey.end = m_cursor.End();
  if (m_misstated) m_survey.end = {KESP_ERROR_RECORD_HEADER, 0, *m_misstated, false};
  m_end = m_file.Length();
}

void FirstPass::Take(const RecordView& record) {
  NoteNumber(record);
  const bool isDeleted = (record.Flags() & KESP_FLAG_DELETED) != 0;
  if (isDeleted && !m_misstated && m_file.IsWritable() && !StatesItsLength(record)) m_misstated = record.Position();
  if (isDeleted && !m_file.IncludesDeleted()) return;
  const bool isFirst = !std::exchange(m_hasBegun, true);
  m_afterHeader.See(record, m_survey, isFirst);
  switch (record.Type()) {
    case KESP_RECORD_FEATURE:
      return TakeFeature(record);
    case KESP_RECORD_FEATURE_END:
      TakeEnd(record);
      return m_run.See(record);
    case KESP_RECORD_POINT:
      return TakePoints(record);
    case KESP_RECORD_ATTRIBUTE:
      return TakeAttribute(record);
    case KESP_RECORD_NOTE:
      ++m_survey.notes;
      return;
    case KESP_RECORD_TAG:
      return TakeTag(record);
    default:
      return;
  }
}

bool FirstPass::StatesItsLength(const RecordView& record) {
  constexpr std::uint64_t kRecordHeader = 14;
  return record.Position() + kRecordHeader + record.StatedLength() == m_file.Container().GetPosition();
}

void FirstPass::NoteNumber(const RecordView& record) {
  if (record.Type() == KESP_RECORD_FEATURE) {
    m_survey.lastFeature = std::max(m_survey.lastFeature, record.AsFeature().FeatureNumber());
  } else if (record.Type() == KESP_RECORD_POINT) {
    m_survey.lastPoint = std::max(m_survey.lastPoint, record.AsPoint().PointNumber());
  }
}

void FirstPass::TakeFeature(const RecordView& record) {
  EndRun();
  m_run.See(record);
  const FeatureView feature = record.AsFeature();
  const std::uint16_t name = m_survey.AddName(feature.FeatureName());
  m_survey.directory.Add(static_cast<std::uint32_t>(record.Position()), feature.FeatureNumber(), name,
                         feature.FeatureType());
  m_layer = m_survey.MakeLayerOf(feature.FeatureType(), name);
  ++m_survey.layers[m_layer].features;
  ++m_feature;
}

void FirstPass::TakeEnd(const RecordView& record) {
  const std::uint32_t number = record.AsFeatureEnd().FeatureNumber();
  if (m_run.Has(number)) return EndRun();
  if (!m_survey.directory.Find(number)) return;
  m_survey.directory.AddStraggler(number, static_cast<std::uint32_t>(record.Position()));
}

void FirstPass::EndRun() {
  if (m_box.IsEmpty()) return;
  m_survey.directory.Grow(m_survey.directory.Entries().size() - 1, m_box);
  Include(m_survey.layers[m_layer].box, m_box);
  Include(m_survey.box, m_box);
  m_box = {};
  m_pointsOfFeature = 0;
}

// With those that follow.
void FirstPass::TakePoints(const RecordView& record) {
  TakePoint(record.AsPoint(), record.Position());
  const PointRun run = m_cursor.ReadPoints();
  for (std::size_t i = 0; i < run.Size(); ++i) {
    m_survey.lastPoint = std::max(m_survey.lastPoint, run[i].PointNumber());
    TakePoint(run[i], run.PositionOf(i));
  }
}

void FirstPass::TakePoint(const PointView& point, std::uint64_t position) {
  const double x = point.CoordX();
  const double y = point.CoordY();
  const bool isFinite = std::isfinite(x) && std::isfinite(y);
  if (!m_run.Has(point.FeatureNumber())) return TakeStraggler(point, position, isFinite);
  ++m_survey.points;
  if (!isFinite) return;
  m_box.Include(x, y);
  if (++m_pointsOfFeature > 1) m_survey.layers[m_layer].hasSeveralPoints = true;
}

void FirstPass::TakeStraggler(const PointView& point, std::uint64_t position, bool isFinite) {
  const std::optional<std::size_t> owner = m_survey.directory.Find(point.FeatureNumber());
  if (!owner) return;
  ++m_survey.points;
  m_survey.directory.AddStraggler(point.FeatureNumber(), static_cast<std::uint32_t>(position));
  if (!isFinite) return;
  Box box;
  box.Include(point.CoordX(), point.CoordY());
  const Entry& entry = m_survey.directory.Entries()[*owner];
  const bool hasOthers = !entry.box.IsEmpty() || entry.count > 1;
  m_survey.ForLayersOf(entry, [&](LayerPlan& layer) {
    Include(layer.box, box);
    if (hasOthers) layer.hasSeveralPoints = true;
  });
  m_survey.directory.Grow(*owner, box);
  Include(m_survey.box, box);
}

void FirstPass::TakeAttribute(const RecordView& record) {
  const AttributeView attribute = record.AsAttribute();
  if (!m_run.Has(attribute.FeatureNumber())) return TakeStragglingAttribute(record);
  LayerPlan& layer = m_survey.layers[m_layer];
  const std::size_t code = m_survey.attributes.Add(attribute);
  if (code == Attributes::kNone) {
    layer.hasFurther = true;
    return;
  }
  layer.Add(code);
  if (code >= m_lastFeatureWith.size()) m_lastFeatureWith.resize(code + 1);
  if (std::exchange(m_lastFeatureWith[code], m_feature) == m_feature) layer.hasFurther = true;
}

// If the layer has such an attribute already, it may be one of this feature, which is not known any more.
void FirstPass::TakeStragglingAttribute(const RecordView& record) {
  const AttributeView attribute = record.AsAttribute();
  const std::optional<std::size_t> owner = m_survey.directory.Find(attribute.FeatureNumber());
  if (!owner) return;
  m_survey.directory.AddStraggler(attribute.FeatureNumber(), static_cast<std::uint32_t>(record.Position()));
  const std::size_t code = m_survey.attributes.Add(attribute);
  m_survey.ForLayersOf(m_survey.directory.Entries()[*owner], [code](LayerPlan& layer) {
    if (code == Attributes::kNone || layer.Has(code)) {
      layer.hasFurther = true;
    } else {
      layer.Add(code);
    }
  });
}

void FirstPass::TakeTag(const RecordView& record) {
  const TagView tag = record.AsTag();
  if (const std::optional<LinkValues> link = LinkOf(tag)) {
    ++m_survey.links;
    m_survey.linked.emplace_back(link->fromFeature, link->toFeature);
    return;
  }
  ++m_survey.tags;
  if (const auto change = ChangeFlagsOf(tag)) m_survey.changeFlags.insert_or_assign(change->first, change->second);
}

}  // namespace kesp::ogr
