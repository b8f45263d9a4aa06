// The bundled libsndfile and FFmpeg plug-ins, in process, through the reader interface:
// the input is written to a scratch file (both libraries open paths themselves), each
// reader opens it, and whatever it offers is read: formats and durations, audio at the
// start, in the middle and past the end, the first and a later video frame in the
// reader's own layout and as a bitmap, and the metadata keys. Nothing may crash, hang or
// read out of bounds whatever the bytes.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ostra/kafileio.h"
#include "ostra/kafiomgr.h"
#include "ostra/kamodule.h"
#include "ostra/kaplatform.h"
#include "ostra/kayuv.h"

#ifndef OSTRA_PLUGIN_DIR
#error "OSTRA_PLUGIN_DIR names the folder of the built plug-in modules"
#endif

namespace {

// The reader classes, released when the program ends (the modules stay loaded).
struct Readers {
  std::vector<IKaReadFileClass*> classes;
  ~Readers() {
    for (IKaReadFileClass* c : classes) c->Release();
  }
};

std::vector<IKaReadFileClass*> loadReaders() {
  std::vector<IKaReadFileClass*> out;
  for (const char* name : {"sndfile.so", "media.so"}) {
    const std::string path = std::string(OSTRA_PLUGIN_DIR) + "/" + name;
    HMODULE m = nullptr;
    if (FAILED(KaModule_LoadUtf8(path.c_str(), &m))) continue;
    auto entry =
        reinterpret_cast<KAFIO_PLUGIN_ENTRY>(KaModule_GetSymbol(m, KAFIO_PLUGIN_ENTRY_NAME));
    IKaFioPluginFactory* f = nullptr;
    if (!entry || FAILED(entry(KAFIO_PLUGIN_API_VERSION, &f))) continue;
    KAFIOPLUGININFO info{};
    info.size = sizeof info;
    IKaReadFileClass* rc = nullptr;
    if (SUCCEEDED(f->GetInfo(&info)) &&
        SUCCEEDED(
            f->GetClassObject(info.reader, IID_IKaReadFileClass, reinterpret_cast<void**>(&rc))))
      out.push_back(rc);
    f->Release();
  }
  if (out.size() != 2) {
    std::fprintf(stderr, "plug-ins missing under %s\n", OSTRA_PLUGIN_DIR);
    std::abort();
  }
  return out;
}

void readAudio(IKaReadAudioStream* a) {
  _kawaveformat wfx{};
  UINT64 frames = 0;
  if (FAILED(a->GetFormat(&wfx, sizeof wfx)) || FAILED(a->GetFrameCount(&frames))) return;
  if (!wfx.nBlockAlign) return;
  std::vector<uint8_t> buf(size_t(wfx.nBlockAlign) * 4096);
  for (const UINT64 at : {UINT64(0), frames / 2, frames + 10, UINT64(1)}) {
    DWORD got = 0;
    if (SUCCEEDED(a->Read(at, buf.data(), 4096, &got)) && got > 4096) std::abort();
  }
}

void readVideo(IKaReadVideoStream* v) {
  BITMAPINFOHEADER h{};
  DWORD num = 0, den = 0;
  UINT64 frames = 0;
  if (FAILED(v->GetFrameFormat(&h, &num, &den)) || FAILED(v->GetFrameCount(&frames))) return;
  const LONG height = h.biHeight < 0 ? -h.biHeight : h.biHeight;
  if (h.biWidth <= 0 || h.biWidth > 4096 || height <= 0 || height > 4096) return;
  std::vector<uint8_t> buf;
  BITMAPINFOHEADER bgra = h;
  bgra.biCompression = 0;
  bgra.biBitCount = 32;
  for (const BITMAPINFOHEADER& want : {h, bgra}) {
    const DWORD bytes = want.biCompression ? KaYUVImageBytesAndOffsets(&want, nullptr)
                                           : DWORD(want.biWidth) * DWORD(height) * 4;
    if (!bytes) continue;
    buf.assign(bytes, 0);
    for (const UINT64 at : {UINT64(0), frames > 3 ? frames - 2 : UINT64(1)}) {
      INT64 time = 0;
      v->ReadFrame(at, &want, buf.data(), buf.size(), &time);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Readers holder{loadReaders()};
  const std::vector<IKaReadFileClass*>& readers = holder.classes;
  static const std::string path = (std::filesystem::temp_directory_path() /
                                   ("ostra-fuzz-media-" + std::to_string(KaGetCurrentProcessId())))
                                      .string();
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), std::streamsize(size));
  }
  std::u16string wide(path.begin(), path.end());
  for (IKaReadFileClass* rc : readers) {
    IKaReadFile* r = nullptr;
    if (FAILED(rc->CreateReader(&r)) || !r) continue;
    if (SUCCEEDED(r->Open(wide.c_str(), 0))) {
      DWORD n = 0;
      r->GetStreamCount(&n);
      for (DWORD i = 0; i < n && i < 8; ++i) {
        IKaReadStream* s = nullptr;
        if (FAILED(r->GetStream(i, IID_IKaReadStream, reinterpret_cast<void**>(&s))) || !s)
          continue;
        INT64 duration = 0, start = 0;
        s->GetDuration(&duration, &start);
        IKaReadAudioStream* a = nullptr;
        IKaReadVideoStream* v = nullptr;
        if (SUCCEEDED(s->QueryInterface(IID_IKaReadAudioStream, reinterpret_cast<void**>(&a)))) {
          readAudio(a);
          a->Release();
        } else if (SUCCEEDED(
                       s->QueryInterface(IID_IKaReadVideoStream, reinterpret_cast<void**>(&v)))) {
          readVideo(v);
          v->Release();
        }
        s->Release();
      }
      IKaReadMeta* meta = nullptr;
      if (SUCCEEDED(r->GetMeta(IID_IKaReadMeta, reinterpret_cast<void**>(&meta))) && meta) {
        KAWCHAR value[128];
        for (DWORD k = 0; k < KAFIO_META_KEY_COUNT; ++k)
          meta->GetValue(KaFio_GetMetaKey(k), value, 128);
        meta->Release();
      }
      r->Close();
    }
    r->Release();
  }
  return 0;
}
