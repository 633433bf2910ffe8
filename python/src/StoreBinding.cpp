// The store for Python: numbers, texts and tuples. The classes that users see are made of them in
// python/kesp/_survey.py.
#include "python/src/Errors.h"
#include "python/src/Finding.h"
#include "python/src/Reading.h"
#include "python/src/Store.h"
#include "python/src/Text.h"

namespace kesp::python {
namespace {

LongText LongTextOf(bool truncate) { return truncate ? LongText::kCut : LongText::kRefuse; }

template <class Record>
std::vector<std::size_t> Present(const Store& store, const Store::Entries<Record>& entries) {
  store.Check();
  std::vector<std::size_t> present;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (!entries[i].isGone) present.push_back(i);
  }
  return present;
}

py::tuple FeatureTuple(const Store& store, std::size_t index) {
  const CKespFeature& f = store.Feature(index);
  return py::make_tuple(f.FeatureNumber, ToStr(f.FeatureName), static_cast<int>(f.FeatureType), f.Color, f.SymbolIndex,
                        f.m_flags, f.m_filePosition);
}

py::tuple PointTuple(const CKespPoint& p) {
  return py::make_tuple(p.CoordX, p.CoordY, p.CoordZ, p.PointTime, ToStr(p.PointText),
                        static_cast<std::uint32_t>(p.SignalStatus), p.GpsValue, p.GpsNumber, p.PointNumber, p.m_flags);
}

py::list PointTuples(const Store& store, std::size_t index) {
  const CKespFeature& feature = store.Feature(index);
  py::list points;
  for (int i = 0; i < feature.GetNumPoints(); ++i) points.append(PointTuple(*feature.GetPoint(i)));
  return points;
}

py::array Coordinates(const Store& store, std::size_t index) {
  const CKespFeature& feature = store.Feature(index);
  py::array_t<double> coordinates({py::ssize_t{feature.GetNumPoints()}, py::ssize_t{3}});
  double* out = coordinates.mutable_data();
  for (int i = 0; i < feature.GetNumPoints(); ++i) {
    const CKespPoint& point = *feature.GetPoint(i);
    *out++ = point.CoordX;
    *out++ = point.CoordY;
    *out++ = point.CoordZ;
  }
  return coordinates;
}

py::tuple AttributeTuple(const CKespAttribute& a) {
  return py::make_tuple(ToStr(a.AttributeName), a.AttributeKind, ToStr(a.TextValue), ToStr(a.SubValue), a.Value,
                        a.Decimals, a.m_flags);
}

py::list AttributeTuples(const Store& store, std::size_t index) {
  const CKespFeature& feature = store.Feature(index);
  py::list attributes;
  for (int i = 0; i < feature.GetNumAttributes(); ++i) attributes.append(AttributeTuple(*feature.GetAttribute(i)));
  return attributes;
}

py::object AttributeByName(const Store& store, std::size_t index, const py::str& name) {
  const CKespAttribute* const attribute = store.Feature(index).GetAttribute(FromStr(name));
  if (attribute == nullptr) return py::none();
  return AttributeTuple(*attribute);
}

// Each name once, as its first attribute spells it.
py::list AttributeNames(const Store& store, std::size_t index) {
  const CKespFeature& feature = store.Feature(index);
  py::list names;
  for (int i = 0; i < feature.GetNumAttributes(); ++i) {
    const CString& name = feature.GetAttribute(i)->AttributeName;
    if (feature.GetAttribute(name) == feature.GetAttribute(i)) names.append(ToStr(name));
  }
  return names;
}

py::tuple TagTuple(const Store& store, std::size_t index) {
  const CKespTag& tag = store.Tag(index);
  const TagParts parts = PartsOf(tag);
  const py::object name = parts.name ? py::object(ToStr(*parts.name)) : py::none();
  py::object payload = py::none();
  if (parts.payload) {
    payload = py::bytes(reinterpret_cast<const char*>(parts.payload->data()), parts.payload->size());
  }
  return py::make_tuple(static_cast<std::uint32_t>(tag.GetType()), name, payload, tag.m_flags, tag.m_filePosition);
}

// The extent of the points with finite coordinates, and the first and the last time; None without any.
py::tuple Extent(const Store& store) {
  store.Check();
  CBoundingBox box;
  std::int32_t first = 0;
  std::int32_t last = 0;
  for (const auto& [feature, isGone] : store.Features()) {
    for (int i = 0; !isGone && i < feature->GetNumPoints(); ++i) {
      const CKespPoint& point = *feature->GetPoint(i);
      box.Include(point.CoordX, point.CoordY);
      if (point.PointTime == 0) continue;
      first = first == 0 ? point.PointTime : std::min(first, point.PointTime);
      last = last == 0 ? point.PointTime : std::max(last, point.PointTime);
    }
  }
  py::object bounds = py::none();
  if (box.IsValid()) bounds = py::make_tuple(box.MinX(), box.MinY(), box.MaxX(), box.MaxY());
  return py::make_tuple(bounds, first, last);
}

py::object HeaderDict(const Store& store) {
  store.Check();
  if (store.Header() == nullptr) return py::none();
  const CKespTavoHeader& h = *store.Header();
  py::dict out;
  out["version"] = h.m_recordVersion;
  out["CreationTime"] = h.CreationTime;
  out["closed_properly"] = h.m_recordVersion < 2 ? py::object(py::none()) : py::bool_(h.WasCleanClose());
  const std::pair<const char*, const CString*> kTexts[] = {
      {"HeaderText1", &h.HeaderText1}, {"HeaderText2", &h.HeaderText2},     {"HeaderText3", &h.HeaderText3},
      {"HeaderText4", &h.HeaderText4}, {"HeaderText5", &h.HeaderText5},     {"HeaderText6", &h.HeaderText6},
      {"HeaderText7", &h.HeaderText7}, {"LastPointText", &h.LastPointText}, {"SlotText1", &h.SlotText1},
      {"SlotText2", &h.SlotText2}};
  for (const auto& [name, text] : kTexts) out[name] = ToStr(*text);
  out["HeaderShort"] = h.HeaderShort;
  out["KespVersion"] = h.KespVersion;
  out["PointCount"] = h.PointCount;
  out["FeatureCount"] = h.FeatureCount;
  out["Extent"] = py::make_tuple(h.ExtentMinX, h.ExtentMinY, h.ExtentMaxX, h.ExtentMaxY);
  out["DataExtent"] = py::make_tuple(h.DataExtent1, h.DataExtent3, h.DataExtent2, h.DataExtent4);
  out["FirstPointTime"] = h.FirstPointTime;
  out["LastPointTime"] = h.LastPointTime;
  return out;
}

FeatureValue ToFeature(const py::tuple& value) {
  return {FromStr(value[0]), static_cast<KESP_FEATURE_TYPE>(value[1].cast<std::uint32_t>()),
          value[2].cast<std::uint32_t>(), value[3].cast<std::uint16_t>()};
}

std::vector<PointValue> ToPoints(const py::list& values) {
  std::vector<PointValue> points;
  points.reserve(values.size());
  for (const py::handle item : values) {
    const auto t = item.cast<py::tuple>();
    points.push_back({t[0].cast<double>(), t[1].cast<double>(), t[2].cast<double>(), t[3].cast<std::int32_t>(),
                      FromStr(t[4]), t[5].cast<std::uint16_t>(), t[6].cast<double>(), t[7].cast<std::uint16_t>()});
  }
  return points;
}

AttributeValue ToAttribute(const py::tuple& t) {
  return {FromStr(t[0]), t[1].cast<std::int32_t>(), FromStr(t[2]),
          FromStr(t[3]), t[4].cast<double>(),       t[5].cast<std::optional<std::uint16_t>>()};
}

std::vector<AttributeValue> ToAttributes(const py::list& values) {
  std::vector<AttributeValue> attributes;
  for (const py::handle value : values) attributes.push_back(ToAttribute(value.cast<py::tuple>()));
  return attributes;
}

std::unique_ptr<Store> Open(const py::object& path, const std::string& mode, bool deleted, std::uint16_t version,
                            const py::object& progress) {
  Watch watch(progress);
  const Store::Mode how = mode == "r" ? Store::Mode::kRead : mode == "r+" ? Store::Mode::kEdit : Store::Mode::kCreate;
  return std::make_unique<Store>(ToPath(path), how, deleted, version, watch);
}

void BindEditing(py::class_<Store>& store) {
  store
      .def("add_feature",
           [](Store& s, std::optional<std::uint32_t> number, const py::tuple& value, const py::list& points,
              const py::list& attributes, bool truncate) {
             return s.AddFeature(number, ToFeature(value), ToPoints(points), ToAttributes(attributes),
                                 LongTextOf(truncate));
           })
      .def("change_feature", [](Store& s, std::size_t index, const py::tuple& value,
                                bool truncate) { s.ChangeFeature(index, ToFeature(value), LongTextOf(truncate)); })
      .def("set_points", [](Store& s, std::size_t index, const py::list& points,
                            bool truncate) { s.SetPoints(index, ToPoints(points), LongTextOf(truncate)); })
      .def("set_attribute",
           [](Store& s, std::size_t index, const py::tuple& value, bool truncate) {
             s.SetAttributes(index, {ToAttribute(value)}, OtherAttributes::kKeep, LongTextOf(truncate));
           })
      .def("replace_attributes",
           [](Store& s, std::size_t index, const py::list& values) {
             s.SetAttributes(index, ToAttributes(values), OtherAttributes::kRemove, LongText::kRefuse);
           })
      .def("remove_attribute",
           [](Store& s, std::size_t index, const py::str& name) { s.RemoveAttribute(index, FromStr(name)); })
      .def("delete_feature", &Store::DeleteFeature)
      .def("add_note",
           [](Store& s, const py::str& text, bool truncate) { return s.AddNote(FromStr(text), LongTextOf(truncate)); })
      .def("change_note", [](Store& s, std::size_t index, const py::str& text,
                             bool truncate) { s.ChangeNote(index, FromStr(text), LongTextOf(truncate)); })
      .def("delete_note", &Store::DeleteNote)
      .def("add_tag", [](Store& s, std::uint32_t kind, const py::str& name,
                         const py::bytes& payload) { return s.AddTag(kind, FromStr(name), payload); })
      .def("delete_tag", &Store::DeleteTag)
      .def("set_header",
           [](Store& s, const py::dict& texts, bool truncate) {
             std::vector<std::pair<std::string, CString>> values;
             for (const auto& [name, text] : texts) values.emplace_back(name.cast<std::string>(), FromStr(text));
             s.ChangeHeader(values, LongTextOf(truncate));
           })
      .def("flush", &Store::Flush)
      .def("rollback", &Store::Rollback);
}

}  // namespace

