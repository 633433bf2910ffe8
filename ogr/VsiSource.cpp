#include "ogr/VsiSource.h"

#include <cerrno>
#include <cstring>
#include <limits>
#include <system_error>
#include <utility>

#include <cpl_vsi.h>

namespace kesp::ogr {
namespace {

struct CloseFile {
  void operator()(VSILFILE* file) const { VSIFCloseL(file); }
};
using FilePtr = std::unique_ptr<VSILFILE, CloseFile>;

// File systems of GDAL don't always set errno.
[[noreturn]] void Fail() { throw std::system_error(errno != 0 ? errno : EIO, std::generic_category()); }

class VsiSource : public ByteSource {
 public:
  explicit VsiSource(FilePtr file) : m_file(std::move(file)) {}

  std::uint64_t Length() override {
    errno = 0;
    if (VSIFSeekL(m_file.get(), 0, SEEK_END) != 0) Fail();
    return VSIFTellL(m_file.get());
  }
  std::size_t ReadAt(std::uint64_t offset, void* to, std::size_t count) override {
    errno = 0;
    if (VSIFSeekL(m_file.get(), offset, SEEK_SET) != 0) Fail();
    const std::size_t got = VSIFReadL(to, 1, count, m_file.get());
    if (got == 0) Fail();
    return got;
  }

 private:
  const FilePtr m_file;
};

class Ingested : public ByteSource {
 public:
  Ingested(GByte* bytes, std::uint64_t length) : m_bytes(bytes), m_length(length) {}

  std::uint64_t Length() override { return m_length; }
  std::size_t ReadAt(std::uint64_t offset, void* to, std::size_t count) override {
    std::memcpy(to, m_bytes.get() + offset, count);
    return count;
  }

 private:
  struct Free {
    void operator()(GByte* bytes) const { VSIFree(bytes); }
  };
  const std::unique_ptr<GByte, Free> m_bytes;
  const std::uint64_t m_length;
};

}  // namespace

bool IsVsiPath(const std::string& path) { return path.starts_with("/vsi"); }

std::unique_ptr<ByteSource> OpenVsi(const std::string& path) {
  errno = 0;
  if (path.starts_with("/vsistdin")) {
    constexpr GIntBig kLongest = std::numeric_limits<std::uint32_t>::max();  // of a file that the driver reads
    GByte* bytes = nullptr;
    vsi_l_offset length = 0;
    if (VSIIngestFile(nullptr, path.c_str(), &bytes, &length, kLongest) == FALSE) return nullptr;
    return std::make_unique<Ingested>(bytes, length);
  }
  FilePtr file(VSIFOpenL(path.c_str(), "rb"));
  return file != nullptr ? std::make_unique<VsiSource>(std::move(file)) : nullptr;
}

}  // namespace kesp::ogr
