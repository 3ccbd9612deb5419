// Names for the dump.
//
// The values of the system fields are looked up in a cascade: a value that its field has no name for is
// looked up among those of the next field of the cascade, and so on.

#include "message/dump_names.h"

#include "kl/conventions.h"

namespace kl::container {
namespace {

constexpr unsigned int kWithoutType = 0x00FFFFFF;

struct Name {
  unsigned int number;
  const char* text;
};

#define KL_FIELD_NAME(constant) \
  { constant &kWithoutType, #constant }
#define KL_VALUE_NAME(constant) \
  { constant, #constant }

constexpr Name kFields[] = {
    KL_FIELD_NAME(SYS_TO),       KL_FIELD_NAME(SYS_FROM),     KL_FIELD_NAME(SYS_TYPE),
    KL_FIELD_NAME(SYS_STATUS),   KL_FIELD_NAME(SYS_REPLYEXP), KL_FIELD_NAME(SYS_REQID),
    KL_FIELD_NAME(SYS_CMD),      KL_FIELD_NAME(SYS_ERRNO),    KL_FIELD_NAME(SYS_ERRSTR),
    KL_FIELD_NAME(SYS_USER),     KL_FIELD_NAME(SYS_POLICY),   KL_FIELD_NAME(SYS_CTRL),
    KL_FIELD_NAME(SYS_RADDR),    KL_FIELD_NAME(SYS_CTRL_ARG), KL_FIELD_NAME(STD_ID),
    KL_FIELD_NAME(STD_OBJS),     KL_FIELD_NAME(STD_GETALLID), KL_FIELD_NAME(STD_GETALLNO),
    KL_FIELD_NAME(STD_NEXTID),   KL_FIELD_NAME(STD_UNDOID),   KL_FIELD_NAME(STD_DYNAMIC),
    KL_FIELD_NAME(STD_INACTIVE), KL_FIELD_NAME(STD_DESCR),    KL_FIELD_NAME(STD_DISABLED),
    KL_FIELD_NAME(STD_FINISHED), KL_FIELD_NAME(STD_DEAD),
};

constexpr Name kTypes[] = {KL_VALUE_NAME(TYPE_REQUEST), KL_VALUE_NAME(TYPE_REPLY)};
constexpr Name kStatuses[] = {KL_VALUE_NAME(STATUS_OK), KL_VALUE_NAME(STATUS_ERROR)};
constexpr Name kCommands[] = {
    KL_VALUE_NAME(CMD_NOOP),      KL_VALUE_NAME(CMD_GETPOLICIES), KL_VALUE_NAME(CMD_GETOBJ),
    KL_VALUE_NAME(CMD_SETOBJ),    KL_VALUE_NAME(CMD_GETALL),      KL_VALUE_NAME(CMD_ADDOBJ),
    KL_VALUE_NAME(CMD_REMOVEOBJ), KL_VALUE_NAME(CMD_MOVEOBJ),     KL_VALUE_NAME(CMD_NOTIFY),
    KL_VALUE_NAME(CMD_GET),       KL_VALUE_NAME(CMD_SET),         KL_VALUE_NAME(CMD_START),
    KL_VALUE_NAME(CMD_POLL),      KL_VALUE_NAME(CMD_CANCEL),      KL_VALUE_NAME(CMD_RESET),
};
constexpr Name kErrors[] = {
    KL_VALUE_NAME(ERROR_OK),      KL_VALUE_NAME(ERROR_UNKNOWN),       KL_VALUE_NAME(ERROR_BRKPATH),
    KL_VALUE_NAME(ERROR_NOTIMP),  KL_VALUE_NAME(ERROR_UNKNOWNID),     KL_VALUE_NAME(ERROR_MISSING),
    KL_VALUE_NAME(ERROR_FAILED),  KL_VALUE_NAME(ERROR_EXISTS),        KL_VALUE_NAME(ERROR_NOTALLOWED),
    KL_VALUE_NAME(ERROR_TOOBIG),  KL_VALUE_NAME(ERROR_UNKNOWNNEXTID), KL_VALUE_NAME(ERROR_BUSY),
    KL_VALUE_NAME(ERROR_TIMEOUT),
};

#undef KL_VALUE_NAME
#undef KL_FIELD_NAME

template <std::size_t n>
const char* find(const Name (&names)[n], unsigned int number) {
  for (const Name& name : names)
    if (name.number == number) return name.text;
  return nullptr;
}

const char* nameSpace(unsigned int id) {
  switch (id >> 16 & 0xFF) {
    case 0x00: return "global";
    case 0xFD: return "local";
    case 0xFE: return "std";
    case 0xFF: return "sys";
    default: return "ns";
  }
}

// Puts a text together without the C library's formatting, which a signal handler may not call.
class Text {
 public:
  explicit Text(char* at) : at_(at) {}

  Text& operator<<(const char* s) {
    while (*s != '\0') *at_++ = *s++;
    return end();
  }
  Text& number(unsigned int v, unsigned int base) {
    char digits[10];
    unsigned int n = 0;
    do {
      digits[n++] = "0123456789abcdef"[v % base];
      v /= base;
    } while (v != 0);
    while (n > 0) *at_++ = digits[--n];
    return end();
  }
  Text& hexByte(unsigned char v) { return number(v >> 4, 16).number(v & 15u, 16); }

 private:
  Text& end() {
    *at_ = '\0';
    return *this;
  }
  char* at_;
};

}  // namespace

const char* fieldName(unsigned int id, char (&room)[kNameBytes]) {
  if (const char* known = find(kFields, id & kWithoutType); known != nullptr) return known;
  (Text(room) << nameSpace(id) << "(").number(id & 0xFFFF, 10) << ")";
  return room;
}

// Kept on purpose: a value without a name in its own field's list is tried in the lists below it, so that
// a type of 0xfe0002 reads "CMD_GETOBJ".  Held by DumpValues.FallThroughFromListToList.
const char* valueName(unsigned int id, unsigned int value, char (&room)[kNameBytes]) {
  const char* known = nullptr;
  switch (id & kWithoutType) {
    case SYS_TYPE& kWithoutType:
      if ((known = find(kTypes, value)) != nullptr) return known;
      [[fallthrough]];
    case SYS_STATUS& kWithoutType:
      if ((known = find(kStatuses, value)) != nullptr) return known;
      [[fallthrough]];
    case SYS_CMD& kWithoutType:
      if ((known = find(kCommands, value)) != nullptr) return known;
      [[fallthrough]];
    case SYS_ERRNO& kWithoutType:
      if ((known = find(kErrors, value)) != nullptr) return known;
      [[fallthrough]];
    default: break;
  }
  Text text(room);
  const bool isNegative = value >> 31 != 0;
  text << (isNegative ? "-" : "");
  text.number(isNegative ? 0 - value : value, 10) << " 0x";
  text.number(value, 16) << " ";
  for (unsigned int shift = 32; shift > 0;) {
    shift -= 8;
    text.number(value >> shift & 0xFF, 10) << (shift > 0 ? "." : "");
  }
  return room;
}

const char* addressText(const unsigned char* bytes, char (&room)[kNameBytes]) {
  Text text(room);
  for (unsigned int i = 0; i < 16; ++i) (text << (i > 0 ? ":" : "")).hexByte(bytes[i]);
  return room;
}

}  // namespace kl::container
