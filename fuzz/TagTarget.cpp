// A tag from any body: its getters return nothing from outside the block, and what is set can be read back.
#include <cstring>
#include <memory>

#include "fuzz/Reader.h"
#include "fuzz/Targets.h"
#include "kesp/kesp.h"
#include "tests/support/Views.h"

namespace kesp::fuzz {
namespace {

struct OpenTag : CKespTag {
  using CKespTag::GetBinary;
};

// Calls every getter and returns how many succeeded.
int CallGetters(OpenTag& tag, CString& name) {
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
  int succeeded = 0;
  succeeded += tag.GetInteger(name, integer);
  succeeded += tag.GetDouble(name, number);
  succeeded += tag.GetString(name, text);
  succeeded += tag.GetPoint(name, point);
  succeeded += tag.GetRect(name, rect);
  succeeded += tag.GetColor(name, a);
  succeeded += tag.GetGPSMark(name, a, b, c, d);
  succeeded += tag.GetFileLink(a, name);
  succeeded += tag.GetQualityMark(a, f, f, f, f);
  succeeded += tag.GetFeatureLink(link);
  succeeded += tag.GetQualityMarkEx(a, f, f, f, f, integer);
  succeeded += tag.GetPosErrMark(a, f, f, f);
  succeeded += tag.GetNamedFlag(a, b, name);
  KESP_REQUIRE(succeeded <= 1);
  KESP_REQUIRE(2 * text.Size() <= tag.m_dataLength && 2 * name.Size() <= tag.m_dataLength);
  return succeeded;
}

// A view of as much of the body as there is, which may be less than the block's length says.
void LookThroughView(Input input, const CKespTag* whole) {
  if (input.size() < kTagFixedPart) return;
  const std::size_t length = kTagFixedPart + std::size_t{test::Number(input, 4, 4)};
  const Input part = input.first(std::min(input.size(), length));
  const Bytes copy(part.begin(), part.end());  // nothing after it, so that an overrun is detected
  const std::span<const std::byte> body = std::as_bytes(std::span(copy));
  const TagView view(body);
  if (const auto name = view.Name()) (void)name->ToUtf8();
  const auto payload = view.Payload();
  KESP_REQUIRE(!payload || payload->data() + payload->size() <= body.data() + body.size());
  KESP_REQUIRE(whole == nullptr || test::Differing(*whole, view).empty());
}

}  // namespace

void Tag(Input input) {
  MemorySystem system;
  system.Put("a", Bytes(input.begin(), input.end()));
  CFile file(u"a", CFile::modeReadWrite);
  OpenTag tag;
  CString name;
  const bool isRead = tag.Read(file);
  LookThroughView(input, isRead ? &tag : nullptr);
  if (isRead) {
    // The block has the bytes of the file, and is written back unchanged.
    KESP_REQUIRE(tag.m_dataLength <= input.size() - 8);
    CFile out(u"b", CFile::modeReadWrite | CFile::modeCreate);
    if (tag.Write(out, 0, 0)) {
      const Bytes& written = system.At("b");
      KESP_REQUIRE(written.size() == tag.GetLength(0) &&
                   std::memcmp(written.data(), input.data(), written.size()) == 0);
    }
  }
  (void)CallGetters(tag, name);
  OpenTag copy;
  copy.Set(tag);
  (void)CallGetters(copy, name);
  void* data = nullptr;
  int length = 0;
  const bool hasPayload = tag.GetBinary(name, &data, length);
  const std::unique_ptr<unsigned char[]> payload(static_cast<unsigned char*>(data));
  KESP_REQUIRE(!hasPayload || (length > 0 && static_cast<std::uint32_t>(length) <= tag.m_dataLength));

  // The name and payload of a tag of each kind can be read back.
  const CString wanted = name;
  for (std::uint32_t kind = 0; hasPayload && kind <= KESP_TAG_NAMED_FLAG + 1; ++kind) {
    copy.Set(static_cast<KESP_TAG>(kind), wanted, payload.get(), static_cast<unsigned long>(length));
    void* back = nullptr;
    int backLength = 0;
    KESP_REQUIRE(copy.GetBinary(name, &back, backLength));
    const std::unique_ptr<unsigned char[]> owned(static_cast<unsigned char*>(back));
    KESP_REQUIRE(name == wanted && backLength == length &&
                 std::memcmp(back, payload.get(), static_cast<std::size_t>(length)) == 0);
    (void)CallGetters(copy, name);
  }
}

}  // namespace kesp::fuzz
