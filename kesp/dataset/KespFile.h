// The data set: one whole Kesp data file in memory, to read, index, query, edit and write back.
//
//   CKespFile survey;
//   CString message;
//   if (survey.OpenKesp(L"survey.kesp", message) != ERR_NONE || survey.ReadKespFile(false) != ERR_NONE) ...
//   int count = 0;
//   ErrorEnum error = ERR_NONE;
//   const std::unique_ptr<CKespFeature*[]> oaks(survey.GetFeaturesWhereName(LOGIC_EQUAL, L"Oak", count, error));
//   survey.CloseKesp();
//
// Who owns what, and how long it lives. ReadKespFile on an open file, both ValidateKesp and the destructor first clear
// the data set; so does GetStringToStringTags while the record list is empty.
//
//   what                                            deleted by
//   ----------------------------------------------  ---------------------------------------------------------------
//   features, notes, tags, headers, feature ends    the data set, when it is cleared; also records that have left the
//   that ReadKespFile made                          indexes since: a feature whose number a later one took, one that
//                                                   was deleted, a feature end that a later one replaced
//   points, attributes, the end of a feature        their feature
//   links and link lists that reading made          the data set, when it is cleared
//   what the factories make                         the caller, until it is attached to a feature
//   what a caller queued                            the caller, who keeps it alive while it is in the queue, or in an
//                                                   index, where AddRecordsToWriteQueue enters it; but
//     a header                                      the data set, when cleared while the header is in the list
//     a feature, by AddRecordsToWriteQueue          the data set, when cleared while the feature index holds it
//   the array that a query returns                  the caller, with delete[]; never what it points to
//   m_pDataFile                                     the data set; the writers of new files replace it
//   m_pBmcText                                      the data set, when destroyed; each clearing makes another string
//
// Errors: most operations return an ErrorEnum and the queries store one; ErrorText has a sentence for each. Writers
// return ERR_NONE once writing has begun; single failures do not change the result. After a writer has returned
// ERR_NONE, and before closing, all queued records are on the disk if m_pDataFile->IsOpen() and
// m_pDataFile->GetSystemError() == 0. GetSystemError returns the errno value of the first failure since the file was
// opened: ENOMEM when memory ran out, EINVAL for a record that could not be written (a null, a tag without content, a
// record version that its class does not know), EBADF for a write to a file that is open read-only.
// m_pDataFile->GetFailedAppends() counts the records that are missing. The same holds for what UpdateKespHeader,
// CloseKesp and the deletions rewrite, except that a record that is not found in the file is no failure.
// A std::bad_alloc (CMemoryException is one) leaves the operations that make records, queue them or return arrays, the
// summary, SetQueueVersion and PropigateSourceCtrlFlagsToFeatures; the others return ERR_MEMORY. Texts are passed by
// value, so copying one may raise in the caller. A CFileException leaves each operation that reads records when a
// version-1 feature is cut short; the data set then holds what was read so far. It also leaves CloseKesp and
// DeleteFeatureAndAssociatedRec when the system can't write everything to the disk.
//
// One thread at a time may use an object.
#pragma once
#include <concepts>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "kesp/dataset/ErrorEnum.h"
#include "kesp/dataset/KespMap.h"
#include "kesp/dataset/LogicFlag.h"
#include "kesp/dataset/RecordList.h"
#include "kesp/format/FormatLoss.h"
#include "kesp/geometry/BoundingBox.h"
#include "kesp/geometry/Point3D.h"
#include "kesp/geometry/Rect2D.h"
#include "kesp/platform/Export.h"
#include "kesp/platform/String.h"
#include "kesp/platform/Time.h"
#include "kesp/recordfile/KespDataFile.h"
#include "kesp/records/GpsTime.h"
#include "kesp/records/KespAttribute.h"
#include "kesp/records/KespFeature.h"
#include "kesp/records/KespFeatureEnd.h"
#include "kesp/records/KespFeatureLink.h"
#include "kesp/records/KespNote.h"
#include "kesp/records/KespPoint.h"
#include "kesp/records/KespTag.h"
#include "kesp/records/KespTavoHeader.h"

namespace kesp {
class ByteSource;
class StoreReader;
struct Store;
}  // namespace kesp

