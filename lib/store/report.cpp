// The lines by which a store tells what failed.

#include "store/report.h"

#include <iostream>

namespace kl {

void reportStore(const char* text) { std::cout << text << std::endl; }

void reportStore(const char* text, unsigned int number) { std::cout << text << number << std::endl; }

}  // namespace kl
