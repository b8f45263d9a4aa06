// What the file readers clamp, skip or leave out of a file that still reads is written to
// the kernel's details, one line per finding, naming the numbers a user needs to find the
// spot; clean files add nothing, and a line never takes over the code of a failure that
// is already being reported.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "format_test_support.h"
#include "ostra/kaerror.h"
#include "ostra/kawave.h"

namespace formatstest {
namespace {

std::vector<std::string> detailLines() {
  std::u16string text(KaErrorHandler_DetailsGetText(nullptr, 0) + 1, u'\0');
  text.resize(KaErrorHandler_DetailsGetText(text.data(), DWORD(text.size())));
  std::vector<std::string> lines;
  std::string line;
  for (char16_t c : text) {
    if (c == u'\r') continue;
    if (c == u'\n') {
      lines.push_back(line);
      line.clear();
    } else {
      line += c < 0x80 ? char(c) : '?';
    }
  }
  EXPECT_TRUE(line.empty()) << "every line ends in CR LF";
  return lines;
}

Bytes wave(size_t dataBytes) {
  Bytes fmt;
  fmt.u16(1).u16(2).u32(8000).u32(32000).u16(4).u16(16);
  return riff("WAVE", {chunk("fmt ", fmt), chunk("data", Bytes(dataBytes, 7))});
}

HRESULT listChunks(KAHFILE f) {
  tKACHUNKINFO c[16];
  DWORD n = 0;
  return KaGetFileChunks(f, c, 16, &n);
}
HRESULT findSamples(KAHFILE f) {
  tKAAUDIODATA d{};
  return KaGetFileAudioData(f, &d);
}
HRESULT readFormat(KAHFILE f) {
  alignas(8) BYTE buf[KAWAVEFORMAT_BUFFER_SIZE];
  return KaGetFileWfx(f, reinterpret_cast<_kawaveformat*>(buf), sizeof buf);
}
HRESULT planRepair(KAHFILE f) {
  tKAWAVREPAIR plan{};
  return KaPlanWavRepair(f, &plan);
}
HRESULT loadSummary(KAHFILE f) {
  KaFile_Seek(f, 12, FILE_BEGIN, nullptr);
  _summarylisttag list{};
  const DWORD remaining = 10;  // cuts the 12-byte item to 2 of its bytes
  const HRESULT hr = KaSummary_Load(f, &list, &remaining);
  KaSummary_Free(&list);
  return hr;
}
HRESULT loadDisplay(KAHFILE f) {
  _displisttag* l = displist_Create();
  DWORD remaining = 20;  // the DISP chunk states 40 bytes
  const HRESULT hr = displist_Load(f, l, &remaining);
  displist_Destroy(l);
  return hr;
}

TEST(DetailsNotes, EachFindingIsOneLineWithItsNumbers) {
  const Bytes clean = wave(40);  // 44 + 40 = 84 bytes, RIFF size 76
  Bytes cut = clean;
  cut.resize(70);  // 26 of the 40 sample bytes remain
  Bytes trailing = clean;
  trailing.add(Bytes(9, 0));
  Bytes runaway = riff("WAVE", {chunk("fmt ", Bytes(16, 1)), chunk("JUNK", Bytes(8, 0))});
  runaway[40] = 0xF0;  // JUNK at 36 states 240 bytes in a form of 52
  Bytes shortFmt = riff("WAVE", {chunk("fmt ", Bytes(10, 1)), chunk("data", Bytes(4, 0))});
  Bytes partial = clean;
  partial[40] = 0xFF, partial[41] = 0xFF, partial[42] = 0xFF, partial[43] = 0xFF;
  partial.resize(44 + 27);  // 6 whole frames and 3 bytes
  Bytes items(12, 0);       // the list's items start at 12
  items.id("INAM").u32(12).text("twelve bytes");
  Bytes display;
  display.id("DISP").u32(40).u32(1).text("ab");

  struct Case {
    const char* what;
    const Bytes* file;
    std::function<HRESULT(KAHFILE)> call;
    HRESULT result;
    std::vector<std::vector<std::string>> lines;  // the numbers each line must name
  } cases[] = {
      {"clean file, chunks", &clean, listChunks, S_OK, {}},
      {"clean file, samples", &clean, findSamples, S_OK, {}},
      {"clean file, repair plan", &clean, planRepair, S_OK, {}},
      {"cut file, chunks", &cut, listChunks, S_OK, {{"84", "70"}}},
      {"cut file, samples", &cut, findSamples, S_OK, {{"40", "44", "26"}}},
      {"bytes after the form", &trailing, listChunks, S_OK, {{"9", "84"}}},
      {"chunk past the end", &runaway, listChunks, S_OK, {{"JUNK", "36", "240"}}},
      {"short format chunk", &shortFmt, readFormat, KAERR_CORRUPT_FILE, {{"10", "16"}}},
      {"partial last frame", &partial, planRepair, S_OK, {{"3"}}},
      {"summary item cut to its list", &items, loadSummary, S_OK, {{"INAM", "12", "2"}}},
      {"display chunk past its list", &display, loadDisplay, S_OK, {{"DISP", "40"}}},
  };
  TempDir dir;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string path = dir.file("f.bin");
    writeFile(path, *c.file);
    File f(path, OPEN_EXISTING);
    KaErrorHandler_DetailsInit();
    EXPECT_EQ(c.call(f), c.result);
    const std::vector<std::string> lines = detailLines();
    ASSERT_EQ(lines.size(), c.lines.size());
    for (size_t i = 0; i < lines.size(); ++i)
      for (const std::string& token : c.lines[i])
        EXPECT_NE((" " + lines[i] + " ").find(token), std::string::npos)
            << "line '" << lines[i] << "' does not name " << token;
  }
  KaErrorHandler_DetailsInit();
}

TEST(DetailsNotes, SizingCallAddsNothingAndFailuresKeepTheirCode) {
  TempDir dir;
  const std::string path = dir.file("cut.wav");
  Bytes cut = wave(40);
  cut.resize(70);
  writeFile(path, cut);
  File f(path, OPEN_EXISTING);

  // A first call that only sizes the list (it comes back S_FALSE) leaves the lines to the
  // call that gets the whole list.
  KaErrorHandler_DetailsInit();
  tKACHUNKINFO one[1];
  DWORD count = 0;
  ASSERT_EQ(KaGetFileChunks(f, one, 1, &count), S_FALSE);
  EXPECT_TRUE(detailLines().empty());
  std::vector<tKACHUNKINFO> all(count);
  ASSERT_EQ(KaGetFileChunks(f, all.data(), count, &count), S_OK);
  EXPECT_EQ(detailLines().size(), 1u);

  // Lines join a failure being reported under its code; alone they stand under S_OK.
  KaErrorHandler_DetailsInit();
  ASSERT_EQ(KaErrorHandler_DetailsAddString(KAERR_READ_FAILED, u"outer"), S_OK);
  ASSERT_EQ(findSamples(f), S_OK);
  HRESULT code = S_OK;
  DWORD lines = 0;
  KaErrorHandler_DetailsInfo(&code, &lines, nullptr);
  EXPECT_EQ(code, KAERR_READ_FAILED);
  EXPECT_EQ(lines, 2u);
  KaErrorHandler_DetailsInit();
  ASSERT_EQ(findSamples(f), S_OK);
  KaErrorHandler_DetailsInfo(&code, &lines, nullptr);
  EXPECT_EQ(code, S_OK);
  EXPECT_EQ(lines, 1u);
  KaErrorHandler_DetailsInit();
}

}  // namespace
}  // namespace formatstest
