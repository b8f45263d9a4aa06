// The built-in tables of the error handler: reason codes, context numbers and the
// mapping of system and common-dialog error numbers. The texts live in
// resources/strings/<language>/errors.txt.
#include "kernel/internal/errors.h"
#include "ostra/kaerror.h"

namespace ostra::kernel {

const HRESULT kReasonCodes[] = {
    // Standard codes.
    E_FAIL,
    E_UNEXPECTED,
    E_INVALIDARG,
    E_POINTER,
    E_NOTIMPL,
    E_OUTOFMEMORY,
    E_HANDLE,
    E_NOINTERFACE,
    E_ACCESSDENIED,
    REGDB_E_CLASSNOTREG,
    // Warnings.
    KA_WARN_CODE(0x000),
    KA_WARN_CODE(0x003),
    KA_WARN_CODE(0x005),
    KA_WARN_CODE(0x006),
    KA_WARN_CODE(0x007),
    KA_WARN_CODE(0x008),
    KA_WARN_CODE(0x009),
    KA_WARN_CODE(0x00A),
    KA_WARN_CODE(0x00B),
    KA_WARN_CODE(0x00C),
    KA_WARN_CODE(0x00E),
    KA_WARN_CODE(0x010),
    KA_WARN_CODE(0x015),
    KA_WARN_CODE(0x018),
    KA_WARN_CODE(0x019),
    // Kernel failures.
    KA_FAIL_CODE(0x000),
    KA_FAIL_CODE(0x001),
    KA_FAIL_CODE(0x002),
    KA_FAIL_CODE(0x003),
    KA_FAIL_CODE(0x004),
    KA_FAIL_CODE(0x005),
    KA_FAIL_CODE(0x006),
    KA_FAIL_CODE(0x007),
    KA_FAIL_CODE(0x008),
    KA_FAIL_CODE(0x009),
    KA_FAIL_CODE(0x00A),
    KA_FAIL_CODE(0x00B),
    KA_FAIL_CODE(0x00C),
    KA_FAIL_CODE(0x00D),
    KA_FAIL_CODE(0x00E),
    KA_FAIL_CODE(0x00F),
    KA_FAIL_CODE(0x010),
    KA_FAIL_CODE(0x011),
    KA_FAIL_CODE(0x012),
    KA_FAIL_CODE(0x015),
    KA_FAIL_CODE(0x016),
    KA_FAIL_CODE(0x017),
    KA_FAIL_CODE(0x018),
    KA_FAIL_CODE(0x019),
    KA_FAIL_CODE(0x01A),
    KA_FAIL_CODE(0x01B),
    KA_FAIL_CODE(0x01C),
    KA_FAIL_CODE(0x01D),
    KA_FAIL_CODE(0x01E),
    KA_FAIL_CODE(0x01F),
    KA_FAIL_CODE(0x020),
    KA_FAIL_CODE(0x023),
    KA_FAIL_CODE(0x024),
    KA_FAIL_CODE(0x025),
    KA_FAIL_CODE(0x026),
    KA_FAIL_CODE(0x028),
    KA_FAIL_CODE(0x02A),
    KA_FAIL_CODE(0x02B),
    KA_FAIL_CODE(0x02E),
    KA_FAIL_CODE(0x02F),
    KA_FAIL_CODE(0x030),
    KA_FAIL_CODE(0x031),
    KA_FAIL_CODE(0x032),
    KA_FAIL_CODE(0x033),
    KA_FAIL_CODE(0x034),
    KA_FAIL_CODE(0x035),
    KA_FAIL_CODE(0x036),
    KA_FAIL_CODE(0x037),
    KA_FAIL_CODE(0x038),
    KA_FAIL_CODE(0x039),
    KA_FAIL_CODE(0x03A),
    KA_FAIL_CODE(0x03B),
    KA_FAIL_CODE(0x03C),
    KA_FAIL_CODE(0x03D),
    KA_FAIL_CODE(0x03E),
    KA_FAIL_CODE(0x045),
    KA_FAIL_CODE(0x047),
    KA_FAIL_CODE(0x050),
    KA_FAIL_CODE(0x051),
    KA_FAIL_CODE(0x054),
    KA_FAIL_CODE(0x05A),
    KA_FAIL_CODE(0x05B),
    KA_FAIL_CODE(0x05D),
    KA_FAIL_CODE(0x05E),
    KA_FAIL_CODE(0x05F),
    KA_FAIL_CODE(0x061),
    KA_FAIL_CODE(0x080),
    KA_FAIL_CODE(0x081),
    KA_FAIL_CODE(0x082),
    KA_FAIL_CODE(0x083),
    KA_FAIL_CODE(0x084),
    KA_FAIL_CODE(0x087),
    KA_FAIL_CODE(0x089),
    KA_FAIL_CODE(0x08A),
    KA_FAIL_CODE(0x0A0),
    KA_FAIL_CODE(0x0A1),
    KA_FAIL_CODE(0x0A2),
    KA_FAIL_CODE(0x0A3),
    KA_FAIL_CODE(0x0A5),
    KA_FAIL_CODE(0x0A6),
    KA_FAIL_CODE(0x0A8),
    KA_FAIL_CODE(0x0A9),
    KA_FAIL_CODE(0x0AB),
    KA_FAIL_CODE(0x0AC),
    KA_FAIL_CODE(0x0AE),
    KA_FAIL_CODE(0x0AF),
    KA_FAIL_CODE(0x0B4),
    KA_FAIL_CODE(0x0B5),
    KA_FAIL_CODE(0x0B6),
    KA_FAIL_CODE(0x0C2),
    KA_FAIL_CODE(0x0C5),
    KA_FAIL_CODE(0x0C9),
    KA_FAIL_CODE(0x0D4),
    KA_FAIL_CODE(0x0EC),
    KA_FAIL_CODE(0x0ED),
    KA_FAIL_CODE(0x0EE),
    KA_FAIL_CODE(0x0EF),
    KA_FAIL_CODE(0x109),
    KA_FAIL_CODE(0x15F),
    KA_FAIL_CODE(0x161),
    KA_FAIL_CODE(0x162),
    KA_FAIL_CODE(0x163),
    KA_FAIL_CODE(0x164),
    KA_FAIL_CODE(0x165),
    KA_FAIL_CODE(0x166),
    KA_FAIL_CODE(0x16D),
    KA_FAIL_CODE(0x16E),
    KA_FAIL_CODE(0x16F),
    KA_FAIL_CODE(0x170),
    KA_FAIL_CODE(0x171),
    KA_FAIL_CODE(0x172),
    KA_FAIL_CODE(0x173),
    KA_FAIL_CODE(0x174),
    KA_FAIL_CODE(0x186),
    KA_FAIL_CODE(0x189),
    KA_FAIL_CODE(0x18A),
    KA_FAIL_CODE(0x190),
    KA_FAIL_CODE(0x191),
    KA_FAIL_CODE(0x192),
    KA_FAIL_CODE(0x193),
    KA_FAIL_CODE(0x194),
    KA_FAIL_CODE(0x195),
    // Storage codes.
    HRESULT(0x80030005u),
    HRESULT(0x80030009u),
    HRESULT(0x8003001Du),
    HRESULT(0x80030070u),
    HRESULT(0x80030103u),
    // Device codes.
    HRESULT(0x80040037u),
    HRESULT(0x80040964u),
    HRESULT(0x800404B0u),
    HRESULT(0x800404E0u),
    // Media-codec codes.
    HRESULT(0xC00D002Bu),
    HRESULT(0xC00D0BC2u),
    HRESULT(0xC00D0BC3u),
    HRESULT(0xC00D0BC4u),
    HRESULT(0xC00D0BC5u),
    HRESULT(0xC00D0BC6u),
    HRESULT(0xC00D0BCFu),
    // Reported by readers at the end of a stream.
    HRESULT(0x800A0026u),
};
const size_t kReasonCount = sizeof kReasonCodes / sizeof kReasonCodes[0];

// 0 to 0x39 without 0x35, which is not used.
const DWORD kContextNumbers[] = {
    0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E,
    0x0F, 0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B, 0x1C, 0x1D,
    0x1E, 0x1F, 0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27, 0x28, 0x29, 0x2A, 0x2B, 0x2C,
    0x2D, 0x2E, 0x2F, 0x30, 0x31, 0x32, 0x33, 0x34, 0x36, 0x37, 0x38, 0x39,
};
const size_t kContextCount = sizeof kContextNumbers / sizeof kContextNumbers[0];

// Windows system error numbers, searched in order. The numbers that map to E_FAIL are
// listed too so that the table says which ones were considered; an unlisted number
// gives E_FAIL as well.
const SystemErrorPair kWin32Errors[] = {
    {0, 0, S_OK},
    {1, 1, E_INVALIDARG},     // invalid function
    {2, 3, KAERR_NOT_FOUND},  // file, path not found
    {4, 4, KAERR_TOO_MANY_FILES},
    {5, 5, E_ACCESSDENIED},
    {6, 6, E_HANDLE},
    {7, 13, E_FAIL},
    {14, 14, E_OUTOFMEMORY},
    {15, 15, KAERR_INVALID_DRIVE},
    {16, 31, E_FAIL},
    {32, 32, KAERR_SHARING_VIOLATION},
    {33, 38, E_FAIL},
    {39, 39, KAERR_DISK_FULL},  // handle disk full
    {50, 72, E_FAIL},
    {80, 80, KAERR_FILE_EXISTS},
    {82, 83, E_FAIL},
    {84, 84, E_OUTOFMEMORY},  // out of structures
    {85, 89, E_FAIL},
    {100, 109, E_FAIL},
    {110, 110, KAERR_OPEN_FAILED},
    {111, 111, E_FAIL},
    {112, 112, KAERR_DISK_FULL},
    {113, 119, E_FAIL},
    {120, 120, E_NOTIMPL},  // call not implemented
    {121, 122, E_FAIL},
    {123, 123, KAERR_BAD_NAME},
    {124, 125, E_FAIL},
    {126, 127, KAERR_NOT_FOUND},  // module, procedure not found
    {128, 169, E_FAIL},
    {170, 170, KAERR_BUSY},
    {171, 174, E_FAIL},
    {180, 182, E_FAIL},
    {183, 183, KAERR_ALREADY_EXISTS},
    {184, 299, E_FAIL},
    {317, 317, E_FAIL},
    {487, 487, E_FAIL},
    {534, 536, E_FAIL},
};
const size_t kWin32ErrorCount = sizeof kWin32Errors / sizeof kWin32Errors[0];

const SystemErrorPair kCommDlgErrors[] = {
    {0x0000, 0x0000, S_OK},
    {0x0001, 0x0001, E_INVALIDARG},            // structure size
    {0x0002, 0x0002, E_OUTOFMEMORY},           // initialisation
    {0x0003, 0x0004, E_INVALIDARG},            // no template, no instance
    {0x0005, 0x0005, E_OUTOFMEMORY},           // string load
    {0x0006, 0x0006, KAERR_RESOURCE_MISSING},  // resource not found
    {0x0007, 0x000A, E_OUTOFMEMORY},           // resource load and lock, memory
    {0x000B, 0x000B, E_INVALIDARG},            // no hook
    {0x3001, 0x3001, E_OUTOFMEMORY},           // subclassing
    {0x3002, 0x3002, KAERR_BAD_NAME},          // invalid file name
    {0x3003, 0x3003, E_INVALIDARG},            // buffer too small
    {0x4001, 0x4001, E_INVALIDARG},            // zero-length buffer
    {0xFFFF, 0xFFFF, E_INVALIDARG},            // dialog failure
};
const size_t kCommDlgErrorCount = sizeof kCommDlgErrors / sizeof kCommDlgErrors[0];

}  // namespace ostra::kernel
