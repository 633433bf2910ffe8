// Opens a Kesp data file for writing, and tries to open it again: it is refused, and told why. Linux and Windows.
//
//   open_twice survey.kesp
#include <iostream>

#include "kesp/kesp.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: open_twice PATH\n";
    return 2;
  }
  const CString path(argv[1]);
  CKespDataFile first;
  if (!first.Open(path)) {
    std::cerr << "can't be opened: " << first.GetErrorString().ToUtf8() << '\n';
    return 1;
  }
  CFile second;
  CFileException refusal(CFileException::none, path);
  if (second.Open(path, CFile::modeReadWrite | CFile::shareDenyWrite, &refusal)) {
    std::cerr << "opened twice\n";
    return 1;
  }
  std::cout << refusal.GetErrorMessage().ToUtf8() << '\n';
  return refusal.m_cause == CFileException::sharingViolation ? 0 : 1;
}
