#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "ostra/kacom.h"

namespace {

constexpr IID IID_ICounter = KaGuid("6B0E3C5A-2F1D-4E8B-9A47-0C2D5E6F7A81");
constexpr IID kOther = KaGuid("00020400-0000-0000-C000-000000000046");

struct ICounter : IUnknown {
  STDMETHOD_(int, Next)() = 0;
};

class Counter final : public ICounter {
 public:
  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    if (riid != IID_IUnknown && riid != IID_ICounter) {
      *ppv = nullptr;
      return E_NOINTERFACE;
    }
    *ppv = static_cast<ICounter*>(this);
    AddRef();
    return S_OK;
  }
  STDMETHOD_(ULONG, AddRef)() override { return ++refs; }
  STDMETHOD_(ULONG, Release)() override { return --refs; }  // lives on the stack
  STDMETHOD_(int, Next)() override { return ++value; }
  std::atomic<ULONG> refs{1};
  std::atomic<int> value{0};
};

TEST(Guid, FormatParseCompareCreate) {
  constexpr GUID g = KaGuid("0123abcd-4567-89ef-0a1b-2c3d4e5f6071");
  KAWCHAR text[39];
  EXPECT_EQ(KaGuid_ToString(g, text, 38), 0);
  ASSERT_EQ(KaGuid_ToString(g, text, 39), 39);
  EXPECT_EQ(std::u16string(text), u"{0123ABCD-4567-89EF-0A1B-2C3D4E5F6071}");
  struct Case {
    const char16_t* text;
    HRESULT hr;
  } cases[] = {
      {u"{0123ABCD-4567-89EF-0A1B-2C3D4E5F6071}", S_OK},
      {u"0123abcd-4567-89ef-0a1b-2c3d4e5f6071", S_OK},
      {u"{0123abcd-4567-89ef-0a1b-2c3d4e5f6071", E_INVALIDARG},
      {u"0123abcd-4567-89ef-0a1b-2c3d4e5f607", E_INVALIDARG},
      {u"0123abcd-4567-89ef-0a1b-2c3d4e5f60711", E_INVALIDARG},
      {u"0123abcd+4567-89ef-0a1b-2c3d4e5f6071", E_INVALIDARG},
      {u"0123abcg-4567-89ef-0a1b-2c3d4e5f6071", E_INVALIDARG},
      {u"", E_INVALIDARG},
      {nullptr, E_INVALIDARG},
  };
  for (const Case& c : cases) {
    GUID out = KaGuid("ffffffff-ffff-ffff-ffff-ffffffffffff");
    EXPECT_EQ(KaGuid_FromString(c.text, &out), c.hr);
    EXPECT_EQ(out, SUCCEEDED(c.hr) ? g : GUID{});
  }
  EXPECT_EQ(KaGuid_Compare(g, g), 0);
  EXPECT_LT(KaGuid_Compare(KaGuid("00000000-0001-0000-0000-000000000000"),
                           KaGuid("00000000-0002-0000-0000-000000000000")),
            0);
  EXPECT_GT(KaGuid_Compare(KaGuid("00000001-0000-0000-0000-000000000000"),
                           KaGuid("00000000-ffff-0000-0000-000000000000")),
            0);
  EXPECT_LT(KaGuid_Compare(KaGuid("00000000-0000-0000-0000-000000000001"),
                           KaGuid("00000000-0000-0000-0100-000000000000")),
            0);
  GUID a, b;
  ASSERT_EQ(KaGuid_Create(&a), S_OK);
  ASSERT_EQ(KaGuid_Create(&b), S_OK);
  EXPECT_NE(a, b);
  EXPECT_EQ(a.Data3 >> 12, 4);
  EXPECT_EQ(a.Data4[0] >> 6, 2);
}

TEST(GlobalInterfaceTable, ProxiesAreTheObjectWithAReference) {
  Counter obj;
  const DWORD registered = KaGIT_GetRegisteredCount();
  DWORD cookie = 0;
  EXPECT_EQ(KaGIT_RegisterInterface(&obj, kOther, &cookie), E_NOINTERFACE);
  EXPECT_EQ(cookie, 0u);
  ASSERT_EQ(KaGIT_RegisterInterface(&obj, IID_ICounter, &cookie), S_OK);
  EXPECT_NE(cookie, 0u);
  EXPECT_EQ(obj.refs.load(), 2u);
  EXPECT_EQ(KaGIT_GetRegisteredCount(), registered + 1);

  const UINT64 before = KaGIT_GetLookupCount();
  std::thread worker([&] {
    ICounter* proxy = nullptr;
    ASSERT_EQ(KaGIT_GetInterface(cookie, IID_ICounter, reinterpret_cast<void**>(&proxy)), S_OK);
    EXPECT_EQ(proxy, static_cast<ICounter*>(&obj));  // free-threaded: no real proxy
    EXPECT_EQ(obj.refs.load(), 3u);
    EXPECT_EQ(proxy->Next(), 1);
    proxy->Release();
    void* none = &none;
    EXPECT_EQ(KaGIT_GetInterface(cookie, kOther, &none), E_NOINTERFACE);
    EXPECT_EQ(none, nullptr);
  });
  worker.join();
  EXPECT_EQ(KaGIT_GetLookupCount(), before + 1);  // only the successful look-up counts
  EXPECT_EQ(KaGIT_RevokeInterface(cookie), S_OK);
  EXPECT_EQ(obj.refs.load(), 1u);
  void* p = nullptr;
  EXPECT_EQ(KaGIT_GetInterface(cookie, IID_ICounter, &p), E_INVALIDARG);
  EXPECT_EQ(KaGIT_RevokeInterface(cookie), E_INVALIDARG);
  EXPECT_EQ(KaGIT_GetRegisteredCount(), registered);
  EXPECT_EQ(KaGIT_RegisterInterface(nullptr, IID_ICounter, &cookie), E_INVALIDARG);
}

}  // namespace
