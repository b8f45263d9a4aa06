// Time-code labels as the tool reads and prints them, through the kernel's text forms.
#pragma once

#include <string>

#include "ostra/kasmpte.h"

namespace ostra::cli {

// "HH:MM:SS:FF" (';' before the frames in drop-frame).
std::string labelText(const _smpteval& label);
// Typed text to a label of `type`; false when the text holds no number or more than a label.
bool parseLabel(const std::string& text, DWORD type, _smpteval& label);

}  // namespace ostra::cli
