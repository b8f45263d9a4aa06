// AIFF and AIFC files: the big-endian IFF chunk layer (iff_*), the 80-bit sample-rate
// conversions and sample writers (aiff_*), and the AIFF writer (KaInitializeAiff,
// KaInsertAiffHeader). Every function works on the caller's open file handle at its
// current position unless it says otherwise. See docs/aiff.md.
#pragma once

#include "ostra/kaaudio.h"
#include "ostra/kadefs.h"

// A chunk header in host order. Identifiers are the 32-bit value the four characters
// form when read big-endian ('FORM' is 0x464F524D).
struct IFFCHUNKHDR {
  DWORD ckID;
  DWORD ckSize;
};

constexpr DWORD KaIffID(char a, char b, char c, char d) noexcept {
  return (DWORD(BYTE(a)) << 24) | (DWORD(BYTE(b)) << 16) | (DWORD(BYTE(c)) << 8) | DWORD(BYTE(d));
}

inline constexpr DWORD IFFID_FORM = KaIffID('F', 'O', 'R', 'M');
inline constexpr DWORD IFFID_AIFF = KaIffID('A', 'I', 'F', 'F');
inline constexpr DWORD IFFID_AIFC = KaIffID('A', 'I', 'F', 'C');
inline constexpr DWORD IFFID_COMM = KaIffID('C', 'O', 'M', 'M');
inline constexpr DWORD IFFID_SSND = KaIffID('S', 'S', 'N', 'D');
inline constexpr DWORD IFFID_MARK = KaIffID('M', 'A', 'R', 'K');
inline constexpr DWORD IFFID_FVER = KaIffID('F', 'V', 'E', 'R');
inline constexpr DWORD IFFID_NONE = KaIffID('N', 'O', 'N', 'E');
inline constexpr DWORD IFFID_sowt = KaIffID('s', 'o', 'w', 't');
inline constexpr DWORD IFFID_twos = KaIffID('t', 'w', 'o', 's');
// AIFC floating-point compression types: IEEE samples, big-endian.
inline constexpr DWORD IFFID_fl32 = KaIffID('f', 'l', '3', '2');
inline constexpr DWORD IFFID_FL32 = KaIffID('F', 'L', '3', '2');
inline constexpr DWORD IFFID_fl64 = KaIffID('f', 'l', '6', '4');
inline constexpr DWORD IFFID_FL64 = KaIffID('F', 'L', '6', '4');

// ---------------------------------------------------------------- chunk layer
// Reads 8 bytes and swaps both words; a short read gives KAERR_READ_FAILED.
OSTRA_API HRESULT iff_ReadChunkHdr(KAHFILE file, IFFCHUNKHDR* header) noexcept;
// Reads a chunk header that must be FORM (else KAERR_CORRUPT_FILE), then the form type.
OSTRA_API HRESULT iff_ReadFormType(KAHFILE file, IFFCHUNKHDR* header, DWORD* formType) noexcept;
OSTRA_API HRESULT iff_ReadDWORD(KAHFILE file, DWORD* value) noexcept;
OSTRA_API HRESULT iff_ReadWORD(KAHFILE file, WORD* value) noexcept;
OSTRA_API HRESULT iff_WriteDWORD(KAHFILE file, DWORD value) noexcept;
OSTRA_API HRESULT iff_WriteWORD(KAHFILE file, WORD value) noexcept;
// Swap the bytes of `count` consecutive values in place (one value by default).
OSTRA_API void iff_ByteSwap16(WORD* values, DWORD count = 1) noexcept;
OSTRA_API void iff_ByteSwap32(DWORD* values, DWORD count = 1) noexcept;
// Writes FORM, the form size and the form type (12 bytes).
OSTRA_API HRESULT iff_WriteFileID(KAHFILE file, DWORD formType, DWORD formSize) noexcept;
// Writes the header's identifier and size big-endian (8 bytes).
OSTRA_API HRESULT iff_WriteChunk(KAHFILE file, const IFFCHUNKHDR* header) noexcept;
// Walks chunks from the current position until one has the identifier. With a budget,
// a budget below 8 ends the walk with KAERR_NOT_FOUND (the budget is stored); a chunk
// that claims more than the budget takes it to 0. On a match *size is the body size,
// *remaining the budget after the header, and the handle is at the body. Without a
// budget the walk ends at end of file with KAERR_READ_FAILED.
OSTRA_API HRESULT iff_FindChunkHeader(KAHFILE file, DWORD id, DWORD* size,
                                      DWORD* remaining) noexcept;
