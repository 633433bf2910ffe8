// Checks that a file can be read and that each of its features has a point.
#include <algorithm>

#include "kesp/dataset/KespFile.h"

ErrorEnum CKespFile::ValidateKesp(CString path, CString& /*message*/) {
  bool wasOpen = false;
  const ErrorEnum opened = CheckFileOpenIfClosed(wasOpen, path);
  if (opened != ERR_NONE) return opened;
  ErrorEnum checked = ERR_NONE;
  try {
    checked = CheckTavoFileIntegrity();
  } catch (...) {
    if (!wasOpen) (void)m_pDataFile->Close();
    throw;
  }
  if (wasOpen) return checked;
  const ErrorEnum closed = CloseKesp();
  return checked != ERR_NONE ? checked : closed;
}

ErrorEnum CKespFile::ValidateKesp() {
  if (m_pDataFile == nullptr) return ERR_MEMORY;
  if (!m_pDataFile->IsOpen()) return ERR_FILE_NOT_OPEN;
  return CheckTavoFileIntegrity();
}

ErrorEnum CKespFile::CheckTavoFileIntegrity() {
  Clear();  // even if the read fails at once
  const ErrorEnum result = ReadKespFile(false);
  if (result != ERR_NONE) return result;
  const bool whole = std::all_of(m_featureIndex.begin(), m_featureIndex.end(),
                                 [](const auto& entry) { return entry.value->GetNumPoints() != 0; });
  return whole ? ERR_NONE : ERR_BAD_FEATURE;
}
