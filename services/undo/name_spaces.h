#pragma once
// name_spaces.h: whose number a field's id is.

namespace undo {

inline constexpr unsigned int kNameSpaceMask = 0x00ff0000;
inline constexpr unsigned int kSystemNameSpace = 0x00ff0000;
inline constexpr unsigned int kLocalNameSpace = 0x00fd0000;  // this process's own; no message brings one

}  // namespace undo
