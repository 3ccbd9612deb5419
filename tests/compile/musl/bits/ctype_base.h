#pragma once
// Classes of characters as libstdc++ has them where the C library says nothing of its own.

namespace std {

struct ctype_base {
  using __to_type = const int*;
  using mask = unsigned short;
  static const mask upper = 1 << 0;
  static const mask lower = 1 << 1;
  static const mask digit = 1 << 2;
  static const mask xdigit = 1 << 3;
  static const mask space = 1 << 4;
  static const mask print = 1 << 5;
  static const mask cntrl = 1 << 6;
  static const mask punct = 1 << 7;
  static const mask blank = 1 << 8;
  static const mask alpha = upper | lower;
  static const mask alnum = alpha | digit;
  static const mask graph = alnum | punct;
};

}  // namespace std
