#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "format_test_support.h"
#include "ostra/aiff.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "ostra/kawave.h"

using namespace formatstest;

namespace {

struct Record {
  alignas(8) BYTE buffer[KAWAVEFORMAT_BUFFER_SIZE] = {};
  _kawaveformat* operator->() { return reinterpret_cast<_kawaveformat*>(buffer); }
  _kawaveformat* get() { return reinterpret_cast<_kawaveformat*>(buffer); }
};

}  // namespace

TEST(FileWfx, ReadsEveryContainer) {
  TempDir dir;
  const WAVEFORMATEX cd{WAVE_FORMAT_PCM, 2, 44100, 176400, 4, 16, 0};
  const WAVEFORMATEX be24{WAVE_FORMAT_KA_BIGENDIAN, 1, 96000, 288000, 3, 24, 0};
  WAVEFORMATEXTENSIBLE ext{{WAVE_FORMAT_EXTENSIBLE, 6, 48000, 48000 * 24, 24, 32, 22},
                           {24},
                           0x3F,
                           KaAudio_SubFormatFromTag(WAVE_FORMAT_PCM)};
  ASSERT_EQ(KaInitializeWav(dir.wfile("a.wav").c_str(), &cd, CREATE_ALWAYS), S_OK);
  ASSERT_EQ(KaInitializeWav64(dir.wfile("a.w64").c_str(), &cd, CREATE_ALWAYS), S_OK);
  ASSERT_EQ(KaInitializeAiff(dir.wfile("a.aif").c_str(), &be24, CREATE_ALWAYS), S_OK);
  writeFile(dir.file("ext.wav"),
            riff("WAVE", {chunk("fmt ", Bytes().put(&ext, 40)), chunk("data", Bytes())}));
  writeFile(dir.file("16.wav"),  // the old 16-byte form
            riff("WAVE", {chunk("fmt ", Bytes().put(&cd, 16)), chunk("data", Bytes())}));

  struct Case {
    const char* file;
    KASAMPLETYPE type;
    DWORD rate;
    WORD channels;
    DWORD mask;
  };
  const Case cases[] = {
      {"a.wav", KASAMPLE_PCM16, 44100, 2, 0},  {"a.w64", KASAMPLE_PCM16, 44100, 2, 0},
      {"a.aif", KASAMPLE_MAC24, 96000, 1, 0},  {"ext.wav", KASAMPLE_PCM24IN32, 48000, 6, 0x3F},
      {"16.wav", KASAMPLE_PCM16, 44100, 2, 0},
  };
  for (const Case& c : cases) {
    Record r;
    ASSERT_EQ(KaGetFileWfx(dir.wfile(c.file).c_str(), r.get(), sizeof r.buffer), S_OK) << c.file;
    EXPECT_EQ(std::tuple(r->SampleType, r->nSamplesPerSec, r->nChannels, r->dwChannelMask),
              std::tuple(c.type, c.rate, c.channels, c.mask))
        << c.file;
  }
  writeFile(dir.file("x.bin"), {'R', 'I', 'F', 'F', 4, 0, 0, 0, 'A', 'V', 'I', ' '});
  Record r;
  EXPECT_EQ(KaGetFileWfx(dir.wfile("x.bin").c_str(), r.get(), sizeof r.buffer),
            KAERR_UNSUPPORTED_FILE);
  EXPECT_EQ(KaGetFileWfx(dir.wfile("none").c_str(), r.get(), sizeof r.buffer), KAERR_OPEN_FAILED);
  EXPECT_EQ(KaGetFileWfx(dir.wfile("a.wav").c_str(), r.get(), 31), E_INVALIDARG);
}

TEST(FileWfx, RewritesInPlaceOnlyWhenTheSizeHolds) {
  TempDir dir;
  const WAVEFORMATEX cd{WAVE_FORMAT_PCM, 2, 44100, 176400, 4, 16, 0};
  const WAVEFORMATEX be16{WAVE_FORMAT_KA_BIGENDIAN, 2, 44100, 176400, 4, 16, 0};
  ASSERT_EQ(KaInitializeWav(dir.wfile("a.wav").c_str(), &cd, CREATE_ALWAYS), S_OK);
  ASSERT_EQ(KaInitializeAiff(dir.wfile("a.aif").c_str(), &be16, CREATE_ALWAYS), S_OK);
  struct Case {
    const char* file;
    KASAMPLETYPE type;
    DWORD rate;
    WORD channels;
    DWORD mask;
    HRESULT expect;
  };
  const Case cases[] = {
      {"a.wav", KASAMPLE_FLOAT32, 48000, 1, 0, S_OK},
      {"a.wav", KASAMPLE_PCM24, 48000, 6, 0x60F, KAERR_UNSUPPORTED_FORMAT},  // needs 40 bytes
      {"a.aif", KASAMPLE_MAC32, 22050, 1, 0, S_OK},
      {"a.aif", KASAMPLE_FLOAT32, 22050, 1, 0, KAERR_UNSUPPORTED_FORMAT},
      {"a.aif", KASAMPLE_MAC16, 384000, 1, 0, KAERR_UNSUPPORTED_FORMAT},
  };
  for (const Case& c : cases) {
    const Bytes old = readFile(dir.file(c.file));
    Record want;
    want->Init(c.rate, c.type, c.channels, c.mask, sizeof want.buffer);
    ASSERT_EQ(KaSetFileWfx(dir.wfile(c.file).c_str(), want.get()), c.expect)
        << c.file << " " << c.type;
    Record got;
    ASSERT_EQ(KaGetFileWfx(dir.wfile(c.file).c_str(), got.get(), sizeof got.buffer), S_OK);
    if (FAILED(c.expect)) {
      EXPECT_EQ(readFile(dir.file(c.file)), old) << c.file << " " << c.type;
      continue;
    }
    EXPECT_TRUE(got->IsEqual(*want.get())) << c.file << " " << c.type;
    EXPECT_EQ(readFile(dir.file(c.file)).size(), old.size());
  }
}

