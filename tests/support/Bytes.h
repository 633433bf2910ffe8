// Bytes written by hand, and files made of them.
#pragma once
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "kesp/platform/String.h"

namespace kesp::test {

using ByteVector = std::vector<std::uint8_t>;

// "02 01 ff" to bytes. "00*12" is twelve zero bytes, 'abc' are 8-bit characters, "abc" UTF-16 units.
inline ByteVector Hex(std::string_view text) {
  ByteVector bytes;
  const auto digit = [](char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; };
  for (std::size_t i = 0; i < text.size();) {
    if (text[i] == ' ' || text[i] == '\n') {
      ++i;
    } else if (text[i] == '\'' || text[i] == '"') {
      const char quote = text[i++];
      for (; text[i] != quote; ++i) {
        bytes.push_back(static_cast<std::uint8_t>(text[i]));
        if (quote == '"') bytes.push_back(0);
      }
      ++i;
    } else {
      const auto byte = static_cast<std::uint8_t>(digit(text[i]) << 4 | digit(text[i + 1]));
      i += 2;
      std::size_t count = 1;
      if (i < text.size() && text[i] == '*') {
        std::size_t used = 0;
        count = std::stoul(std::string(text.substr(i + 1, 10)), &used);
        i += 1 + used;
      }
      bytes.insert(bytes.end(), count, byte);
    }
  }
  return bytes;
}

// Little-endian, for building files.
inline void Append(ByteVector& to, std::uint64_t value, int width) {
  for (int i = 0; i < width; ++i) to.push_back(static_cast<std::uint8_t>(value >> 8 * i));
}
inline void Append(ByteVector& to, const ByteVector& from) { to.insert(to.end(), from.begin(), from.end()); }
inline ByteVector operator+(ByteVector a, const ByteVector& b) {
  Append(a, b);
  return a;
}

// The 50 bytes before the records, and a record around a body.
inline ByteVector FileHeader(std::uint16_t version = 3, std::uint32_t headerLength = 2) {
  ByteVector bytes = Hex("'Corvanthe Survey Devices -- Kesp Data File'");
  Append(bytes, version, 2);
  Append(bytes, headerLength, 4);
  Append(bytes, 0, 2);
  return bytes;
}
inline ByteVector Record(std::uint32_t type, std::uint16_t version, std::uint32_t flags, const ByteVector& body) {
  ByteVector bytes;
  Append(bytes, type, 4);
  Append(bytes, version, 2);
  Append(bytes, flags, 4);
  Append(bytes, body.size(), 4);
  Append(bytes, body);
  return bytes;
}

// A folder that goes away with the object.
class TempDir {
 public:
  TempDir() {
    std::random_device random;
    do m_path = std::filesystem::temp_directory_path() / ("kesp-test-" + std::to_string(random()));
    while (!std::filesystem::create_directory(m_path));
  }
  ~TempDir() { std::filesystem::remove_all(m_path); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  std::filesystem::path operator/(std::string_view name) const { return m_path / name; }

 private:
  std::filesystem::path m_path;
};

inline void WriteFile(const std::filesystem::path& path, const ByteVector& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}
inline ByteVector ReadFile(const std::filesystem::path& path) {
  ByteVector bytes(std::filesystem::exists(path) ? static_cast<std::size_t>(std::filesystem::file_size(path)) : 0);
  std::ifstream(path, std::ios::binary)
      .read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  return bytes;
}
// Where programs may not make symbolic links, it is another name of the file.
inline void MakeSoftLink(const std::filesystem::path& to, const std::filesystem::path& link) {
#ifdef _WIN32
  std::filesystem::create_hard_link(to, link);
#else
  std::filesystem::create_symlink(to, link);
#endif
}
// With U+FFFD for each lone surrogate, which ToUtf8 keeps as ED A0 80 to ED BF BF.
inline std::string ValidUtf8(const CString& text) {
  std::string valid = text.ToUtf8();
  for (std::size_t i = 0; i + 2 < valid.size(); ++i) {
    if (valid[i] == '\xED' && static_cast<unsigned char>(valid[i + 1]) >= 0xA0) valid.replace(i, 3, "\xEF\xBF\xBD");
  }
  return valid;
}
inline CString Text(const std::filesystem::path& path) { return {path.c_str()}; }

}  // namespace kesp::test
