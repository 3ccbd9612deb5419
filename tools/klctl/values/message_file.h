#pragma once
// message_file.h: messages that lie in files.
//
//     bare     one message, from the first byte to the last
//     framed   frames as they travel on sockets: a length of 4 bytes, little-endian, and so many bytes of message
//     store    the data file of a store: a length of 2 bytes that counts itself, a message, and what the slot has
//              left over; the index beside it (P.idx beside P.dat) has the slots that are in use

#include <string>
#include <vector>

namespace klctl {

enum class FileFormat { kGuess, kBare, kFramed, kStore };

struct FoundMessage {
  std::string title;  // its place or its entry: "entry 7, lifetime 3"
  std::vector<unsigned char> bytes;
};

struct MessageFile {
  std::vector<FoundMessage> messages;
  std::string fault;  // why the file holds more than these; empty when it does not
};

// Splits a file's bytes into messages.  `index` is the store's index, empty when there is none.
MessageFile splitMessages(const std::vector<unsigned char>& bytes, const std::vector<unsigned char>& index,
                          FileFormat format);

// Reads a file and splits it; "-" is the standard input.  Throws Failure(kUsage) when it cannot be read.
MessageFile readMessageFile(const std::string& name, FileFormat format);

}  // namespace klctl
