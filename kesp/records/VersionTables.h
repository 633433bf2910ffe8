// The mappings between file and record version, for classes whose record versions 1 and 2 came with file versions 1 and
// 2.
#pragma once

namespace kesp {

constexpr unsigned short RecordVersionUpTo2(unsigned short kespVersion) { return kespVersion == 1 ? 1 : 2; }

// `recordVersion` must not be 0.
constexpr bool MinimumKespVersionUpTo2(unsigned short& kespVersion, unsigned short recordVersion) {
  if (recordVersion != 1 && recordVersion != 2) return false;
  kespVersion = recordVersion;
  return true;
}

}  // namespace kesp
