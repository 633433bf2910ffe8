// How the container makes a record write its body: in an append, over a record, or into a new file.
#pragma once
#include "kesp/platform/File.h"
#include "kesp/records/KespRecord.h"

namespace kesp {

// Calls the record's own Write. For a tag with a block of 0 bytes it writes the two numbers of the body: Write refuses
// such a tag, since a new one without a block holds nothing, but one read from a file must be kept. Throws what the
// file object throws.
bool WriteStoredBody(CKespRecord& record, CFile& file, unsigned long sourceFlag, unsigned short version);

}  // namespace kesp
