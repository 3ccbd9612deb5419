#pragma once
// load_table.h: what the services do, as lines of text and as JSON.  None of it can steer a terminal.

#include <optional>
#include <string>
#include <vector>

#include "values/json.h"
#include "values/load.h"

namespace klctl {

// The column that the lines are sorted by: texts and numbers of services ascending, those that grow with trouble
// descending.
enum class LoadOrder { kId, kName, kCpu, kMemory, kIn, kOut, kQueue, kOldest, kDrops };

// "cpu" and the like; nothing for another word.
std::optional<LoadOrder> loadOrderOf(const std::string& word);
// By the key that chooses it on a terminal.
std::optional<LoadOrder> loadOrderOf(char key);
std::vector<std::string> loadOrderWords();

// Sorts; services that are equal stay in the order of their numbers.
void sortLoad(std::vector<ServiceLoad>& services, LoadOrder order);

// A line with the sums, one with the titles, and one for each service, without ends of lines.  History is drawn with
// block characters where the terminal can show them, else with letters of ASCII; its highest is the highest of the
// service.
std::vector<std::string> loadLines(const SystemLoad& load, bool hasBlocks);

// True when the standard output may get block characters.
bool hasBlockCharacters();

// As many characters of a line as fit.
std::string cutLine(const std::string& line, std::size_t width);

// `time`: seconds since 1970.
Json loadJson(const SystemLoad& load, unsigned long long time);

}  // namespace klctl
