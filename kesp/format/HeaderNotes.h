// The two notes after a version-1 header. They hold what that header has no room for: "BMC:" and a text, "ZOM:" and the
// four numbers of an extent. Their first four characters distinguish them from other notes and from each other.
#pragma once
#include <string_view>

namespace kesp {

constexpr std::u16string_view kBmcTag = u"BMC:";
constexpr std::u16string_view kZomTag = u"ZOM:";  // minimum and maximum X, minimum and maximum Y, separated by commas
constexpr int kNoteTagLength = 4;

}  // namespace kesp
