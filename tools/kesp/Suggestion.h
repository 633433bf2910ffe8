// "Did you mean": the word that was likely meant by a mistyped one.
#pragma once
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kesp::tool {

// How many single letters were mistyped, left out, put in too much or swapped with their neighbour, at least.
std::size_t Mistypings(std::string_view typed, std::string_view meant);

// The candidate with the fewest mistypings, of which one in three letters is the most. The first one where two are
// alike.
std::optional<std::string> Closest(std::string_view typed, const std::vector<std::string>& candidates);

}  // namespace kesp::tool