class KESP_EXPORT CKespFile {
 public:
  CKespFile();
  ~CKespFile();
  CKespFile(const CKespFile&) = delete;
  CKespFile& operator=(const CKespFile&) = delete;

  // --- Opening, reading, closing ---------------------------------------------------------------------------------

  // Opens the file for reading and writing; the store is not touched. A path that is already open stays open, whatever
  // its letter case, unless that spelling leads to another file (ERR_OTHER_FILE_OPEN). A file that is open read-only is
  // opened again for writing; if that fails, it stays open read-only (ERR_FILE_EXCEPTION). `message` receives a text
  // for the user, or is empty.
  // ERR_NONE does not mean that the file is open. It is also returned when the container refuses the file: another
  // signature, a damaged file header, or a writer that has the file open. The next operation that needs an open file
  // then returns ERR_FILE_NOT_OPEN. m_pDataFile->IsOpen() tells at once, and m_pDataFile->GetErrorString() tells why.
  ErrorEnum OpenKesp(CString path, CString& message);
  // The same, read-only: takes no lock, and the file's bytes and times stay as they are, also on closing. A path that
  // is open for writing stays open for writing.
  ErrorEnum OpenKespReadOnly(CString path, CString& message);
  // The same with bytes that the host reads (see kesp/platform/ByteSource.h); messages have `name`. The data set owns
  // the source. ERR_OTHER_FILE_OPEN when a file is open, ERR_FILE_NOT_FOUND for a null. No path leads to a source, not
  // even its name: while it is open, a path given to an operation is that of another file.
  ErrorEnum OpenKespReadOnly(std::unique_ptr<kesp::ByteSource> source, CString name, CString& message);
  // Marks the file as cleanly closed, flushes and closes it. The store keeps its content.
  ErrorEnum CloseKesp();
  // Clears the store and reads the whole open file into it, with or without the records marked deleted. Drops points,
  // attributes and ends whose feature did not come before them. Clears point offsets: a data set that was read holds
  // none. After ERR_READ_FAILED, ERR_MEMORY and ERR_OLD_VERSION the store holds what was read. Damage right after the
  // header is treated as the end of the file, with ERR_NONE: WasReadToEnd tells them apart.
  ErrorEnum ReadKespFile(bool readDeleted);
  // Whether the last ReadKespFile, also one in a validation, reached the clean end of the file. False after damage
  // anywhere, and before anything was read; m_pDataFile->GetErrorString() then tells what ended it.
  bool WasReadToEnd() const noexcept;
  // Sets the memory in bytes at which ReadKespFile ends with ERR_MEMORY, and with ENOMEM as the container's system
  // error. The default, also for 0, is 48 MiB plus four times the file's length. Only a crafted file reaches this
  // limit; a survey needs about half the file's length. Records, texts and lists count; the last record read may go
  // over the limit.
  void SetMemoryLimit(std::uint64_t bytes) noexcept;
  // Stores the file version that the header record on disk names.
  ErrorEnum GetKespVersion(unsigned long& version);
  ErrorEnum GetKespVersion(std::uint32_t& version);

  // --- The header record on disk ---------------------------------------------------------------------------------

  // Rewrites the header in place: its texts (HeaderText4, 2, 3, 1, 6, 5 in this order), the extent (minimum and maximum
  // Y, minimum and maximum X; an invalid one leaves the old), the summary of the data set in memory, and the
  // clean-close mark. `flag` goes into SlotWord1. A version-1 header takes only the texts HeaderText1 to HeaderText5;
  // text5 and the extent go into its "BMC:" and "ZOM:" notes, if the file has them.
  // The body is rewritten in record version 2. It then names file version 2, even where the content needs 3: old
  // readers accept no higher one there, and this library derives the version from the records.
  ErrorEnum UpdateKespHeader(CString text1, CString text2, CString text3, CString text4, CString text5, CString text6,
                             double minY, double maxY, double minX, double maxX, bool flag);
  // Rewrites the two notes after a version-1 header that begin with "BMC:" and "ZOM:". Appends nothing.
  ErrorEnum UpdateKespHeaderVersion1(CString bmcText, CBoundingBox extent);
  // Sets or clears the clean-close mark. A version-1 header has none.
  ErrorEnum SetCleanKespClose(bool clean);
  // Adds the source flags of attributes, points and "FeatureChanges" tags to the features in memory.
  void PropigateSourceCtrlFlagsToFeatures();
  // Returns the flag word of a feature; 0xFFFFFFFF if there is none of that number.
  unsigned long GetSrcCtrlFlagsForFeat(unsigned long featureNumber) const;

