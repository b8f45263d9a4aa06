// Checks that the tool applies to what it is given before it acts: a described audio
// format that cannot be right (no rate, no channels, a block size that does not fit the
// channels) is refused with the cause in the user's terms rather than a generic code.
#pragma once

#include <string>

#include "inspect.h"
#include "ostra/kadefs.h"

namespace ostra::cli {

// S_OK when the samples of `facts` can be read as described; otherwise the kernel code
// for the refusal and, in `reason`, what is wrong with the file.
HRESULT checkReadableAudio(const FileFacts& facts, std::string& reason);

// The same as a report: prints the refusal for `file` and returns its status (1), or 0.
int refuseUnreadableAudio(const FileFacts& facts, const std::string& file);

}  // namespace ostra::cli
