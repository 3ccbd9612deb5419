#pragma once
// units.h: numbers with the units of descriptions.

#include <optional>
#include <string>

namespace klctl {

// A number as people read it: "1500 bytes"; of the unit "1/100" "42/100", of "10 ms" "500 x 10 ms".
std::string withUnit(const std::string& number, const std::string& unit);

// How long something waits: "4.2 s", "35 ms", "3 min".
std::string ageText(unsigned long long milliseconds);

// True when the name of a field says its unit already: rx_bytes, in bytes.
bool saysUnit(const std::string& name, const std::string& unit);

// Reads a text of withUnit, or a number in another unit of the same kind, as a number of `unit`:
//
//     time    ns us ms s min h d          "90min" is 5400 of the unit "s", and "5s" 500 of "10 ms"
//     memory  bytes B KiB MiB GiB         "2KiB" is 2048 of the unit "bytes"
//
// Nothing when the text is none of these, when the result is no whole number, and when it is above `most`.
std::optional<unsigned long long> parseQuantity(const std::string& text, const std::string& unit,
                                                unsigned long long most);

}  // namespace klctl