// Skips a body of `size` bytes and its pad byte; returns the bytes skipped (even).
OSTRA_API DWORD iff_SkipChunk(KAHFILE file, DWORD size) noexcept;
// Seeks to 0, checks the FORM header and searches the form's chunks (budget = form size
// - 4). On success the handle is at the body; *remaining (optional) is as above.
OSTRA_API HRESULT iff_FindChunkFromStart(KAHFILE file, DWORD id, DWORD* size,
                                         DWORD* remaining = nullptr) noexcept;
// As iff_FindChunkFromStart, but leaves the handle at the chunk's 8-byte header, whose
// absolute offset goes to *headerOffset (optional).
OSTRA_API HRESULT iff_SeekChunkHeader(KAHFILE file, DWORD id, DWORD* size,
                                      INT64* headerOffset = nullptr) noexcept;
// Removes the first top-level chunk with the identifier (header, body and pad), moves
// the rest of the file down, truncates it and lowers the FORM size. *removed (optional)
// gets the bytes removed. The position afterwards is unspecified.
OSTRA_API HRESULT iff_DeleteChunk(KAHFILE file, DWORD id, DWORD* removed = nullptr) noexcept;
// Looks up marker `markerId` in the MARK chunk: *position gets its sample frame, `name`
// (optional, `nameCapacity` bytes) its zero-terminated name, cut to fit. KAERR_NOT_FOUND
// when the file has no MARK chunk or no such marker; KAERR_CORRUPT_FILE when the chunk
// is malformed.
OSTRA_API HRESULT iff_FindMarker(KAHFILE file, WORD markerId, DWORD* position, char* name = nullptr,
                                 DWORD nameCapacity = 0) noexcept;

// ---------------------------------------------------------------- AIFF recognition
// TRUE when the file (read from offset 0) is FORM/AIFF, or FORM/AIFC whose COMM
// compression is NONE, twos (both big-endian) or sowt (little-endian). On TRUE the handle
// is at offset 12, the first chunk; *formSize gets the FORM size, *formType AIFF or
// AIFC, *compression the compression type (NONE for AIFF). All outputs are optional.
OSTRA_API BOOL iff_IsAIFFFile(KAHFILE file, DWORD* formSize) noexcept;
OSTRA_API BOOL iff_IsAIFFFileEx(KAHFILE file, DWORD* formSize, DWORD* formType = nullptr,
                                DWORD* compression = nullptr) noexcept;
// Fills the 18-byte format record of an AIFF or AIFC file: tag 0xFE01 for 8-bit samples,
// 1 for AIFC/sowt, else 0xFE02; block align = bits / 8 x channels (at least 1). The
// sample data: *dataOffset gets the absolute offset of the first sample byte (past the
// SSND offset/block-size words and the offset they state), *dataSize its length, cut to
// what the file really holds, *frames the COMM frame count. The handle is left at the
// first sample byte. Outputs other than `wfx` are optional.
OSTRA_API HRESULT iff_GetAIFFWfx(KAHFILE file, WAVEFORMATEX* wfx, INT64* dataOffset = nullptr,
                                 DWORD* dataSize = nullptr, DWORD* frames = nullptr) noexcept;

// The floating-point AIFC files that iff_IsAIFFFileEx and iff_GetAIFFWfx turn down:
// FORM AIFC whose COMM names 'fl32', 'FL32', 'fl64' or 'FL64'. The format comes back as
// WAVE_FORMAT_IEEE_FLOAT with 32 or 64 bits (from the type, whatever COMM's sample size
// says); the samples themselves are big-endian, so a reader swaps each one. Offsets,
// sizes and the position afterwards as iff_GetAIFFWfx; *compression gets the type. Not
// an AIFC file: KAERR_CORRUPT_FILE; any other compression: KAERR_UNSUPPORTED_FORMAT.
OSTRA_API HRESULT iff_GetAIFCFloatWfx(KAHFILE file, WAVEFORMATEX* wfx, INT64* dataOffset = nullptr,
                                      DWORD* dataSize = nullptr, DWORD* frames = nullptr,
                                      DWORD* compression = nullptr) noexcept;