  // --- Deleting and validating -----------------------------------------------------------------------------------

  // Removes the feature from the index and marks its points and attributes deleted, in memory and on disk. The feature
  // itself and its end are marked in memory only. No memory is freed. Always ERR_NONE.
  ErrorEnum DeleteFeatureAndAssociatedRec(CKespFeature* feature);
  // Marks the record deleted in memory. Always ERR_NONE.
  ErrorEnum DeleteRecord(CKespRecord* record);
  // Checks that the file can be read and that each of its features has a point. Reads it into the store. The first form
  // opens the file and closes it again, marked as cleanly closed, unless it was open; it never sets `message`.
  ErrorEnum ValidateKesp(CString path, CString& message);
  ErrorEnum ValidateKesp();

  // --- Making records --------------------------------------------------------------------------------------------
  // The caller owns what these return. Numbers are up to the caller: nothing checks or reserves them.

  [[nodiscard]] CKespFeature* CreateFeature(CString name, KESP_FEATURE_TYPE type,
                                            unsigned long featureNumber);  // symbol index 34
  [[nodiscard]] CKespPoint* CreatePoint(unsigned long pointNumber, CString text, std::int32_t time, double coordY,
                                        double coordX, double coordZ, unsigned long featureNumber);
  [[nodiscard]] CKespNote* CreateNote(CString text);
  [[nodiscard]] CKespFeatureEnd* CreateFeatureEnd(unsigned long featureNumber);
  [[nodiscard]] CKespAttribute* CreateStringAttribute(CString name, unsigned long featureNumber, CString value);
  [[nodiscard]] CKespAttribute* CreateMenuAttribute(CString name, unsigned long featureNumber, CString value);
  // The last two numbers are ignored, here and for dates: only the value is stored.
  [[nodiscard]] CKespAttribute* CreateNumericAttribute(CString name, unsigned long featureNumber, double value,
                                                       double second, double third);
  [[nodiscard]] CKespAttribute* CreateDateAttribute(CString name, unsigned long featureNumber, double date,
                                                    double second, double third);
  [[nodiscard]] CKespTag* CreateTag(CString name, unsigned long featureNumber, unsigned long pointNumber,
                                    unsigned long timeFirstPart,
                                    unsigned long timeSecondPart);       // GPS mark
  [[nodiscard]] CKespTag* CreateTag(unsigned long color, CString name);  // colour, like the next two
  [[nodiscard]] CKespTag* CreateTag(CString name, unsigned long color);
  [[nodiscard]] CKespTag* CreateTag(CString name, std::uint32_t color);
  [[nodiscard]] CKespTag* CreateTag(CString name, CRect2D rect);
  [[nodiscard]] CKespTag* CreateTag(CString name, CPoint3D point);
  [[nodiscard]] CKespTag* CreateTag(CString name, CString value);
  [[nodiscard]] CKespTag* CreateTag(CString name, double value);
  [[nodiscard]] CKespTag* CreateTag(CString name, int value);
  [[nodiscard]] CKespTag* CreateTagGps(unsigned long number, unsigned long value1, unsigned long value2,
                                       unsigned long value3,
                                       unsigned long value4);  // quality mark; the values become floats
  [[nodiscard]] CKespTag* CreateTagGpsEx(unsigned long number, float value1, float value2, float value3, float value4,
                                         int integer);
  [[nodiscard]] CKespTag* CreateTagFeatureLink(unsigned long featureNumber1, unsigned long qualifier1,
                                               unsigned long featureNumber2, unsigned long qualifier2,
                                               unsigned long linkValue);
  [[nodiscard]] CKespTag* CreateTagBlob(CString name, const void* data, int length);

  // Always ERR_NONE. The feature must not be null.
  ErrorEnum AddGpsInfoToPoint(CKespPoint& point, double value, int number, KESP_SIGNAL_STATUS status);
  ErrorEnum AddOffsetToPoint(CKespPoint& point, double first, double second);
  ErrorEnum AddDisplayInfoToFeature(CKespFeature* feature, unsigned long color, unsigned short symbolIndex,
                                    unsigned short displayWord1, unsigned short displayWord2, CString displayText);

