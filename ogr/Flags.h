// The marks of records that fields show.
#pragma once
#include <cstdint>

#include "kesp/records/KespRecord.h"

namespace kesp::ogr {

// Of content that was added or changed after the file was first written.
constexpr std::uint32_t kEditedFlags = KESP_SRC_ADDED | KESP_SRC_MODIFIED | KESP_SRC_CHANGE_A | KESP_SRC_CHANGE_B |
                                       KESP_SRC_CHANGE_AB | KESP_SRC_HIST_MODIFIED | KESP_SRC_HIST_ADDED |
                                       KESP_SRC_HIST_CHANGE_B | KESP_SRC_HIST_CHANGE_A | KESP_SRC_HIST_CHANGE_AB;

}  // namespace kesp::ogr