void BindStore(py::module_& module) {
  py::class_<Store> store(module, "Store");
  store.def(py::init(&Open))
      .def_property_readonly("is_open", &Store::IsOpen)
      .def_property_readonly("file_version", &Store::FileVersion)
      .def_property_readonly("damage", [](const Store& s) { return DamageOf(s.End()); })
      .def("features", [](const Store& s) { return Present(s, s.Features()); })
      .def("notes", [](const Store& s) { return Present(s, s.Notes()); })
      .def("tags", [](const Store& s) { return Present(s, s.Tags()); })
      .def("find_number",
           [](const Store& s, std::uint32_t number) {
             s.Check();
             return s.FindNumber(number);
           })
      .def("find", &Find)
      .def("feature", &FeatureTuple)
      .def("points", &PointTuples)
      .def("coordinates", &Coordinates)
      .def("attributes", &AttributeTuples)
      .def("attribute", &AttributeByName)
      .def("attribute_names", &AttributeNames)
      .def("note",
           [](const Store& s, std::size_t index) {
             const CKespNote& note = s.Note(index);
             return py::make_tuple(ToStr(note.NoteText), note.m_flags, note.m_filePosition);
           })
      .def("tag", &TagTuple)
      .def("extent", &Extent)
      .def("header", &HeaderDict)
      .def("close", &Store::Close);
  BindEditing(store);
}

}  // namespace kesp::python
