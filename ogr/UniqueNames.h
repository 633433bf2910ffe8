// Names of fields and layers that differ from each other also without regard to case, as users of OGR need them.
#pragma once
#include <cctype>
#include <string>
#include <string_view>
#include <unordered_set>

namespace kesp::ogr {

class UniqueNames {
 public:
  // Returns the name, or the name with "_2", "_3" and so on if it is taken.
  std::string Take(const std::string& name) {
    std::string taken = name;
    for (int i = 2; !m_taken.insert(Folded(taken)).second; ++i) taken = name + '_' + std::to_string(i);
    return taken;
  }

 private:
  static std::string Folded(std::string name) {
    for (char& c : name) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
    }
    return name;
  }
  std::unordered_set<std::string> m_taken;
};

}  // namespace kesp::ogr
