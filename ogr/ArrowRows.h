// Rows of a layer as columns in the layout of Arrow: a batch of a stream (OGRLayer::GetArrowStream).
//
// Takes values by the names that OGRFeature has for them, so that the same code fills both. As there, a value that its
// field can't have is left out.
#pragma once
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include <cpl_string.h>
#include <cpl_vsi.h>
#include <ogr_feature.h>

struct ArrowArray;
struct ArrowSchema;

namespace kesp::ogr {

// Bytes that grow as they are needed. What it has reserved and not yet got is not touched.
class ArrowBuffer {
 public:
  // Returns room for `size` more bytes. Throws std::bad_alloc.
  std::byte* Append(std::size_t size);
  template <class T>
  void Append(T value) {
    std::memcpy(Append(sizeof value), &value, sizeof value);
  }
  std::size_t Size() const noexcept { return m_size; }
  std::byte* Data() noexcept { return m_data.get(); }

 private:
  struct Free {
    void operator()(std::byte* data) const noexcept { VSIFree(data); }
  };
  std::unique_ptr<std::byte, Free> m_data;
  std::size_t m_size = 0, m_room = 0;
};

class ArrowColumn {
 public:
  enum class Layout : std::uint8_t { kBits, k32, k64, kReals, kTimes, kBytes };
  explicit ArrowColumn(Layout layout);

  Layout Kind() const noexcept { return m_layout; }
  std::size_t Rows() const noexcept { return m_rows; }
  void PutBit(bool value);
  template <class T>
  void Put(T value) {
    m_values.Append(value);
    EndRow(true);
  }
  // Room for a row of so many bytes. Throws std::bad_alloc when the batch gets longer than offsets of 32 bits reach.
  std::byte* PutBytes(std::size_t size);
  void PutNull();
  // Moves the rows into the array, which owns them.
  void Export(ArrowArray& array) &&;

 private:
  void EndRow(bool isThere);

  Layout m_layout;
  std::size_t m_rows = 0, m_nulls = 0;
  ArrowBuffer m_isThere;  // a bit for each row
  ArrowBuffer m_offsets;  // of texts and geometries
  ArrowBuffer m_values;
};

class ArrowRows {
 public:
  using Milliseconds = std::chrono::sys_time<std::chrono::milliseconds>;

  // For the columns of GDAL's schema: the FID unless the options of the stream leave it out, then the fields and the
  // geometry, except those that are ignored.
  ArrowRows(const OGRFeatureDefn& definition, const CPLStringList& options);

  std::size_t Size() const noexcept { return m_size; }
  // The batch has as many rows as the options allow, or a good deal of bytes.
  bool IsFull() const noexcept { return m_size >= m_mostRows || m_bytes >= kManyBytes; }

  void SetFID(GIntBig fid);
  void SetField(int field, int value);
  void SetField(int field, GIntBig value);
  void SetField(int field, double value);
  void SetField(int field, const char* utf8);
  void SetTime(int field, Milliseconds time);
  void SetFieldNull(int /*field*/) noexcept {}
  // Room for the geometry as WKB; null if it is ignored.
  std::byte* AddGeometry(std::size_t size);
  // What the row has not got is null.
  void EndRow();
  // Moves all rows into `batch`.
  void Export(ArrowArray& batch) &&;

 private:
  static constexpr std::size_t kManyBytes = std::size_t{16} << 20;
  static constexpr int kNone = -1;
  // The column of the field, if it has one of this layout.
  ArrowColumn* ColumnOf(int field, ArrowColumn::Layout layout);

  std::vector<ArrowColumn> m_columns;
  int m_fid = kNone, m_geometry = kNone;
  std::vector<int> m_ofField;
  std::size_t m_size = 0, m_mostRows, m_bytes = 0;
};

// For a field with coded values GDAL adds a dictionary, into which its numbers are indices. A number without a code
// would point outside, so the layers here give plain numbers.
void RemoveDictionaries(ArrowArray& batch) noexcept;
void RemoveDictionaries(ArrowSchema& schema) noexcept;

}  // namespace kesp::ogr
