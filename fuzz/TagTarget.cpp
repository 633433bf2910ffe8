// A tag out of any body: what its getters hand out lies inside it, and what is set comes back.
#include <cstring>
#include <memory>

#include "fuzz/Targets.h"
#include "kesp/kesp.h"

namespace kesp::fuzz {
namespace {

struct OpenTag : CKespTag {
  using CKespTag::GetBinary;
};

// Runs every getter; how many of them answered.
int Ask(OpenTag& tag, CString& name) {
  int integer = 0;
  double number = 0;
  CString text;
  CPoint3D point;
  CRect2D rect;
  std::uint32_t a = 0;
  std::uint32_t b = 0;
  std::uint32_t c = 0;
  std::uint32_t d = 0;
  float f = 0;
  CKespFeatureLink link;
  int answers = 0;
  answers += tag.GetInteger(name, integer);
  answers += tag.GetDouble(name, number);
  answers += tag.GetString(name, text);
  answers += tag.GetPoint(name, point);
  answers += tag.GetRect(name, rect);
  answers += tag.GetColor(name, a);
  answers += tag.GetGPSMark(name, a, b, c, d);
  answers += tag.GetFileLink(a, name);
  answers += tag.GetQualityMark(a, f, f, f, f);
  answers += tag.GetFeatureLink(link);
  answers += tag.GetQualityMarkEx(a, f, f, f, f, integer);
  answers += tag.GetPosErrMark(a, f, f, f);
  answers += tag.GetNamedFlag(a, b, name);
  KESP_REQUIRE(answers <= 1);
  KESP_REQUIRE(2 * text.Size() <= tag.m_dataLength && 2 * name.Size() <= tag.m_dataLength);
  return answers;
}

}  // namespace

void Tag(Input input) {
  MemorySystem system;
  system.Put("a", Bytes(input.begin(), input.end()));
  CFile file(u"a", CFile::modeReadWrite);
  OpenTag tag;
  CString name;
  if (tag.Read(file)) {
    // The block is the file's, byte for byte, and goes back as it came.
    KESP_REQUIRE(tag.m_dataLength <= input.size() - 8);
    CFile out(u"b", CFile::modeReadWrite | CFile::modeCreate);
    if (tag.Write(out, 0, 0)) {
      const Bytes& written = system.At("b");
      KESP_REQUIRE(written.size() == tag.GetLength(0) &&
                   std::memcmp(written.data(), input.data(), written.size()) == 0);
    }
  }
  (void)Ask(tag, name);
  OpenTag copy;
  copy.Set(tag);
  (void)Ask(copy, name);
  void* data = nullptr;
  int length = 0;
  const bool hasPayload = tag.GetBinary(name, &data, length);
  const std::unique_ptr<unsigned char[]> payload(static_cast<unsigned char*>(data));
  KESP_REQUIRE(!hasPayload || (length > 0 && static_cast<std::uint32_t>(length) <= tag.m_dataLength));

  // Name and payload put into a tag of each kind come back.
  const CString wanted = name;
  for (std::uint32_t kind = 0; hasPayload && kind <= KESP_TAG_NAMED_FLAG + 1; ++kind) {
    copy.Set(static_cast<KESP_TAG>(kind), wanted, payload.get(), static_cast<unsigned long>(length));
    void* back = nullptr;
    int backLength = 0;
    KESP_REQUIRE(copy.GetBinary(name, &back, backLength));
    const std::unique_ptr<unsigned char[]> owned(static_cast<unsigned char*>(back));
    KESP_REQUIRE(name == wanted && backLength == length &&
                 std::memcmp(back, payload.get(), static_cast<std::size_t>(length)) == 0);
    (void)Ask(copy, name);
  }
}

}  // namespace kesp::fuzz
