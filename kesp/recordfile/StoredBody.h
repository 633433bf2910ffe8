// How the container has a record write its body, wherever that goes: into an append, over a record, into a new file.
#pragma once
#include "kesp/platform/File.h"
#include "kesp/records/KespRecord.h"

namespace kesp {

// The record's own Write, and for a tag that was read with a block of 0 bytes the two numbers of its body: Write
// refuses such a tag, since a new one without a block has nothing to say, but one that is in a file is to be kept.
// Raises what the file object raises.
bool WriteStoredBody(CKespRecord& record, CFile& file, unsigned long sourceFlag, unsigned short version);

}  // namespace kesp