  // --- The write queue -------------------------------------------------------------------------------------------
  // The queue is m_recordList: it holds what was read from a file, and queued records are added at its end.

  ErrorEnum AddTavoHeaderToWriteQueue(CKespTavoHeader* header);
  ErrorEnum AddFeatureEndToWriteQueue(CKespFeatureEnd* end);
  ErrorEnum AddTagToWriteQueue(CKespTag* tag);
  ErrorEnum AddNoteToWriteQueue(CKespNote* note);
  ErrorEnum AddFeatureRecOnlyToWriteQueue(CKespFeature* feature);
  // Queues the feature, its attributes, its points and its end.
  ErrorEnum AddFeatureAndAssociatedRecToWriteQueue(CKespFeature* feature);
  ErrorEnum AddFeaturesToWriteQueue(CKespFeature* const* features, int count);  // skips null
  // Also enters points and features into their indexes and counts the points. Objects of other classes are not entered
  // as features, whatever their type says: they would be deleted twice.
  ErrorEnum AddRecordsToWriteQueue(CKespRecord* const* records, int count);
  // Empties m_recordList. Callers own again what they queued, headers too; the data set still owns what reading made.
  ErrorEnum ClearQueueWithoutWriting();
  // Writes the queue to a new file of file version 3, 2 or 1, which becomes the data set's open file; the one that was
  // open is closed as it is. The writers for versions 1 and 2 write bodies of record version 1 or 2, but record headers
  // with the records' own versions, and convert nothing: each queued record must have the m_recordVersion that the
  // writer writes, or the file can't be read. SetQueueVersion sets it. (For version 2 it differs from
  // GetRecordVersionFromKespVersion, which returns 3 for features and attributes.)
  // An existing file stays as it is, with ERR_FILE_EXISTS; a file that is open in the data set then stays open. If the
  // file header can't be written, for example on a full disk, the new file is deleted again (ERR_FILE_NOT_FOUND), and
  // GetSystemError has the reason.
  [[nodiscard]] ErrorEnum WriteNewKespFileFromQueue(CString path);
  [[nodiscard]] ErrorEnum WriteNewKespFileFromQueueVersion2(CString path);
  [[nodiscard]] ErrorEnum WriteNewKespFileFromQueueVersion1(CString path);
  // Sets each queued record to the record version that the writer for file version 1 or 2 writes: 1 or 2, and 1 for a
  // feature end. Adds to `loss` what such a file can't hold of the records. Changes only the versions; does nothing for
  // other file versions. Call it before WriteNewKespFileFromQueueVersion1 or -Version2.
  void SetQueueVersion(unsigned short fileVersion, kesp::FormatLoss& loss);
  // Appends the queue to the file. Opens the file if none is open, and opens it again if it is open read-only. If the
  // container refuses the file, nothing is appended and the result is ERR_NONE (see Errors above).
  // Beware: the queue also holds what ReadKespFile read. To open, read and append writes the whole file again after
  // itself: call ClearQueueWithoutWriting before queueing new records. CountQueuedFromOpenFile tells.
  [[nodiscard]] ErrorEnum AppendToKespFileFromQueue(CString path);
  // Returns how many of the queued records are already in the open file, because they were read from it or written to
  // it; it should be 0 before AppendToKespFileFromQueue. Checks the m_filePosition of each queued record.
  int CountQueuedFromOpenFile() const;

  // --- Queries ---------------------------------------------------------------------------------------------------
  // Each returns an array in the order of the record list, never null, and stores the number of entries and ERR_NONE or
  // ERR_NOT_FOUND. The caller deletes the array with delete[].

