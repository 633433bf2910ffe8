// The result codes of the operations of a data set.
#pragma once
#include "kesp/platform/Export.h"
#include "kesp/platform/String.h"

enum ErrorEnum : int {
  ERR_NONE = 0,                 // success
  ERR_FILE_NOT_FOUND = 1,       // nothing, or a directory, at the path
  ERR_MEMORY = 2,               // the container object is missing, memory ran out, or a read reached its memory limit
  ERR_FILE_EXCEPTION = 3,       // a file exception while opening; or a file open read-only can't be opened for writing
  ERR_UNKNOWN_EXCEPTION = 4,    // any other exception while opening
  ERR_OTHER_FILE_OPEN = 5,      // this data set has another file open
  ERR_FILE_NOT_OPEN = 6,        // also: the container refused the file
  ERR_BAD_FEATURE = 7,          // a feature without points, or a null feature for the queue
  ERR_BAD_VERSION1_HEADER = 9,  // the notes after a version-1 header could not be read
  ERR_NO_HEADER = 10,           // the first record is missing or is not a header
  ERR_SEEK_FAILED = 11,         // the seek to the first record failed; from SetCleanKespClose also: no file is open
  ERR_OLD_VERSION = 12,         // the content needs file version 1 only and holds features; it stays loaded
  ERR_NOT_FOUND = 13,           // nothing has that number, or nothing matched
  ERR_QUEUE_FAILED = 14,        // an exception while queueing
  ERR_FILE_EXISTS = 15,         // something exists at the path of a new file
  ERR_READ_FAILED = 16,         // a record could not be read, or the first one is not a header where one is required
  ERR_UNSUPPORTED_LOGIC = 17    // never returned: an unsupported comparison gives ERR_NOT_FOUND
};

// Returns a sentence for a user, also for ERR_NONE and for values that no operation returns.
KESP_EXPORT CString ErrorText(ErrorEnum error);
