// The items of LIST INFO and LIST UNFO chunks as bytes: read without re-encoding, so that
// an item the user did not ask to change is written back exactly as it was, and decoded
// for display the way other programs wrote them (INFO text is UTF-8 when it is valid
// UTF-8, as ffmpeg and libsndfile write it, and in the ANSI code page otherwise; UNFO
// text is UTF-16).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ostra/kadefs.h"

namespace ostra::cli {

struct InfoRecord {
  DWORD id = 0;     // as stored (little-endian four characters)
  std::string raw;  // the item's data bytes as stored, pad byte excluded
};

bool validUtf8(std::string_view s);
// The sub-chunks of a list body that follows the list type; a record cut short by the end
// of the body is dropped.
std::vector<InfoRecord> parseListItems(const uint8_t* body, size_t size);
// The text of an item, up to its first terminator, as UTF-8.
std::string decodeItem(const std::string& raw, bool wide);
// The bytes of a new item (with its terminator): INFO text in `codePage`, UNFO text in
// UTF-16. False when a character has no form in the code page; `bad` names it.
bool encodeItem(const std::string& utf8, bool wide, UINT codePage, std::string& raw,
                std::string& bad);
// A whole LIST chunk (header, list type, items with their pad bytes).
std::string buildList(DWORD listType, const std::vector<InfoRecord>& items);
// An id made of four printable characters, or 0.
DWORD infoId(const std::string& text);

}  // namespace ostra::cli