  [[nodiscard]] CKespRecord** GetRecordsWhereFlags(LogicFlag logic, unsigned long mask, int& count,
                                                   ErrorEnum& error) const;
  [[nodiscard]] CKespFeature** GetFeaturesWhereFlags(LogicFlag logic, unsigned long mask, int& count,
                                                     ErrorEnum& error) const;
  [[nodiscard]] CKespPoint** GetPointsWhereFlags(LogicFlag logic, unsigned long mask, int& count,
                                                 ErrorEnum& error) const;
  [[nodiscard]] CKespAttribute** GetAttributesWhereFlags(LogicFlag logic, unsigned long mask, int& count,
                                                         ErrorEnum& error) const;
  [[nodiscard]] CKespNote** GetNotesWhereFlags(LogicFlag logic, unsigned long mask, int& count, ErrorEnum& error) const;
  [[nodiscard]] CKespTag** GetTagsWhereFlags(LogicFlag logic, unsigned long mask, int& count, ErrorEnum& error) const;
  // Types are compared by their names: all types other than 1 to 3 have the empty name and count as one.
  [[nodiscard]] CKespFeature** GetFeaturesWhereType(LogicFlag logic, KESP_FEATURE_TYPE type, int& count,
                                                    ErrorEnum& error) const;
  [[nodiscard]] CKespFeature** GetFeaturesWhereName(LogicFlag logic, CString name, int& count, ErrorEnum& error) const;
  // Compares the first attribute of that name (ignoring case): its Value or its TextValue. Leaves out features without
  // it.
  [[nodiscard]] CKespFeature** GetFeaturesWhereAttribute(CString attribute, LogicFlag logic, double value, int& count,
                                                         ErrorEnum& error) const;
  [[nodiscard]] CKespFeature** GetFeaturesWhereAttribute(CString attribute, LogicFlag logic, CString text, int& count,
                                                         ErrorEnum& error) const;
  template <std::integral Number>
  [[nodiscard]] CKespFeature** GetFeaturesWhereAttribute(CString attribute, LogicFlag logic, Number value, int& count,
                                                         ErrorEnum& error) const {
    return GetFeaturesWhereAttribute(std::move(attribute), logic, static_cast<double>(value), count, error);
  }
  // The same for an array of the caller's.
  [[nodiscard]] CKespFeature** GetFeaturesFromFeaturesWhereAttribute(CKespFeature* const* features, int featureCount,
                                                                     CString attribute, LogicFlag logic, double value,
                                                                     int& count, ErrorEnum& error) const;
  [[nodiscard]] CKespFeature** GetFeaturesFromFeaturesWhereAttribute(CKespFeature* const* features, int featureCount,
                                                                     CString attribute, LogicFlag logic, CString text,
                                                                     int& count, ErrorEnum& error) const;
  template <std::integral Number>
  [[nodiscard]] CKespFeature** GetFeaturesFromFeaturesWhereAttribute(CKespFeature* const* features, int featureCount,
                                                                     CString attribute, LogicFlag logic, Number value,
                                                                     int& count, ErrorEnum& error) const {
    return GetFeaturesFromFeaturesWhereAttribute(features, featureCount, std::move(attribute), logic,
                                                 static_cast<double>(value), count, error);
  }
  // The features whose box, the smallest around their points, has a point in common with the rectangle; and the points
  // in it. Edges count. So a line that crosses the rectangle without a point in it is found, and one that passes close
  // to a corner may be: a map needs the first, and can test the shape itself. A point with a coordinate that is not
  // finite is nowhere; a feature has the box of its other points. Records marked deleted are found. A rectangle may
  // have infinite edges. One with a minimum above its maximum or with a NaN contains nothing, as for PtInRect.
  // The first call builds an index, in the time of a few loops over all points. Each call then takes time for what it
  // finds, and the logarithm of the number of records; for a long thin rectangle at most the square root. The index
  // takes 6 bytes of memory for a point or 38 for a feature; while it is built, up to 48 or 80 more. After reading,
  // clearing, queueing and deleting, the next call builds it again where it has to. Changes to members of records need
  // ForgetSpatialIndex.
  [[nodiscard]] CKespFeature** GetFeaturesInRect(const CRect2D& rect, int& count, ErrorEnum& error) const;
  [[nodiscard]] CKespPoint** GetPointsInRect(const CRect2D& rect, int& count, ErrorEnum& error) const;
  // To be called after changing coordinates or a feature's list of points. Until then these two queries may find
  // records where they were, but never a record that is not in m_recordList.
  void ForgetSpatialIndex() noexcept;
  // Returns a new array with the first array followed by the second. The caller still owns both.
  [[nodiscard]] CKespFeature** JoinTwoArrays(CKespFeature* const* first, int firstCount, CKespFeature* const* second,
                                             int secondCount, int& count) const;
  // Returns the string tags of that name, ignoring case. Reads the open file first if the record list is empty.
  [[nodiscard]] CKespTag** GetStringToStringTags(CString name, int& count);
  // These find a record by its number. They need an open file: otherwise ERR_FILE_NOT_OPEN.
  ErrorEnum GetPoint(unsigned long pointNumber, CKespPoint*& point) const;
  ErrorEnum GetFeature(unsigned long featureNumber, CKespFeature*& feature) const;
  // The summary of the features in the index. Without points the first time is 10000 days from now and the last is
  // local time 2 January 1970, 01:01:01. Of points with the same last time the first in index order gives the text.
  ErrorEnum GetKespDataSummary(unsigned long& numPoints, unsigned long& numFeatures, CBoundingBox& extent,
                               CTime& firstTime, CTime& lastTime, CString& lastPointText) const;
  ErrorEnum GetKespDataSummary(std::uint32_t& numPoints, std::uint32_t& numFeatures, CBoundingBox& extent,
                               CTime& firstTime, CTime& lastTime, CString& lastPointText) const;

