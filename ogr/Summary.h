// What a header record says of the data in its file.
#pragma once
#include "kesp/recordfile/KespDataFile.h"
#include "kesp/records/KespTavoHeader.h"

namespace kesp::ogr {

// Reads the file, and puts the numbers of points and features, their extent and times, and the text of the last point
// into the header: the same as CKespFile::GetKespDataSummary. False if the file can't be read to its end.
bool Summarize(CKespDataFile& file, CKespTavoHeader& header);

}  // namespace kesp::ogr
