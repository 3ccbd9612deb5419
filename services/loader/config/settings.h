#pragma once
// settings.h: a service's own section of the configuration, as the message that it is given at registration.

#include <vector>

#include "config/service_names.h"
#include "services/common/section.h"

namespace loader {

// Flattens a table whose keys are field ids, written as the service's code has them:
//
//     [service.settings]
//     0x08000007 = 1000                    # u32
//     0x20000001 = "eth0"                  # text
//     0xa0000002 = ["a", "b"]              # list of texts
//     0x28000003 = { 0x00000001 = true }   # a message inside
//     look_ticks = 500                     # a setting of the service's description
//
// A named setting keeps the bounds of the description and may have one of its words for a value; the members of messages
// inside have the names of its fields.
//
// The type bits of an id give the form of its value; addresses are texts in IPv6 notation, raw data are texts of
// hexadecimal digits.  A value that does not fit is a mistake of `section`.
std::vector<unsigned char> readSettings(common::Section& section, const toml::node& settings,
                                        ServiceNames names = {});

}  // namespace loader
