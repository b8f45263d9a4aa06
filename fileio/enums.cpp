// The enumerators: CKaFIOPluginEnum (the list's entries), CKaReaderEnum and
// CKaRendererEnum (the plug-ins' classes, wrapped) and CKaFileIOTypeEnum (extension and
// plug-in pairs). Each works on the positions of the list when it was made and keeps the
// manager alive.
#include <new>

#include "fileio/internal/object.h"

namespace ostra::fileio {
namespace {

// Next/Skip/Reset/Clone over `items` positions; Fetch(position, item) produces one item.
template <class Interface, class Item, const IID& kIid>
class EnumBase : public Interface {
 public:
  EnumBase(CKaFileIOManager* manager, std::vector<DWORD> items)
      : manager_(manager), items_(std::move(items)) {
    manager_->AddRef();
  }

  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (riid != IID_IUnknown && riid != kIid) return E_NOINTERFACE;
    *ppv = static_cast<Interface*>(this);
    AddRef();
    return S_OK;
  }
  STDMETHOD_(ULONG, AddRef)() override { return ++refs_; }
  STDMETHOD_(ULONG, Release)() override {
    const ULONG left = --refs_;
    if (!left) delete this;
    return left;
  }
  STDMETHOD(Next)(ULONG count, Item* out, ULONG* fetched) override {
    if (!out || (count > 1 && !fetched)) return E_POINTER;
    ULONG n = 0;
    while (n < count && position_ < items_.size()) {
      const HRESULT hr = fetch(items_[position_], &out[n]);
      ++position_;
      if (FAILED(hr)) continue;  // a plug-in that cannot be loaded is passed over
      ++n;
    }
    if (fetched) *fetched = n;
    return n == count ? S_OK : S_FALSE;
  }
  STDMETHOD(Skip)(ULONG count) override {
    const size_t left = items_.size() - position_;
    position_ += count < left ? count : left;
    return count <= left ? S_OK : S_FALSE;
  }
  STDMETHOD(Reset)() override {
    position_ = 0;
    return S_OK;
  }
  STDMETHOD(Clone)(Interface** clone) override {
    if (!clone) return E_POINTER;
    *clone = nullptr;
    auto* copy = make(manager_, items_);
    if (!copy) return E_OUTOFMEMORY;
    copy->position_ = position_;
    *clone = copy;
    return S_OK;
  }

 protected:
  virtual ~EnumBase() { manager_->Release(); }
  virtual HRESULT fetch(DWORD item, Item* out) = 0;
  virtual EnumBase* make(CKaFileIOManager* manager, const std::vector<DWORD>& items) = 0;
  CKaFileIOManager* manager_;

 private:
  std::atomic<ULONG> refs_{1};
  std::vector<DWORD> items_;
  size_t position_ = 0;
};

class CKaFIOPluginEnum final
    : public EnumBase<IKaFIOPluginEnum, KAFIOPLUGINENTRY, IID_IKaFIOPluginEnum> {
 public:
  using EnumBase::EnumBase;
  HRESULT fetch(DWORD item, KAFIOPLUGINENTRY* out) override {
    return manager_->GetPluginEntry(item, out);
  }
  EnumBase* make(CKaFileIOManager* m, const std::vector<DWORD>& items) override {
    return new (std::nothrow) CKaFIOPluginEnum(m, items);
  }
};

class CKaReaderEnum final : public EnumBase<IKaReaderEnum, IKaReadFileClass*, IID_IKaReaderEnum> {
 public:
  using EnumBase::EnumBase;
  HRESULT fetch(DWORD item, IKaReadFileClass** out) override {
    return manager_->GetReaderClass(item, out);
  }
  EnumBase* make(CKaFileIOManager* m, const std::vector<DWORD>& items) override {
    return new (std::nothrow) CKaReaderEnum(m, items);
  }
};

class CKaRendererEnum final
    : public EnumBase<IKaRendererEnum, IKaRenderFileClass*, IID_IKaRendererEnum> {
 public:
  using EnumBase::EnumBase;
  HRESULT fetch(DWORD item, IKaRenderFileClass** out) override {
    return manager_->GetRendererClass(item, out);
  }
  EnumBase* make(CKaFileIOManager* m, const std::vector<DWORD>& items) override {
    return new (std::nothrow) CKaRendererEnum(m, items);
  }
};

// Items are positions in a table of (extension, plug-in) pairs made with the enumerator.
class CKaFileIOTypeEnum final
    : public EnumBase<IKaFileIOTypeEnum, KAFIOFILETYPE, IID_IKaFileIOTypeEnum> {
 public:
  CKaFileIOTypeEnum(CKaFileIOManager* m, std::vector<DWORD> items, std::vector<KAFIOFILETYPE> types)
      : EnumBase(m, std::move(items)), types_(std::move(types)) {}
  HRESULT fetch(DWORD item, KAFIOFILETYPE* out) override {
    *out = types_[item];
    return S_OK;
  }
  EnumBase* make(CKaFileIOManager* m, const std::vector<DWORD>& items) override {
    return new (std::nothrow) CKaFileIOTypeEnum(m, items, types_);
  }

 private:
  std::vector<KAFIOFILETYPE> types_;
};

std::vector<U16> splitExtensions(const KAWCHAR* list) {
  std::vector<U16> out;
  U16 all = lowerAscii(list);
  size_t start = 0;
  while (start < all.size()) {
    size_t end = all.find_first_of(u";, ", start);
    if (end == U16::npos) end = all.size();
    U16 item = all.substr(start, end - start);
    while (!item.empty() && (item.front() == '.' || item.front() == '*')) item.erase(0, 1);
    if (!item.empty() && item.size() < 32) out.push_back(item);
    start = end + 1;
  }
  return out;
}

template <class T>
HRESULT hand(T* made, void** out) {
  if (!made) return E_OUTOFMEMORY;
  *out = made;
  return S_OK;
}

}  // namespace

