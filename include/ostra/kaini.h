// INI files in the classic syntax: [sections], key=value lines, ';' comment lines. Names
// are compared without regard to case; the first matching section and, in it, the first
// matching key win. Files in UTF-8 (with or without a byte-order mark), UTF-16LE or
// UTF-16BE with their marks, or the ANSI code page are read; a file keeps its encoding
// when written (an ANSI file that cannot hold a new value becomes UTF-8 with a mark) and
// new files are UTF-8. See docs/platform.md.
#pragma once

#include "ostra/kadefs.h"

// Copies the value (surrounding quotes removed) or, when the key is missing, the default
// (null: empty). With a null section, lists the section names, with a null key the key
// names of the section: each name zero-terminated and the list ended by a second zero.
// Returns the characters copied without the final terminator; a value cut short returns
// size - 1, a list cut short size - 2 (still doubly terminated).
OSTRA_API DWORD KaIni_GetString(const KAWCHAR* section, const KAWCHAR* key,
                                const KAWCHAR* defaultValue, KAWCHAR* buffer, DWORD size,
                                const KAWCHAR* file) noexcept;
// The value read as a decimal number (or hexadecimal after 0x), with an optional sign; the
// default when the key is missing or empty, 0 when the value does not start with a number.
OSTRA_API UINT KaIni_GetInt(const KAWCHAR* section, const KAWCHAR* key, INT defaultValue,
                            const KAWCHAR* file) noexcept;
OSTRA_API DWORD KaIni_GetSectionNames(KAWCHAR* buffer, DWORD size, const KAWCHAR* file) noexcept;
OSTRA_API DWORD KaIni_GetKeyNames(const KAWCHAR* section, KAWCHAR* buffer, DWORD size,
                                  const KAWCHAR* file) noexcept;
// Sets a key, creating the file and the section when needed. A null value deletes the key,
// a null key the whole section. Names with line breaks, a key with '=' or a section name
// with ']' are refused (E_INVALIDARG). The file is replaced atomically.
OSTRA_API HRESULT KaIni_WriteString(const KAWCHAR* section, const KAWCHAR* key,
                                    const KAWCHAR* value, const KAWCHAR* file) noexcept;
OSTRA_API HRESULT KaIni_DeleteKey(const KAWCHAR* section, const KAWCHAR* key,
                                  const KAWCHAR* file) noexcept;
OSTRA_API HRESULT KaIni_DeleteSection(const KAWCHAR* section, const KAWCHAR* file) noexcept;
