#pragma once
// std_string.h: takes the members of std::string from the standard library.
//
// g++'s library has them compiled, but says so only to C++17 and older: as C++20 each library would carry its own.  Every
// source of a build that may be shipped begins with this header (kl_component in cmake/KlTargets.cmake).

#include <string>

#ifdef __GLIBCXX__
extern template class std::basic_string<char>;
#endif