// ---------------------------------------------------------------- 80-bit sample rates
// Sample rate to the 80-bit extended form: exponent word and four mantissa words, most
// significant first, all in host order.
OSTRA_API void aiff_CreateRate(DWORD rate, WORD* exponent, WORD mantissa[4]) noexcept;
// The reverse; a negative value reads as 44100 and results are cut at the first power
// of two above 96000 (never more than 192000).
OSTRA_API DWORD aiff_ConvertRate(WORD exponent, const WORD mantissa[4]) noexcept;

// Write `count` 16- or 32-bit sample words with their bytes swapped (the caller's buffer
// is not changed). *written (optional) gets the bytes written.
OSTRA_API HRESULT aiff_WriteByteSwap16(KAHFILE file, const WORD* samples, DWORD count,
                                       DWORD* written = nullptr) noexcept;
OSTRA_API HRESULT aiff_WriteByteSwap32(KAHFILE file, const DWORD* samples, DWORD count,
                                       DWORD* written = nullptr) noexcept;

// ---------------------------------------------------------------- AIFF writer
// Length of the header KaInitializeAiff writes: FORM/AIFF, an 18-byte COMM chunk and the
// SSND header with its offset and block-size words. Samples start here.
#define KA_AIFF_HEADER_LENGTH 54u

// Creates an AIFF file ready for big-endian samples. Accepted formats: tag 0xFE02 with
// 16, 24 or 32 bits, tag 0xFE01 with 8 bits (signed), 1 to 65535 channels, rate 1 or
// more, block align = bits / 8 x channels, no extra bytes; anything else gives
// KAERR_UNSUPPORTED_FORMAT. Open modes as KaInitializeWav (CREATE_ALWAYS, CREATE_NEW,
// ...). The file is closed on every path; an open failure gives KAERR_OPEN_FAILED.
OSTRA_API HRESULT KaInitializeAiff(const KAWCHAR* path, const WAVEFORMATEX* wfx,
                                   DWORD openMode) noexcept;
// From a record of type KASAMPLE_MAC16, MAC24, MAC32 or PCM8SIGNED (channel mask ignored).
OSTRA_API HRESULT KaInitializeAiff(const KAWCHAR* path, const _kawaveformat* wfx,
                                   DWORD openMode) noexcept;
// Rewrites the header at offset 0 for `dataLength` sample bytes at offset 54 (frames =
// dataLength / block align), appends the pad byte when the length is odd and the file
// ends right after the samples, and restores the position. The file must be at least 54
// bytes long (else KAERR_BAD_CHUNK); a FORM size past 32 bits gives KAERR_RIFF_TOO_LARGE.
OSTRA_API HRESULT KaInsertAiffHeader(KAHFILE file, const WAVEFORMATEX* wfx,
                                     DWORD dataLength) noexcept;
OSTRA_API HRESULT KaInsertAiffHeader(KAHFILE file, const _kawaveformat* wfx,
                                     DWORD dataLength) noexcept;

// ---------------------------------------------------------------- AIFC float writer
// Length of the header KaInitializeAifcFloat writes: FORM/AIFC, FVER, a 44-byte COMM
// ('fl32' or 'fl64' with its name) and the SSND header. Samples start here.
#define KA_AIFC_FLOAT_HEADER_LENGTH 92u

// Creates an AIFC file ready for big-endian IEEE samples: tag WAVE_FORMAT_IEEE_FLOAT
// with 32 bits ('fl32') or 64 bits ('fl64'); channels, rates, block align, open modes
// and results as KaInitializeAiff.
OSTRA_API HRESULT KaInitializeAifcFloat(const KAWCHAR* path, const WAVEFORMATEX* wfx,
                                        DWORD openMode) noexcept;
// Rewrites that header for `dataLength` sample bytes at offset 92, as KaInsertAiffHeader
// does for its own (pad byte, restored position; a file shorter than the header gives
// KAERR_BAD_CHUNK).
OSTRA_API HRESULT KaInsertAifcFloatHeader(KAHFILE file, const WAVEFORMATEX* wfx,
                                          DWORD dataLength) noexcept;
