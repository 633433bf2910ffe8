// Splits a path into its parts. Both slashes are separators, and drive letters count, since files also come from
// systems that have them.
#pragma once
#include "kesp/platform/String.h"

namespace kesp {

struct PathParts {
  CString drive;      // up to and including the first ":"
  CString directory;  // up to and including the last "/" or "\"
  CString name;
  CString extension;  // including its "."
};

// White space at both ends is ignored. The name ends at the path's last ".", even if that is in a directory: for
// "D:\data.old\points" both name and extension are empty.
PathParts SplitPath(const CString& path);

}  // namespace kesp
