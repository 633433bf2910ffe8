// The error codes of the container and of every record. CKespDataFile::GetErrorString has the message of each.
#pragma once
#include <cstdint>

enum KESP_ERROR_TYPE : std::uint32_t {
  KESP_ERROR_NONE = 0,
  KESP_ERROR_NORMAL_EOF = 1,      // no byte left where a record header would start: the clean end
  KESP_ERROR_EOF = 2,             // the file header, a record header or a body is cut short
  KESP_ERROR_VERSION = 3,         // a record version newer than its class reads
  KESP_ERROR_RECORD_TYPE = 4,     // record type 0
  KESP_ERROR_BAD_RECORD = 5,      // a body with impossible contents
  KESP_ERROR_RECORD_HEADER = 6,   // a body length of 0 or past the end of the file
  KESP_ERROR_OPEN = 7,            // the file can't be opened
  KESP_ERROR_FILE_HEADER = 8,     // the first record would start past the end of the file
  KESP_ERROR_SIGNATURE = 9,       // not a Kesp data file
  KESP_ERROR_APP_HEADER = 10,     // the header record's body is cut short
  KESP_ERROR_UNICODE = 11,        // record types 10 to 14
  KESP_ERROR_ATTRIBUTE_TYPE = 12  // a version-1 attribute of unknown kind
};
