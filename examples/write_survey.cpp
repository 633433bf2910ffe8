// Writes a small survey with every kind of record, as a host would write it in the field.
//
//   write_survey survey.kesp
//   kesp info survey.kesp
//
// A Kesp file is a sequence of records. The header comes first and describes the file. Each feature is followed by its
// attributes, its points and an end mark, which all have its number. Notes and tags belong to the whole survey.
#include <cstdint>
#include <iostream>
#include <stdexcept>
#include <string>
#include <utility>

#include "kesp/kesp.h"

namespace {

constexpr unsigned long kNewFile = 0;          // source flag for records of a new file
constexpr std::int32_t kMorning = 1718003700;  // 10 June 2024, 07:15 UTC
constexpr double kDateOfInspection = 45453;    // the same day, counted from 30 December 1899

class Survey {
 public:
  explicit Survey(const std::string& path) {
    const CString name(path);
    // Create would empty an existing file.
    if (FileExists(name)) throw std::runtime_error(path + " exists");
    m_file.m_version = 3;
    if (!m_file.Create(name)) throw std::runtime_error(path + " can't be created");

    // The header is written first, without the clean-close mark: an interrupted survey can be read, but is not marked
    // as complete.
    m_header.HeaderText1 = CString("Park survey");
    m_header.HeaderText2 = CString("Made by write_survey");
    m_header.CreationTime = kMorning;
    m_header.SetCleanClose(false);
    Append(m_header);
  }

  // What is added from here until End belongs to the feature.
  void BeginFeature(KESP_FEATURE_TYPE type, const CString& name, unsigned long color) {
    CKespFeature feature;
    feature.SetFeatureNumber(++m_header.FeatureCount);
    feature.FeatureType = type;
    feature.FeatureName = name;
    feature.SetColor(color);
    Append(feature);
  }
  void End() {
    CKespFeatureEnd end;
    end.SetFeatureNumber(m_header.FeatureCount);
    Append(end);
  }

  void AddText(const CString& name, const CString& text) {
    CKespAttribute attribute = NewAttribute(name, KESP_ATTRIBUTE_STRING);
    attribute.TextValue = text;
    Append(attribute);
  }
  void AddNumber(const CString& name, double value, std::uint16_t decimals) {
    CKespAttribute attribute = NewAttribute(name, KESP_ATTRIBUTE_NUMERIC);
    attribute.Value = value;
    attribute.Decimals = decimals;
    Append(attribute);
  }
  void AddChoice(const CString& name, const CString& choice, const CString& subChoice) {
    CKespAttribute attribute = NewAttribute(name, KESP_ATTRIBUTE_MENU);
    attribute.TextValue = choice;
    attribute.SubValue = subChoice;
    Append(attribute);
  }
  void AddDate(const CString& name, double daysSince1899) {
    CKespAttribute attribute = NewAttribute(name, KESP_ATTRIBUTE_DATE);
    attribute.Value = daysSince1899;
    Append(attribute);
  }
  void AddOther(const CString& name, double value) {
    CKespAttribute attribute = NewAttribute(name, KESP_ATTRIBUTE_OTHER);
    attribute.Value = value;
    Append(attribute);
  }

  void AddPoint(double east, double north, double height) {
    CKespPoint point;
    point.PointNumber = ++m_header.PointCount;
    point.SetFeatureNumber(m_header.FeatureCount);
    point.PointText = CString("P" + std::to_string(point.PointNumber));
    point.PointTime = kMorning + 20 * static_cast<std::int32_t>(point.PointNumber);
    point.CoordX = east;
    point.CoordY = north;
    point.CoordZ = height;
    point.GpsNumber = 9;
    point.SignalStatus = KESP_SIGNAL_STATUS_3;
    if (m_header.PointCount == 1) point.SetOffset(1.5, -0.25);  // measured from the path
    Append(point);

    m_extent.Include(east, north);
    if (m_header.FirstPointTime == 0) m_header.FirstPointTime = static_cast<std::uint32_t>(point.PointTime);
    m_header.LastPointTime = static_cast<std::uint32_t>(point.PointTime);
    m_header.LastPointText = point.PointText;
  }

  void AddNote(const CString& text) {
    CKespNote note;
    note.NoteText = text;
    Append(note);
  }

  // The types of the arguments decide the kind of the tag.
  template <class... Value>
  void AddTag(const Value&... value) {
    CKespTag tag;
    tag.Set(value...);
    Append(tag);
  }