TEST(FileWfx, AudioDataAndChunkList) {
  TempDir dir;
  const WAVEFORMATEX cd{WAVE_FORMAT_PCM, 2, 44100, 176400, 4, 16, 0};
  const Bytes wav =
      riff("WAVE", {chunk("fmt ", Bytes().put(&cd, 18)), list("INFO", chunk("INAM", Bytes{'t', 0})),
                    chunk("data", 12, 7)});
  writeFile(dir.file("l.wav"), wav);
  Bytes cut = wav;  // a header claiming more data than there is
  cut.resize(cut.size() - 4);
  writeFile(dir.file("cut.wav"), cut);
  const WAVEFORMATEX be16{WAVE_FORMAT_KA_BIGENDIAN, 1, 8000, 16000, 2, 16, 0};
  ASSERT_EQ(KaInitializeAiff(dir.wfile("a.aif").c_str(), &be16, CREATE_ALWAYS), S_OK);
  ASSERT_EQ(KaInitializeWav64(dir.wfile("a.w64").c_str(), &cd, CREATE_ALWAYS), S_OK);

  struct Case {
    const char* file;
    DWORD container;
    BOOL bigEndian;
    UINT64 offset, size, stated;
  };
  const Case cases[] = {
      {"l.wav", KACONTAINER_WAVE, FALSE, 68, 12, 12},
      {"cut.wav", KACONTAINER_WAVE, FALSE, 68, 8, 12},
      {"a.aif", KACONTAINER_AIFF, TRUE, 54, 0, 0},
      {"a.w64", KACONTAINER_WAVE64, FALSE, 112, 0, 0},
  };
  for (const Case& c : cases) {
    tKAAUDIODATA d;
    ASSERT_EQ(KaGetFileAudioData(dir.wfile(c.file).c_str(), &d), S_OK) << c.file;
    EXPECT_EQ(std::tuple(d.container, d.bigEndian, d.offset, d.size, d.statedSize),
              std::tuple(c.container, c.bigEndian, c.offset, c.size, c.stated))
        << c.file;
  }

  KAHFILE f;
  ASSERT_EQ(KaFile_OpenUtf8(dir.file("l.wav").c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING,
                            0, &f),
            S_OK);
  tKACHUNKINFO list[8];
  DWORD count = 0, container = 0;
  ASSERT_EQ(KaGetFileChunks(f, list, 8, &count, &container), S_OK);
  EXPECT_EQ(container, DWORD(KACONTAINER_WAVE));
  ASSERT_EQ(count, 4u);
  const char* names[] = {"fmt ", "LIST", "INAM", "data"};
  const UINT64 offsets[] = {12, 38, 50, 60}, sizes[] = {18, 14, 2, 12};
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(std::tuple(std::string(list[i].name), list[i].offset, list[i].size, list[i].depth),
              std::tuple(std::string(names[i]), offsets[i], sizes[i], i == 2 ? 1 : 0));
  EXPECT_EQ(list[1].listType, KaFourCC('I', 'N', 'F', 'O'));
  EXPECT_EQ(KaGetFileChunks(f, list, 2, &count), S_FALSE);
  EXPECT_EQ(count, 4u);
  KaFile_Close(f);

  ASSERT_EQ(KaFile_OpenUtf8(dir.file("a.w64").c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING,
                            0, &f),
            S_OK);
  ASSERT_EQ(KaGetFileChunks(f, list, 8, &count, &container), S_OK);
  EXPECT_EQ(container, DWORD(KACONTAINER_WAVE64));
  ASSERT_EQ(count, 2u);
  EXPECT_STREQ(list[0].name, "fmt ");
  EXPECT_EQ(list[0].size, 18u);
  EXPECT_STREQ(list[1].name, "data");
  EXPECT_EQ(list[1].offset, 88u);
  KaFile_Close(f);
}
