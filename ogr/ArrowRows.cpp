#include "ogr/ArrowRows.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include <cpl_conv.h>
#include <ogr_recordbatch.h>

namespace kesp::ogr {
namespace {

// What an exported array has to free. A consumer may move a child out of its parent and release it later.
struct Exported {
  std::vector<ArrowBuffer> buffers;
  std::vector<const void*> pointers;
  std::vector<ArrowArray> children;
  std::vector<ArrowArray*> childPointers;
};

void Release(ArrowArray* array) noexcept {
  const std::unique_ptr<Exported> exported(static_cast<Exported*>(array->private_data));
  for (ArrowArray& child : exported->children) {
    if (child.release != nullptr) child.release(&child);
  }
  array->release = nullptr;
}

void HandOver(std::unique_ptr<Exported> exported, ArrowArray& array) noexcept {
  array.n_buffers = static_cast<std::int64_t>(exported->pointers.size());
  array.buffers = exported->pointers.data();
  array.n_children = static_cast<std::int64_t>(exported->children.size());
  array.children = exported->childPointers.data();
  array.release = Release;
  array.private_data = exported.release();
}

template <class Node>
void RemoveDictionariesOf(Node& parent) noexcept {
  for (std::int64_t i = 0; i < parent.n_children; ++i) {
    Node* const dictionary = std::exchange(parent.children[i]->dictionary, nullptr);
    if (dictionary == nullptr) continue;
    dictionary->release(dictionary);
    CPLFree(dictionary);
  }
}

ArrowColumn::Layout LayoutOf(const OGRFieldDefn& field) noexcept {
  switch (field.GetType()) {
    case OFTInteger:
      return field.GetSubType() == OFSTBoolean ? ArrowColumn::Layout::kBits : ArrowColumn::Layout::k32;
    case OFTInteger64:
      return ArrowColumn::Layout::k64;
    case OFTReal:
      return ArrowColumn::Layout::kReals;
    case OFTDateTime:
      return ArrowColumn::Layout::kTimes;
    default:
      return ArrowColumn::Layout::kBytes;  // no layer here has other types but texts
  }
}

}  // namespace

std::byte* ArrowBuffer::Append(std::size_t size) {
  if (m_data == nullptr || size > m_room - m_size) {
    constexpr std::size_t kLeast = 1024;
    const std::size_t room = std::max({kLeast, 2 * m_room, m_size + size});
    void* const data = VSIRealloc(m_data.get(), room);
    if (data == nullptr) throw std::bad_alloc();
    (void)m_data.release();
    m_data.reset(static_cast<std::byte*>(data));
    m_room = room;
  }
  return m_data.get() + std::exchange(m_size, m_size + size);
}

ArrowColumn::ArrowColumn(Layout layout) : m_layout(layout) {
  if (layout == Layout::kBytes) m_offsets.Append(std::int32_t{0});
}

void ArrowColumn::EndRow(bool isThere) {
  if (m_rows % 8 == 0) m_isThere.Append(std::uint8_t{0});
  if (isThere) m_isThere.Data()[m_rows / 8] |= std::byte{1} << (m_rows % 8);
  ++m_rows;
}

void ArrowColumn::PutBit(bool value) {
  if (m_rows % 8 == 0) m_values.Append(std::uint8_t{0});
  if (value) m_values.Data()[m_rows / 8] |= std::byte{1} << (m_rows % 8);
  EndRow(true);
}

std::byte* ArrowColumn::PutBytes(std::size_t size) {
  if (size > std::numeric_limits<std::int32_t>::max() - m_values.Size()) throw std::bad_alloc();
  std::byte* const room = m_values.Append(size);
  m_offsets.Append(static_cast<std::int32_t>(m_values.Size()));
  EndRow(true);
  return room;
}

void ArrowColumn::PutNull() {
  switch (m_layout) {
    case Layout::kBits:
      if (m_rows % 8 == 0) m_values.Append(std::uint8_t{0});
      break;
    case Layout::k32:
      m_values.Append(std::int32_t{0});
      break;
    case Layout::k64:
    case Layout::kReals:
    case Layout::kTimes:
      m_values.Append(std::int64_t{0});
      break;
    case Layout::kBytes:
      m_offsets.Append(static_cast<std::int32_t>(m_values.Size()));
      break;
  }
  ++m_nulls;
  EndRow(false);
}

void ArrowColumn::Export(ArrowArray& array) && {
  auto exported = std::make_unique<Exported>();
  const bool hasOffsets = m_layout == Layout::kBytes;
  if (hasOffsets) (void)m_values.Append(std::size_t{0});  // a buffer also for nothing but empty texts
  exported->pointers = {m_nulls != 0 ? m_isThere.Data() : nullptr};
  if (hasOffsets) exported->pointers.push_back(m_offsets.Data());
  exported->pointers.push_back(m_values.Data());
  exported->buffers.reserve(3);
  for (ArrowBuffer* const buffer : {&m_isThere, &m_offsets, &m_values}) exported->buffers.push_back(std::move(*buffer));
  array = {};
  array.length = static_cast<std::int64_t>(m_rows);
  array.null_count = static_cast<std::int64_t>(m_nulls);
  HandOver(std::move(exported), array);
}

ArrowRows::ArrowRows(const OGRFeatureDefn& definition, const CPLStringList& options)
    : m_mostRows(static_cast<std::size_t>(
          std::max(1L, std::strtol(options.FetchNameValueDef("MAX_FEATURES_IN_BATCH", "65536"), nullptr, 10)))) {
  const auto add = [this](ArrowColumn::Layout layout) {
    m_columns.emplace_back(layout);
    return static_cast<int>(m_columns.size()) - 1;
  };
  if (CPLTestBool(options.FetchNameValueDef("INCLUDE_FID", "YES"))) m_fid = add(ArrowColumn::Layout::k64);
  for (int field = 0; field < definition.GetFieldCount(); ++field) {
    const OGRFieldDefn& defined = *definition.GetFieldDefn(field);
    m_ofField.push_back(defined.IsIgnored() != FALSE ? kNone : add(LayoutOf(defined)));
  }
  const bool hasGeometry = definition.GetGeomFieldCount() != 0 && definition.IsGeometryIgnored() == FALSE;
  if (hasGeometry) m_geometry = add(ArrowColumn::Layout::kBytes);
}

ArrowColumn* ArrowRows::ColumnOf(int field, ArrowColumn::Layout layout) {
  const int column = m_ofField[static_cast<std::size_t>(field)];
  if (column == kNone || m_columns[static_cast<std::size_t>(column)].Kind() != layout) return nullptr;
  return &m_columns[static_cast<std::size_t>(column)];
}

void ArrowRows::SetFID(GIntBig fid) {
  if (m_fid != kNone) m_columns[static_cast<std::size_t>(m_fid)].Put(std::int64_t{fid});
}

void ArrowRows::SetField(int field, int value) {
  if (ArrowColumn* const bits = ColumnOf(field, ArrowColumn::Layout::kBits)) return bits->PutBit(value != 0);
  if (ArrowColumn* const column = ColumnOf(field, ArrowColumn::Layout::k32)) column->Put(std::int32_t{value});
}

void ArrowRows::SetField(int field, GIntBig value) {
  if (ArrowColumn* const column = ColumnOf(field, ArrowColumn::Layout::k64)) column->Put(std::int64_t{value});
}

void ArrowRows::SetField(int field, double value) {
  if (ArrowColumn* const column = ColumnOf(field, ArrowColumn::Layout::kReals)) column->Put(value);
}

void ArrowRows::SetField(int field, const char* utf8) {
  ArrowColumn* const column = ColumnOf(field, ArrowColumn::Layout::kBytes);
  if (column == nullptr) return;
  const std::size_t size = std::strlen(utf8);
  std::memcpy(column->PutBytes(size), utf8, size);
  m_bytes += size;
}

void ArrowRows::SetTime(int field, Milliseconds time) {
  ArrowColumn* const column = ColumnOf(field, ArrowColumn::Layout::kTimes);
  if (column != nullptr) column->Put(static_cast<std::int64_t>(time.time_since_epoch().count()));
}

std::byte* ArrowRows::AddGeometry(std::size_t size) {
  if (m_geometry == kNone) return nullptr;
  m_bytes += size;
  return m_columns[static_cast<std::size_t>(m_geometry)].PutBytes(size);
}

void ArrowRows::EndRow() {
  for (ArrowColumn& column : m_columns) {
    if (column.Rows() == m_size) column.PutNull();
  }
  ++m_size;
}

void ArrowRows::Export(ArrowArray& batch) && {
  auto exported = std::make_unique<Exported>();
  exported->pointers = {nullptr};
  exported->children.resize(m_columns.size());
  for (std::size_t i = 0; i < m_columns.size(); ++i) {
    exported->childPointers.push_back(&exported->children[i]);
  }
  batch = {};
  batch.length = static_cast<std::int64_t>(m_size);
  HandOver(std::move(exported), batch);
  try {
    for (std::size_t i = 0; i < m_columns.size(); ++i) std::move(m_columns[i]).Export(*batch.children[i]);
  } catch (...) {
    batch.release(&batch);
    throw;
  }
}

void RemoveDictionaries(ArrowArray& batch) noexcept { RemoveDictionariesOf(batch); }
void RemoveDictionaries(ArrowSchema& schema) noexcept { RemoveDictionariesOf(schema); }

}  // namespace kesp::ogr