  // Updates the header and marks the file as closed cleanly, in one write. (A header that is written over one of record
  // version 2 has 2 as its KespVersion, whatever it had before; readers go by the records.)
  void Finish() {
    m_extent.Get(m_header.DataExtent1, m_header.DataExtent2, m_header.DataExtent3, m_header.DataExtent4);
    m_header.SetCleanClose(true);
    if (!m_file.Seek(m_header.m_filePosition) || !m_file.OverwriteRecord(&m_header, kNewFile) || !m_file.Flush() ||
        !m_file.Close()) {
      throw std::runtime_error("the header can't be brought up to date");
    }
  }

 private:
  CKespAttribute NewAttribute(const CString& name, KESP_ATTRIBUTE_KIND kind) const {
    CKespAttribute attribute;
    attribute.AttributeName = name;
    attribute.AttributeKind = kind;
    attribute.SetFeatureNumber(m_header.FeatureCount);
    return attribute;
  }
  // The record is on the disk when this returns.
  void Append(CKespRecord& record) {
    if (!m_file.AppendRecord(&record, kNewFile)) throw std::runtime_error("a record can't be written");
  }

  CKespDataFile m_file;
  CKespTavoHeader m_header;
  CBoundingBox m_extent;
};

void Write(const std::string& path) {
  Survey survey(path);
  survey.AddNote("Dry, light wind");

  survey.BeginFeature(KESP_FEATURE_POINT, "Tree", 0x00228B22);
  survey.AddChoice("Species", "Oak", "Sessile");
  survey.AddNumber("Girth", 2.35, 2);
  survey.AddDate("Inspected", kDateOfInspection);
  survey.AddText("Remark", "Hollow at the base \U0001F333");
  survey.AddOther("Raw", 17.25);
  survey.AddPoint(8.40444, 49.01355, 116.2);
  survey.End();

  survey.BeginFeature(KESP_FEATURE_LINE, "Path", 0x00808080);
  survey.AddChoice("Surface", "Gravel", "");
  survey.AddPoint(8.40421, 49.01340, 115.9);
  survey.AddPoint(8.40458, 49.01352, 116.0);
  survey.AddPoint(8.40497, 49.01349, 116.4);
  survey.End();

  survey.BeginFeature(KESP_FEATURE_AREA, "Lawn", 0x0000C000);
  survey.AddNumber("Area", 1240, 0);
  for (const auto& [east, north] :
       {std::pair{8.4043, 49.0136}, {8.4048, 49.0136}, {8.4048, 49.0139}, {8.4043, 49.0139}}) {
    survey.AddPoint(east, north, 116.1);
  }
  survey.End();

  survey.AddTag(CString("Crew"), 2);
  survey.AddTag(CString("Scale"), 0.5);
  survey.AddTag(CString("Operator"), CString("J. Doe"));
  survey.AddTag(CString("Base"), CPoint3D{8.4041, 49.0133, 115.5});
  survey.AddTag(CString("View"), CRect2D{8.4041, 49.0133, 8.4050, 49.0140});
  survey.AddTag(CString("Background"), std::uint32_t{0x00FFFFFF});
  survey.AddTag(CString("GPS"), 1UL, 1UL, 2318UL, 112520000UL);  // the tree's point, and when GPS saw it
  survey.AddTag(1UL, CString("tree.jpg"));
  survey.AddTag(1UL, 0.8F, 0.9F, 1.2F, 1.5F);
  survey.AddTag(1UL, 0.8F, 0.9F, 1.2F, 1.5F, 9);
  survey.AddTag(1UL, 0.02F, 0.02F, 0.05F);
  survey.AddTag(1UL, 20UL, CString("Checked"));
  CKespFeatureLink link;  // the path leads to the lawn
  link.m_featureNumber1 = 2;
  link.m_featureNumber2 = 3;
  survey.AddTag(link);
  constexpr unsigned char kThumbnail[] = {0x1F, 0x3C, 0x7E, 0x7E, 0x3C, 0x18, 0x18, 0x18};
  survey.AddTag(KESP_TAG_BLOB, CString("Thumbnail"), static_cast<const void*>(kThumbnail),
                static_cast<unsigned long>(sizeof kThumbnail));

  survey.Finish();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: write_survey PATH\n";
    return 2;
  }
  try {
    Write(argv[1]);
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "write_survey: " << e.what() << '\n';
    return 1;
  }
}
