#pragma once
// similar.h: the word that was probably meant.

#include <string>
#include <vector>

namespace klctl {

// The candidate that differs least from the word: by at most a third of its letters, or by one; empty when there is none.
// A letter more, less, or another one is one difference, and so are two neighbours in the wrong order.
std::string closest(const std::string& word, const std::vector<std::string>& candidates);

// "; did you mean 'netif'?" of the closest candidate, or nothing.
std::string didYouMean(const std::string& word, const std::vector<std::string>& candidates);

}  // namespace klctl
