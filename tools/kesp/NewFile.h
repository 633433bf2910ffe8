// A file that appears under its name only when it is whole: made beside its place, and renamed.
//
//   NewFile copy(source, destination, replace);
//   if (!copy.IsReady() || !Make(copy.Path()) || !copy.Keep()) return kExitTrouble;
//
// Refuses the source itself, by whatever name, what is no regular file, what somebody holds open for writing and,
// unless it is to be replaced, a file that exists. What was made goes away again unless it is kept, also when SIGINT
// and its like end the tool; so there is one such object at a time.
//
// A destination that is a folder gets the name of the source. With "-" the file is made in the folder for temporary
// files, and Keep puts it out on standard output.
//
// Errors: complains and returns false.
#pragma once
#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "kesp/kesp.h"

namespace kesp::tool {

// Keeps a file as it is while it is read: nobody can open it for writing. A file that can't be opened is left for its
// reader to complain about.
class SteadyFile {
 public:
  explicit SteadyFile(const std::string& path);
  ~SteadyFile();
  SteadyFile(const SteadyFile&) = delete;
  SteadyFile& operator=(const SteadyFile&) = delete;

  // Whether somebody had it open for writing before.
  bool IsWritten() const noexcept { return m_isWritten; }

 private:
  bool m_isWritten = false;
  std::intptr_t m_held;  // sets m_isWritten
};

constexpr const char* kIsWritten = "is open for writing elsewhere";

enum class Existing { kRefuse, kReplace };

class NewFile {
 public:
  NewFile(const CKespDataFile& source, const std::string& destination, Existing existing);
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  bool IsReady() const noexcept { return !m_made.empty(); }
  const std::string& Why() const noexcept { return m_why; }  // it failed; complained about already
  // Where to make it; exists, and is empty.
  CString Path() const { return CString::FromPathBytes(m_made); }
  std::uint64_t Size() const;
  bool Keep();
  // Whether it goes to standard output, which then takes nothing else.
  static bool IsStandardOutput(const std::string& destination) { return destination == "-"; }

 private:
  bool Check(const CKespDataFile& source);
  bool PutOut();
  void Fail(const std::string& why);

  std::string m_given;  // as the person spelled it
  std::string m_place;  // with symbolic links followed
  std::string m_made;
  std::string m_why;
  Existing m_existing;
  CFile m_replaced;  // held until its name is taken, or just before where the system wants that
};

// Shows how far a file has grown, on a terminal, while the library makes it.
class Growth {
 public:
  Growth(const NewFile& file, std::uint64_t expected);
  ~Growth();
  Growth(const Growth&) = delete;
  Growth& operator=(const Growth&) = delete;

 private:
  std::atomic<bool> m_ends{false};
  std::thread m_thread;  // looks at the file by its name, and at nothing of the library
};

}  // namespace kesp::tool
