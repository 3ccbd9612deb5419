#pragma once
// rights_words.h: policy bits as people read them.

#include <string>

namespace klctl {

// The words that the loader's configuration has for rights, with blanks between them; bits without a word as a number,
// "none" without a bit.
std::string rightsText(unsigned int bits);

// The same in a sentence: "read" (64), no right (0), a right that only root has.
std::string rightsPhrase(unsigned int bits);

}  // namespace klctl
