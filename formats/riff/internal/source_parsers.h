// The wave set-up and repair, summary-list, display-list and format-detection functions
// over a ByteSource. Each exported function of kawave.h with a KAHFILE wraps its handle in
// a FileSource and calls the one here of the same meaning, so a file, a memory image and
// fuzz input take the same code; results are those of the exported functions.
#pragma once

#include "formats/riff/internal/byte_source.h"
#include "ostra/kawave.h"

namespace ostra::riff {

HRESULT insertWavHeader(ByteSource& s, const WAVEFORMATEX* wfx, DWORD dataLength,
                        DWORD headerLength);
HRESULT insertW64Header(ByteSource& s, const WAVEFORMATEX* wfx, UINT64 dataLength,
                        UINT64 headerLength);
HRESULT fixTrashedWav(ByteSource& s, const WAVEFORMATEX* wfx, DWORD maxHeaderLength);
HRESULT fixTrashedW64(ByteSource& s, const WAVEFORMATEX* wfx, UINT64 maxHeaderLength);

HRESULT summarySave(ByteSource& s, const _summarylisttag* list, DWORD* written);
HRESULT summarySaveUnfo(ByteSource& s, const _summarylisttag* list, DWORD* written);
HRESULT summaryLoad(ByteSource& s, _summarylisttag* list, const DWORD* remaining);
HRESULT summaryLoadUnfo(ByteSource& s, _summarylisttag* list, const DWORD* remaining);
HRESULT summaryGetString(ByteSource& s, DWORD id, KAWCHAR* buffer, DWORD bufferLength,
                         DWORD* remaining);

HRESULT displistLoad(ByteSource& s, _displisttag* list, DWORD* remaining);
HRESULT displistSave(ByteSource& s, const _displisttag* list, DWORD* written);
HRESULT displist64Load(ByteSource& s, _displisttag* list, INT64* remaining);
HRESULT displist64Save(ByteSource& s, const _displisttag* list, UINT64* written);

// The header repair (KaPlanWavRepair / KaApplyWavRepair) over any source.
HRESULT planWavRepair(ByteSource& s, tKAWAVREPAIR* plan) noexcept;
HRESULT applyWavRepair(ByteSource& s, const tKAWAVREPAIR* plan) noexcept;

namespace filewfx {
HRESULT getFileWfx(ByteSource& s, _kawaveformat* wfx, DWORD bufferSize);
HRESULT setFileWfx(ByteSource& s, const _kawaveformat* wfx);
HRESULT getFileAudioData(ByteSource& s, tKAAUDIODATA* data);
HRESULT getFileChunks(ByteSource& s, tKACHUNKINFO* chunks, DWORD capacity, DWORD* count,
                      DWORD* container);
}  // namespace filewfx

}  // namespace ostra::riff
