// The stream contract, the same for the file, memory and text streams: reads and writes
// at the seek pointer, seeks from every origin and refused ones, sizes, clones with their
// own pointer over shared bytes, copies, and what a read-only stream refuses.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "ostra/kafileio.h"
#include "ostra/kaplatform.h"
#include "support/test_support.h"

namespace {

using ostra::test::readFile;
using ostra::test::TempDir;

struct Kind {
  const char* name;
  std::function<IStream*(const std::string& bytes)> make;
  bool writable;
};

std::string readAll(IStream* s) {
  std::string out;
  char buf[7];
  ULONG got = 0;
  while (SUCCEEDED(s->Read(buf, sizeof buf, &got)) && got) out.append(buf, got);
  return out;
}

TEST(Streams, OneContractForFileMemoryAndText) {
  TempDir dir;
  const Kind kinds[] = {
      {"memory",
       [](const std::string& b) {
         IStream* s = nullptr;
         EXPECT_EQ(KaFio_CreateMemStream(b.data(), b.size(), &s), S_OK);
         return s;
       },
       true},
      {"file",
       [&](const std::string& b) {
         const std::string path = dir.file("s.bin");
         ostra::test::writeFile(path, std::vector<uint8_t>(b.begin(), b.end()));
         IStream* s = nullptr;
         EXPECT_EQ(KaFio_CreateFileStream(ostra::test::u16(path).c_str(), TRUE, &s), S_OK);
         return s;
       },
       true},
      {"text",
       [](const std::string& b) {
         // ASCII text: its UTF-16 bytes are the characters with a zero after each.
         std::u16string t;
         for (size_t i = 0; i < b.size(); i += 2) t += char16_t(uint8_t(b[i]));
         IStream* s = nullptr;
         EXPECT_EQ(KaFio_CreateTextStream(t.c_str(), &s), S_OK);
         return s;
       },
       false},
  };
  const std::string start = std::string("h\0e\0l\0l\0o\0", 10);
  for (const Kind& k : kinds) {
    SCOPED_TRACE(k.name);
    IStream* s = k.make(start);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(readAll(s), start);
    char c = 0;
    ULONG got = 9;
    EXPECT_EQ(s->Read(&c, 1, &got), S_FALSE);  // at the end
    EXPECT_EQ(got, 0u);

    UINT64 pos = 0;
    const struct {
      INT64 move;
      DWORD origin;
      HRESULT hr;
      UINT64 pos;
    } seeks[] = {{2, STREAM_SEEK_SET, S_OK, 2},   {3, STREAM_SEEK_CUR, S_OK, 5},
                 {-4, STREAM_SEEK_END, S_OK, 6},  {-7, STREAM_SEEK_CUR, HRESULT(0x80030001u), 6},
                 {1, 3, HRESULT(0x80030001u), 6}, {20, STREAM_SEEK_SET, S_OK, 20}};
    for (const auto& q : seeks) {
      EXPECT_EQ(s->Seek(q.move, q.origin, &pos), q.hr);
      if (SUCCEEDED(q.hr)) {
        EXPECT_EQ(pos, q.pos);
      }
    }
    EXPECT_EQ(s->Read(&c, 1, &got), S_FALSE);  // past the end: nothing, no failure

    KASTATSTG st{};
    ASSERT_EQ(s->Stat(&st, 1), S_OK);
    EXPECT_EQ(st.size, 10u);
    EXPECT_EQ(st.type, STGTY_STREAM);
    EXPECT_EQ(st.name, nullptr);

    // A clone starts where its stream stands and moves on its own.
    ASSERT_EQ(s->Seek(4, STREAM_SEEK_SET, nullptr), S_OK);
    IStream* c2 = nullptr;
    ASSERT_EQ(s->Clone(&c2), S_OK);
    EXPECT_EQ(readAll(c2), start.substr(4));
    EXPECT_EQ(readAll(s), start.substr(4));

    ULONG put = 0;
    if (k.writable) {
      ASSERT_EQ(s->Seek(12, STREAM_SEEK_SET, nullptr), S_OK);
      ASSERT_EQ(s->Write("!!", 2, &put), S_OK);  // past the end: the gap becomes zeros
      EXPECT_EQ(put, 2u);
      ASSERT_EQ(c2->Seek(0, STREAM_SEEK_SET, nullptr), S_OK);
      EXPECT_EQ(readAll(c2), start + std::string(2, '\0') + "!!");  // the clone sees it
      ASSERT_EQ(s->SetSize(4), S_OK);
      ASSERT_EQ(s->Stat(&st, 1), S_OK);
      EXPECT_EQ(st.size, 4u);
    } else {
      EXPECT_EQ(s->Write("!", 1, &put), HRESULT(0x80030005u));
      EXPECT_EQ(s->SetSize(0), HRESULT(0x80030005u));
    }
    // CopyTo a memory stream.
    IStream* m = nullptr;
    ASSERT_EQ(KaFio_CreateMemStream(nullptr, 0, &m), S_OK);
    ASSERT_EQ(s->Seek(0, STREAM_SEEK_SET, nullptr), S_OK);
    UINT64 in = 0, out = 0;
    EXPECT_EQ(s->CopyTo(m, 100, &in, &out), S_OK);
    EXPECT_EQ(in, k.writable ? 4u : 10u);
    EXPECT_EQ(out, in);
    EXPECT_EQ(m->Release(), 0u);
    EXPECT_EQ(c2->Release(), 0u);
    EXPECT_EQ(s->Release(), 0u);
  }
  // The file stream wrote through to the file, and names it in Stat.
  EXPECT_EQ(readFile(dir.file("s.bin")).size(), 4u);
  IStream* f = nullptr;
  ASSERT_EQ(KaFio_CreateFileStream(ostra::test::u16(dir.file("s.bin")).c_str(), FALSE, &f), S_OK);
  KASTATSTG st{};
  ASSERT_EQ(f->Stat(&st, 0), S_OK);
  ASSERT_NE(st.name, nullptr);
  EXPECT_EQ(std::u16string(st.name), ostra::test::u16(dir.file("s.bin")));
  KaGlobalFreePtr(st.name);
  ULONG put = 0;
  EXPECT_EQ(f->Write("x", 1, &put), HRESULT(0x80030005u));
  f->Release();
  IStream* none = nullptr;
  EXPECT_NE(KaFio_CreateFileStream(ostra::test::u16(dir.file("missing")).c_str(), FALSE, &none),
            S_OK);
  EXPECT_EQ(none, nullptr);
}

}  // namespace
