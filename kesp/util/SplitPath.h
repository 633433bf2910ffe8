// Takes a path apart, with either slash as separator and the drive letters of the files' first home.
#pragma once
#include "kesp/platform/String.h"

namespace kesp {

struct PathParts {
  CString drive;      // up to and with the first ":"
  CString directory;  // up to and with the last "/" or "\"
  CString name;
  CString extension;  // with its "."
};

// White space at both ends is ignored. The name ends at the path's last "." even where that stands in a directory:
// for "D:\data.old\points" both name and extension are empty.
PathParts SplitPath(const CString& path);

}  // namespace kesp
