#include "kesp/dataset/ErrorEnum.h"

CString ErrorText(ErrorEnum error) {
  switch (error) {
    case ERR_NONE:
      return "No error.";
    case ERR_FILE_NOT_FOUND:
      return "There is no such file.";
    case ERR_MEMORY:
      return "Memory ran out, or the data would take more of it than is allowed.";
    case ERR_FILE_EXCEPTION:
      return "The file can't be opened in this way.";
    case ERR_UNKNOWN_EXCEPTION:
      return "The file can't be opened, for an unknown reason.";
    case ERR_OTHER_FILE_OPEN:
      return "Another file is open.";
    case ERR_FILE_NOT_OPEN:
      return "No file is open. It may have been refused when it was to be opened.";
    case ERR_BAD_FEATURE:
      return "A feature has no points, or there is no feature.";
    case ERR_BAD_VERSION1_HEADER:
      return "The notes after the version-1 header can't be read.";
    case ERR_NO_HEADER:
      return "The first record is missing, or is no header.";
    case ERR_SEEK_FAILED:
      return "The first record can't be reached.";
    case ERR_OLD_VERSION:
      return "The file is of version 1. Everything in it was read.";
    case ERR_NOT_FOUND:
      return "Nothing was found.";
    case ERR_QUEUE_FAILED:
      return "Not all records could be queued.";
    case ERR_FILE_EXISTS:
      return "A file of that name exists.";
    case ERR_READ_FAILED:
      return "A record can't be read. What comes before it was read.";
    case ERR_UNSUPPORTED_LOGIC:
      return "The query can't compare in this way.";
  }
  return static_cast<int>(error) == 8 ? "Error 8, which is not used." : "An unknown error.";
}
