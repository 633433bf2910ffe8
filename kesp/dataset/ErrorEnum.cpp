#include "kesp/dataset/ErrorEnum.h"

CString ErrorText(ErrorEnum error) {
  switch (error) {
    case ERR_NONE:
      return "No error.";
    case ERR_FILE_NOT_FOUND:
      return "There is no such file.";
    case ERR_MEMORY:
      return "Memory ran out, or the data needs more than the memory limit.";
    case ERR_FILE_EXCEPTION:
      return "The file can't be opened, or can't be opened for writing.";
    case ERR_UNKNOWN_EXCEPTION:
      return "The file can't be opened, for an unknown reason.";
    case ERR_OTHER_FILE_OPEN:
      return "Another file is open.";
    case ERR_FILE_NOT_OPEN:
      return "No file is open. The file may have been refused when opening it.";
    case ERR_BAD_FEATURE:
      return "A feature has no points, or there is no feature.";
    case ERR_BAD_VERSION1_HEADER:
      return "The notes after the version-1 header can't be read.";
    case ERR_NO_HEADER:
      return "The first record is missing or is not a header.";
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
      return "A record can't be read. The records before it were read.";
    case ERR_UNSUPPORTED_LOGIC:
      return "The query does not support this comparison.";
  }
  return static_cast<int>(error) == 8 ? "Error 8, which is not used." : "An unknown error.";
}
