// Files that only GDAL's own file layer can read: /vsizip/, /vsimem/, /vsicurl/, /vsistdin/ and so on.
#pragma once
#include <memory>
#include <string>

#include "kesp/platform/ByteSource.h"

namespace kesp::ogr {

// Whether the path is for GDAL's file layer.
bool IsVsiPath(const std::string& path);

// Opens the file for reading. What can only be read once, from the start, is read into memory. Null, with errno set, if
// it can't be opened.
std::unique_ptr<ByteSource> OpenVsi(const std::string& path);

}  // namespace kesp::ogr