  // --- The store -------------------------------------------------------------------------------------------------

  kesp::RecordList m_recordList;                                  // in file order, then what was queued
  kesp::KespMap<std::uint32_t, CKespFeature*> m_featureIndex;     // by feature number
  kesp::KespMap<std::uint32_t, CKespPoint*> m_pointIndex;         // by point number
  kesp::KespMap<std::uint32_t, CKespTag*> m_qualityMarkIndex;     // (extended) quality marks by their number
  kesp::KespMap<std::uint32_t, CKespTag*> m_featureChangesIndex;  // flags named "FeatureChanges" by feature number
  std::vector<CKespTag*> m_tagList;                               // in file order
  std::vector<CKespFeatureLink*> m_featureLinks;                  // in file order
  kesp::KespMap<CGPSTime, CKespFeaturePtPair> m_gpsMarkIndex;     // which point was taken at a GPS time
  kesp::KespMap<std::uint32_t, CKespLinkList*> m_linkListIndex;   // the links that touch a feature
  CKespDataFile* m_pDataFile;                                     // the container
  CTime m_firstPointTime;
  CTime m_lastPointTime;
  CBoundingBox m_extent;            // from the header, or from a version-1 extent note
  std::uint32_t m_numPoints = 0;    // in all features; 0 when not counted
  std::uint32_t m_kespVersion = 0;  // file version that the content needs
  CString* m_pBmcText = nullptr;    // text of a version-1 "BMC:" note

 private:
  friend class kesp::StoreReader;
  friend struct CKespFileTestAccess;

  explicit CKespFile(std::unique_ptr<CKespDataFile> container);
  void ClearStorage();
  void Clear() noexcept;
  void FindEntered(std::vector<CKespRecord*>& entered) noexcept;
  bool ProcessTag(CKespTag* tag);
  bool AddFeatureLink(const CKespFeatureLink& link);
  ErrorEnum CheckTavoFileIntegrity();
  ErrorEnum CheckFileOpenIfClosed(bool& wasOpen, CString path);
  CKespFeature* GetKespFeature(CKespPoint* point) const;
  std::uint32_t GetNumberOfPoints();
  void DeletePoint(CKespPoint* point);
  int DeletePointInFeature(CKespPoint* point, CKespFeature* feature);

  ErrorEnum OpenWith(const CString& path, CString& message, bool readOnly);
  template <class Open>
  ErrorEnum OpenGuarded(CString& message, Open open);
  void ThrowIfOutOfMemory(bool opened) const;
  bool NamesOpenFile(const CString& path) const;
  ErrorEnum MakeWritable(CString& message);
  ErrorEnum OutOfMemory() noexcept;  // and notes it in the container
  void ApplyChangesTag(std::uint32_t featureNumber, CKespFeature& feature);
  static void ApplyMarksOfChildren(CKespFeature& feature);
  void MarkDeletedOnDisk(CKespRecord& record);
  void RemovePointFromStore(CKespPoint* point, CKespFeature& feature, int index);
  ErrorEnum Queue(CKespRecord* record);
  using Appender = bool (CKespDataFile::*)(CKespRecord*, unsigned long);
  ErrorEnum WriteNew(const CString& path, std::uint16_t version, Appender append);

  std::unique_ptr<kesp::Store> m_own;
};