HRESULT CKaFileIOManager::EnumPlugins(IKaFIOPluginEnum** out) try {
  if (!out) return E_POINTER;
  std::vector<DWORD> items;
  for (DWORD i = 0; i < count(); ++i) items.push_back(i);
  return hand(new (std::nothrow) CKaFIOPluginEnum(this, std::move(items)),
              reinterpret_cast<void**>(out));
} catch (...) {
  return E_OUTOFMEMORY;
}

HRESULT CKaFileIOManager::EnumReaders(IKaReaderEnum** out) try {
  if (!out) return E_POINTER;
  std::vector<DWORD> items;
  for (DWORD i = 0; i < count(); ++i)
    if (!isNullGuid(entry(i).reader)) items.push_back(i);
  return hand(new (std::nothrow) CKaReaderEnum(this, std::move(items)),
              reinterpret_cast<void**>(out));
} catch (...) {
  return E_OUTOFMEMORY;
}

HRESULT CKaFileIOManager::EnumRenderers(IKaRendererEnum** out) try {
  if (!out) return E_POINTER;
  std::vector<DWORD> items;
  for (DWORD i = 0; i < count(); ++i)
    if (!isNullGuid(entry(i).renderer)) items.push_back(i);
  return hand(new (std::nothrow) CKaRendererEnum(this, std::move(items)),
              reinterpret_cast<void**>(out));
} catch (...) {
  return E_OUTOFMEMORY;
}

HRESULT CKaFileIOManager::EnumFileTypes(IKaFileIOTypeEnum** out) try {
  if (!out) return E_POINTER;
  std::vector<KAFIOFILETYPE> types;
  for (DWORD i = 0; i < count(); ++i) {
    const KAFIOPLUGINENTRY& e = entry(i);
    const auto add = [&](const U16& ext, bool reader) {
      for (KAFIOFILETYPE& t : types)
        if (t.plugin == i && U16(t.extension) == ext) {
          (reader ? t.reader : t.renderer) = TRUE;
          return;
        }
      KAFIOFILETYPE t{};
      copyText(t.extension, 32, ext);
      t.plugin = i;
      (reader ? t.reader : t.renderer) = TRUE;
      types.push_back(t);
    };
    if (!isNullGuid(e.reader))
      for (const U16& x : splitExtensions(e.readerExtensions)) add(x, true);
    if (!isNullGuid(e.renderer))
      for (const U16& x : splitExtensions(e.rendererExtensions)) add(x, false);
  }
  std::vector<DWORD> items;
  for (DWORD i = 0; i < types.size(); ++i) items.push_back(i);
  return hand(new (std::nothrow) CKaFileIOTypeEnum(this, std::move(items), std::move(types)),
              reinterpret_cast<void**>(out));
} catch (...) {
  return E_OUTOFMEMORY;
}

}  // namespace ostra::fileio
