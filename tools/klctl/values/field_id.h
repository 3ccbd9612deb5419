#pragma once
// field_id.h: field ids as a user writes and reads them, in the words of descriptions.

#include "services/describe/field_id.h"

namespace klctl {

using describe::elementType;
using describe::fieldIdText;
using describe::FieldType;
using describe::isArray;
using describe::kArrayBit;
using describe::kTypelessId;
using describe::kTypeMask;
using describe::parseFieldId;
using describe::parseNumber;
using describe::typeWord;
using enum describe::FieldType;

}  // namespace klctl
