// Result codes of the kernel (facility 4, from 0xE000) and the error-handler family
// that turns them into localized messages.
#pragma once

#include "ostra/kadefs.h"

#define KA_FAIL_CODE(n) ((HRESULT)(0x8004E000u + (n)))
#define KA_WARN_CODE(n) ((HRESULT)(0x0004E000u + (n)))

// Codes the file, audio and image families return. Every code has a text.
#define KAERR_UNSUPPORTED_FORMAT KA_FAIL_CODE(0x000)  // unsupported media type / format refused
#define KAERR_DISK_FULL KA_FAIL_CODE(0x002)
#define KAERR_OPEN_FAILED KA_FAIL_CODE(0x007)          // file could not be opened
#define KAERR_READ_FAILED KA_FAIL_CODE(0x008)          // read failed or came back short
#define KAERR_WRITE_FAILED KA_FAIL_CODE(0x009)         // write failed
#define KAERR_NOT_FOUND KA_FAIL_CODE(0x00A)            // item, chunk or file not found
#define KAERR_CORRUPT_FILE KA_FAIL_CODE(0x00B)         // corrupted or unknown format
#define KAERR_CANCELLED KA_FAIL_CODE(0x00C)            // cancelled by the user
#define KAERR_BAD_NAME KA_FAIL_CODE(0x00D)
#define KAERR_UNSUPPORTED_FILE KA_FAIL_CODE(0x016)
#define KAERR_CDDA_FORMAT KA_FAIL_CODE(0x01C)
#define KAERR_TOO_MANY_FILES KA_FAIL_CODE(0x026)
#define KAERR_BIT_DEPTH KA_FAIL_CODE(0x02A)
#define KAERR_CHANNELS KA_FAIL_CODE(0x02B)
#define KAERR_FILE_EXISTS KA_FAIL_CODE(0x032)
#define KAERR_RIFF_TOO_LARGE KA_FAIL_CODE(0x03A)
#define KAERR_SHARING_VIOLATION KA_FAIL_CODE(0x05A)
#define KAERR_SAMPLE_RATE KA_FAIL_CODE(0x061)
#define KAERR_NO_RIFF KA_FAIL_CODE(0x080)
#define KAERR_NO_LIST KA_FAIL_CODE(0x081)
#define KAERR_ZERO_CHUNK KA_FAIL_CODE(0x082)
#define KAERR_BAD_CHUNK KA_FAIL_CODE(0x083)
#define KAERR_ALREADY_EXISTS KA_FAIL_CODE(0x170)
#define KAWARN_RECOVERED KA_WARN_CODE(0x000)  // some content was recovered
