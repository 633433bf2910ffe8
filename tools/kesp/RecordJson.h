// The JSON of records: the members that have a place in some version of a record's body, by their names.
#pragma once
#include "tools/kesp/JsonWriter.h"
#include "tools/kesp/RecordWalk.h"

namespace kesp::tool {

// One line: the offset of the record, what its header says, and its fields. Nothing if the record can't be read.
void WriteRecordLine(JsonWriter& json, RecordWalk& walk);
// The object of the fields alone; and its members, inside brackets of the caller's.
void WriteFields(JsonWriter& json, const CKespRecord& record);
void WriteMembers(JsonWriter& json, const CKespRecord& record);
// {"error":1,"message":"Normal EOF"}
void WriteEnd(JsonWriter& json, KESP_ERROR_TYPE error, const CString& message);

}  // namespace kesp::tool
