// What all layers have in common.
#pragma once
#include <string>

#include <ogrsf_frmts.h>

#include "ogr/Box.h"
#include "ogr/SurveyFile.h"

namespace kesp::ogr {

class ArrowRows;
class Dataset;

class Layer : public OGRLayer {
 public:
  ~Layer() override;
  Layer(const Layer&) = delete;
  Layer& operator=(const Layer&) = delete;

  OGRFeatureDefn* GetLayerDefn() override { return m_definition; }
  GDALDataset* GetDataset() override;
  using OGRLayer::GetExtent;
  OGRErr GetExtent(OGREnvelope* extent, int force) override;
  GIntBig GetFeatureCount(int force) override;
  int TestCapability(const char* capability) override;
  // A transaction, and writing to the disk, are the data set's.
  OGRErr StartTransaction() override;
  OGRErr CommitTransaction() override;
  OGRErr RollbackTransaction() override;
  OGRErr SyncToDisk() override;
  // What was written since the transaction began is gone.
  virtual void AfterRollback() { ResetReading(); }
  // Features that are created keep the FIDs that they come with, which mean nothing here. ogr2ogr warns of each that
  // changes.
  void LeaveFids() noexcept { m_leavesFids = true; }

 protected:
  // A stream gets its columns without features, if there is no filter and the layer can.
  int GetNextArrowArray(ArrowArrayStream* stream, ArrowArray* batch) override;
  int GetArrowSchema(ArrowArrayStream* stream, ArrowSchema* schema) override;
  virtual bool CanMakeColumns() const { return false; }
  // Adds the next row; false at the end.
  virtual bool AddNextRow(ArrowRows& /*rows*/) { return false; }
  // Filters see fields that are ignored; the feature that is returned doesn't have them.
  void UnsetIgnored(OGRFeature& feature) const;

  Layer(Dataset& dataset, const std::string& name, OGRwkbGeometryType geometryType);

  // Of the whole layer, known from the first walk.
  virtual GIntBig Count() const = 0;
  // Writes a new feature and sets its FID.
  virtual OGRErr Create(OGRFeature& /*feature*/) { return OGRERR_UNSUPPORTED_OPERATION; }
  virtual const Box* Bounds() const { return nullptr; }  // null without geometry
  virtual bool IsIndexed() const { return false; }       // GetFeature doesn't search the whole file
  // Whether it can do so in a data set that is open for changes.
  virtual bool CanAdd() const { return false; }
  virtual bool CanChange() const { return false; }
  virtual bool CanDelete() const { return false; }

  bool IsFiltered() const noexcept { return m_poFilterGeom != nullptr || m_poAttrQuery != nullptr; }
  Box FilterBox() const noexcept;
  // Tells GDAL, once for each layer, that a walk ended before the end of the file. A stream tells it at each of its
  // ends.
  void ReportEnd(const WalkEnd& end);

  Dataset& m_dataset;
  OGRFeatureDefn* m_definition;

 private:
  OGRErr ICreateFeature(OGRFeature* feature) final;
  bool CanRead(const char* capability);
  bool CanWrite(const char* capability);
  int MakeBatch(ArrowArrayStream* stream, ArrowArray* batch);

  WalkEnd m_end;  // of the last walk that ended
  bool m_hasReported = false;
  bool m_isStreaming = false;
  bool m_leavesFids = false;
};

}  // namespace kesp::ogr
