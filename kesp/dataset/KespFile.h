// The data set: one whole Kesp data file in memory, indexed, answered, edited and written back.
//
//   CKespFile survey;
//   CString message;
//   if (survey.OpenKesp(L"survey.kesp", message) != ERR_NONE || survey.ReadKespFile(false) != ERR_NONE) ...
//   int count = 0;
//   ErrorEnum error = ERR_NONE;
//   const std::unique_ptr<CKespFeature*[]> oaks(survey.GetFeaturesWhereName(LOGIC_EQUAL, L"Oak", count, error));
//   survey.CloseKesp();
//
// Who owns what, and until when it lives. "Cleared" is what ReadKespFile on an open file, both ValidateKesp and the
// destructor begin with, and GetStringToStringTags while the record list is empty.
//
//   what                                            deleted by
//   ----------------------------------------------  ---------------------------------------------------------------
//   features, notes, tags, headers, feature ends    the data set, when it is cleared. That holds for each record that
//   that ReadKespFile made                          reading made, also for one that left the indexes since: a feature
//                                                   whose number a later one took, one that was deleted, a feature
//                                                   end that a later one replaced.
//   points, attributes, the end of a feature        their feature
//   links and link lists that reading made          the data set, when it is cleared
//   what the factories make                         the caller, until it is attached to a feature
//   what a caller queued                            the caller, who keeps it alive while it stands in the queue, or in
//                                                   an index, where AddRecordsToWriteQueue enters it; but
//     a header                                      the data set, when cleared while the header stands in the list
//     a feature, by AddRecordsToWriteQueue          the data set, when cleared while the feature index holds it
//   the array that a query answers                  the caller, with delete[]; never what it points to
//   m_pDataFile                                     the data set; the writers of new files put another in its place
//   m_pBmcText                                      the data set, when it ends; another string after each clearing
//
// Errors: every operation returns an ErrorEnum; ErrorText has a sentence for each. The writers return ERR_NONE once
// they have got as far as writing: a single append that fails does not change the result. After a writer has returned
// ERR_NONE, and before closing, every queued record is on the disk if m_pDataFile->IsOpen() and
// m_pDataFile->GetSystemError() == 0. The latter has the errno of the first failure since the file was opened: ENOMEM
// when memory ran out, EINVAL for a record that could not be written (a null, a tag without content, a record version
// that its class does not know), EBADF for a write to a file that is open read-only;
// m_pDataFile->GetFailedAppends() counts the records that are missing. The same holds for what UpdateKespHeader,
// CloseKesp and the deletions rewrite, except that a record that is not found in the file is no such failure.
// A std::bad_alloc (CMemoryException is one) leaves the operations that make records, queue them or return arrays, the
// summary, SetQueueVersion and PropigateSourceCtrlFlagsToFeatures; the others return ERR_MEMORY. (Texts are passed by
// value: copying one is the caller's.) A CFileException leaves whatever reads records when a version-1 feature is cut
// short, the data set holding what it had read by then, and CloseKesp and DeleteFeatureAndAssociatedRec when the system
// can't bring everything to the disk.
//
// One thread at a time.
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

  // Opens the file for reading and writing; the store is not touched. A path that is open already stays open, in
  // whatever letter case, unless that spelling leads to another file (ERR_OTHER_FILE_OPEN); one that is open read-only
  // is opened again for writing, and if that fails stays as it is (ERR_FILE_EXCEPTION). `message` is a text for a
  // person, empty unless something can be said.
  // ERR_NONE does not mean that the file is open: a file that the container refuses (another signature, a damaged file
  // header, a writer that has it) gives ERR_NONE too, and the next operation that wants an open file returns
  // ERR_FILE_NOT_OPEN. m_pDataFile->IsOpen() tells at once, m_pDataFile->GetErrorString() why not.
  ErrorEnum OpenKesp(CString path, CString& message);
  // The same read-only: no lock, and the file's bytes and times stay as they are, also when it is closed. A path that
  // is open for writing stays so.
  ErrorEnum OpenKespReadOnly(CString path, CString& message);
  // Marks the file as cleanly closed, flushes and closes it. The store keeps its content.
  ErrorEnum CloseKesp();
  // Clears the store and reads the whole open file into it, with or without the records marked deleted. Points,
  // attributes and ends whose feature did not come before them are dropped. Point offsets are cleared: a data set
  // that was read holds none. After ERR_READ_FAILED, ERR_MEMORY and ERR_OLD_VERSION the store holds what was read.
  // Damage right after the header reads as the end of the file does, with ERR_NONE: WasReadToEnd tells them apart.
  ErrorEnum ReadKespFile(bool readDeleted);
  // Whether the last ReadKespFile, or the last one of a validation, came to the clean end of the file. False after
  // damage, wherever it is, and before anything was read; m_pDataFile->GetErrorString() then says what ended it.
  bool WasReadToEnd() const noexcept;
  // The memory in bytes at which ReadKespFile ends with ERR_MEMORY, and ENOMEM as the container's system error. By
  // default, and for 0, 64 MiB and four times the file's length: a survey takes about half its length, so that only a
  // crafted file gets there. Counted are records, texts and lists; what one record takes may go beyond it.
  void SetMemoryLimit(std::uint64_t bytes) noexcept;
  // The file version that the header record on disk names.
  ErrorEnum GetKespVersion(unsigned long& version);
  ErrorEnum GetKespVersion(std::uint32_t& version);

  // --- The header record on disk ---------------------------------------------------------------------------------

  // Rewrites the header in place: its texts (HeaderText4, 2, 3, 1, 6, 5 in this order), the extent (minimum and maximum
  // Y, minimum and maximum X; an invalid one leaves the old), the summary of the data set in memory, and the
  // clean-close mark. `flag` goes into SlotWord1. A version-1 header takes texts and mark only; its notes "BMC:" and
  // "ZOM:", where the file has them, take text5 and the extent.
  // The rewritten body is of record version 2, whose writer stores 2 for the file version also where the content needs
  // 3: readers of old look for no more there, and this library takes what the content needs from the records.
  ErrorEnum UpdateKespHeader(CString text1, CString text2, CString text3, CString text4, CString text5, CString text6,
                             double minY, double maxY, double minX, double maxX, bool flag);
  // Rewrites the two notes behind a version-1 header that begin with "BMC:" and "ZOM:". Nothing is appended.
  ErrorEnum UpdateKespHeaderVersion1(CString bmcText, CBoundingBox extent);
  // Sets or clears the clean-close mark. A version-1 header has none.
  ErrorEnum SetCleanKespClose(bool clean);
  // Hands the source flags of attributes, points and "FeatureChanges" tags up to the features in memory.
  void PropigateSourceCtrlFlagsToFeatures();
  // The flag word of a feature; 0xFFFFFFFF when there is none of that number.
  unsigned long GetSrcCtrlFlagsForFeat(unsigned long featureNumber) const;

  // --- Deleting and validating -----------------------------------------------------------------------------------

  // Takes the feature out of the index and marks its points and attributes deleted, in memory and on disk. The feature
  // itself and its end are marked in memory only. Nothing is deleted in the sense of memory. Always ERR_NONE.
  ErrorEnum DeleteFeatureAndAssociatedRec(CKespFeature* feature);
  // Marks the record deleted in memory. Always ERR_NONE.
  ErrorEnum DeleteRecord(CKespRecord* record);
  // Whether the file can be read and each of its features has a point. Reads it into the store. The first form opens
  // and closes the file unless it is open, which marks it as cleanly closed, and never writes `message`.
  ErrorEnum ValidateKesp(CString path, CString& message);
  ErrorEnum ValidateKesp();

  // --- Making records --------------------------------------------------------------------------------------------
  // What is made is the caller's. Numbers are the caller's business: nothing checks or reserves them.

  [[nodiscard]] CKespFeature* CreateFeature(CString name, KESP_FEATURE_TYPE type,
                                            unsigned long featureNumber);  // symbol index 34
  [[nodiscard]] CKespPoint* CreatePoint(unsigned long pointNumber, CString text, std::int32_t time, double coordY,
                                        double coordX, double coordZ, unsigned long featureNumber);
  [[nodiscard]] CKespNote* CreateNote(CString text);
  [[nodiscard]] CKespFeatureEnd* CreateFeatureEnd(unsigned long featureNumber);
  [[nodiscard]] CKespAttribute* CreateStringAttribute(CString name, unsigned long featureNumber, CString value);
  [[nodiscard]] CKespAttribute* CreateMenuAttribute(CString name, unsigned long featureNumber, CString value);
  // The last two numbers are taken and dropped, here and for dates: only the value has a place.
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
  // The queue is m_recordList: what was read from a file stands in it, and what is queued goes behind.

  ErrorEnum AddTavoHeaderToWriteQueue(CKespTavoHeader* header);
  ErrorEnum AddFeatureEndToWriteQueue(CKespFeatureEnd* end);
  ErrorEnum AddTagToWriteQueue(CKespTag* tag);
  ErrorEnum AddNoteToWriteQueue(CKespNote* note);
  ErrorEnum AddFeatureRecOnlyToWriteQueue(CKespFeature* feature);
  // The feature, its attributes, its points, its end.
  ErrorEnum AddFeatureAndAssociatedRecToWriteQueue(CKespFeature* feature);
  ErrorEnum AddFeaturesToWriteQueue(CKespFeature* const* features, int count);  // a null one is passed over
  // Also enters points and features into their indexes and counts the points. Headers and points are not entered as
  // features: they have no feature number of their own to stand under, and would be deleted twice.
  ErrorEnum AddRecordsToWriteQueue(CKespRecord* const* records, int count);
  // Empties m_recordList. What callers queued, headers too, is theirs again; what reading made stays the data set's.
  ErrorEnum ClearQueueWithoutWriting();
  // Write all that is queued to a new file of file version 3, 2 or 1, which then is the data set's open file; the one
  // that was open is closed as it is. The writers for versions 1 and 2 write bodies of record version 1 or 2 after
  // headers with the records' own versions, and convert nothing: each queued record must have the m_recordVersion that
  // the writer writes, or the file can't be read. SetQueueVersion sees to it. (For version 2 that is not what
  // GetRecordVersionFromKespVersion gives: it names version 3 for features and attributes.)
  // What has that name already stays, and the result is ERR_FILE_EXISTS; the file that was open then stays so. A file
  // that can't be given its file header, as on a full disk, is taken away again (ERR_FILE_NOT_FOUND); GetSystemError
  // says why.
  [[nodiscard]] ErrorEnum WriteNewKespFileFromQueue(CString path);
  [[nodiscard]] ErrorEnum WriteNewKespFileFromQueueVersion2(CString path);
  [[nodiscard]] ErrorEnum WriteNewKespFileFromQueueVersion1(CString path);
  // Gives each queued record the record version that the writer for file version 1 or 2 writes: 1 or 2, and 1 for a
  // feature end. Adds to `loss` what the records hold and such a file can't. Changes nothing but the versions, and for
  // other file versions nothing at all. Call it before WriteNewKespFileFromQueueVersion1 or -Version2.
  void SetQueueVersion(unsigned short fileVersion, kesp::FormatLoss& loss);
  // Appends all that is queued to the file, which is opened if no file is, and opened again where it is open read-only.
  // To a file that the container refuses nothing is appended, and the result is ERR_NONE (see Errors above).
  // Beware: what ReadKespFile read is in the queue too. Open, read, append writes the whole file a second time, after
  // itself: call ClearQueueWithoutWriting before queueing what is new. CountQueuedFromOpenFile tells.
  [[nodiscard]] ErrorEnum AppendToKespFileFromQueue(CString path);
  // How many of the queued records are in the open file already, because they were read from it or written to it: 0 is
  // what AppendToKespFileFromQueue wants. Looks at the m_filePosition of each queued record.
  int CountQueuedFromOpenFile() const;

  // --- Queries ---------------------------------------------------------------------------------------------------
  // Each answers an array, empty but never null, in the order of the record list, writes the number of entries and
  // ERR_NONE or ERR_NOT_FOUND.

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
  // Types are compared by their names: all types but 1 to 3 have the empty name and are one.
  [[nodiscard]] CKespFeature** GetFeaturesWhereType(LogicFlag logic, KESP_FEATURE_TYPE type, int& count,
                                                    ErrorEnum& error) const;
  [[nodiscard]] CKespFeature** GetFeaturesWhereName(LogicFlag logic, CString name, int& count, ErrorEnum& error) const;
  // By the first attribute of that name (ignoring case): its Value, or its TextValue. Features without it are left out.
  [[nodiscard]] CKespFeature** GetFeaturesWhereAttribute(CString attribute, LogicFlag logic, double value, int& count,
                                                         ErrorEnum& error) const;
  [[nodiscard]] CKespFeature** GetFeaturesWhereAttribute(CString attribute, LogicFlag logic, CString text, int& count,
                                                         ErrorEnum& error) const;
  template <std::integral Number>
  [[nodiscard]] CKespFeature** GetFeaturesWhereAttribute(CString attribute, LogicFlag logic, Number value, int& count,
                                                         ErrorEnum& error) const {
    return GetFeaturesWhereAttribute(std::move(attribute), logic, static_cast<double>(value), count, error);
  }
  // The same over an array of the caller's.
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
  // Both arrays one behind the other, in a new one. The two stay the caller's.
  [[nodiscard]] CKespFeature** JoinTwoArrays(CKespFeature* const* first, int firstCount, CKespFeature* const* second,
                                             int secondCount, int& count) const;
  // The string tags of that name, ignoring case. Reads the open file first if the record list is empty.
  [[nodiscard]] CKespTag** GetStringToStringTags(CString name, int& count);
  // By number. They want an open file.
  ErrorEnum GetPoint(unsigned long pointNumber, CKespPoint*& point) const;
  ErrorEnum GetFeature(unsigned long featureNumber, CKespFeature*& feature) const;
  // Of the features in the index. Without points the first time is 10000 days ahead and the last is local time
  // 2 January 1970, 01:01:01. Among points of the same last time the first in the index's order gives the text.
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
  bool NamesOpenFile(const CString& path) const;
  ErrorEnum MakeWritable(CString& message);
  ErrorEnum OutOfMemory() noexcept;  // notes it in the container
  void ApplyChangesTag(std::uint32_t featureNumber, CKespFeature& feature);
  static void ApplyMarksOfChildren(CKespFeature& feature);
  void MarkDeletedOnDisk(CKespRecord& record);
  void RemovePointFromStore(CKespPoint* point, CKespFeature& feature, int index);
  ErrorEnum Queue(CKespRecord* record);
  using Appender = bool (CKespDataFile::*)(CKespRecord*, unsigned long);
  ErrorEnum WriteNew(const CString& path, std::uint16_t version, Appender append);

  std::unique_ptr<kesp::Store> m_own;
};
