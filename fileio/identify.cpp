// Identification: which plug-in reads a file. The host's own formats are refused first;
// then the signature pass (the sniffer's format and the format table), the extension pass,
// the reader that opened the previous file, and the whole list, each plug-in asked once.
// The file's head is read into the call's own buffer, so any thread may identify.
#include <cstring>

#include "fileio/internal/object.h"
#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"

namespace ostra::fileio {
namespace {

constexpr DWORD kHeadBytes = 65536;
constexpr const KAWCHAR* kBlockListName = u"mv8_blacklist_rz15.xml";
constexpr const KAWCHAR* kCompoundOnlyName = u"for_compoundplug_only.mp4";

bool isDecline(HRESULT hr) { return hr == KAERR_FIO_DECLINED || hr == KAERR_FIO_NOT_MINE; }

bool sameGuidBytes(const BYTE* p, REFGUID g) {
  BYTE bytes[16];
  for (int i = 0; i < 4; ++i) bytes[i] = BYTE(g.Data1 >> (8 * i));
  bytes[4] = BYTE(g.Data2), bytes[5] = BYTE(g.Data2 >> 8);
  bytes[6] = BYTE(g.Data3), bytes[7] = BYTE(g.Data3 >> 8);
  std::memcpy(bytes + 8, g.Data4, 8);
  return std::memcmp(p, bytes, 16) == 0;
}

// Files the host opens itself and never hands to a plug-in.
bool isHostFormat(const BYTE* p, DWORD n) {
  if (!std::memcmp(p, "RIFF", 4)) {
    for (const char* form : {"KAXX", "ACID", "KASS", "KAPL", "KAPJ"})
      if (!std::memcmp(p + 8, form, 4)) return true;
  }
  if (!std::memcmp(p, "KAPK", 4) || !std::memcmp(p, "MThd", 4)) return true;
  static constexpr GUID kRiff64 = KaGuid("66666972-912E-11CF-A5D6-28DB04C10000");
  static constexpr GUID kHostForms[] = {KaGuid("46C429EF-904A-11D2-8722-00C04F8EDB8A"),
                                        KaGuid("4D60BD88-7758-11D4-883A-00B0D0223D2B"),
                                        KaGuid("533C1BF6-D635-43F3-8A90-64B887231F7F"),
                                        KaGuid("E13F6219-907F-4CED-A703-EEEE867A3E7C"),
                                        KaGuid("B3153884-08DA-4485-B22A-5B70A13215FF")};
  if (n >= 41 && sameGuidBytes(p, kRiff64))
    for (const GUID& form : kHostForms)
      if (sameGuidBytes(p + 24, form)) return true;
  return false;
}

HRESULT readHead(KAHFILE file, BYTE* head, DWORD* got) {
  *got = 0;
  INT64 position = 0;
  HRESULT hr = KaFile_GetPosition(file, &position);
  if (FAILED(hr)) return hr;
  hr = KaFile_Seek(file, 0, FILE_BEGIN, nullptr);
  if (SUCCEEDED(hr)) hr = KaFile_Read(file, head, kHeadBytes, got);
  KaFile_Seek(file, position, FILE_BEGIN, nullptr);
  return hr;
}

}  // namespace

const BlockList& CKaFileIOManager::blockList() {
  std::call_once(blockListOnce_, [this] {
    const U16 path = moduleFolder_ + u"/" + kBlockListName;
    blockList_ = loadBlockList(path);
    if (!blockList_.error.empty())
      KAFIO_LOG(logger_, 1, "Block list '%s' ignored: %s", toUtf8(path).c_str(),
                blockList_.error.c_str());
  });
  return blockList_;
}

HRESULT CKaFileIOManager::tryPlugin(DWORD index, const U16& path, IKaReadFile** keep,
                                    KAFIOIDENTIFY* result, bool readMeta) {
  IKaReadFileClass* rc = nullptr;
  HRESULT hr = rawReaderClass(index, &rc);
  if (FAILED(hr)) return hr;
  IKaReadFile* reader = nullptr;
  hr = rc->CreateReader(&reader);
  rc->Release();
  if (SUCCEEDED(hr) && !reader) hr = E_POINTER;
  if (FAILED(hr)) return hr;
  hr = reader->Open(path.c_str(), 0);
  if (SUCCEEDED(hr) && readMeta && result) {
    IKaReadMeta* meta = nullptr;
    if (SUCCEEDED(reader->GetMeta(IID_IKaReadMeta, reinterpret_cast<void**>(&meta))) && meta) {
      for (DWORD k = 0; k < KAFIO_META_KEY_COUNT; ++k) {
        result->meta[k][0] = 0;
        meta->GetValue(KaFio_GetMetaKey(k), result->meta[k], 128);
        result->meta[k][127] = 0;
      }
      result->metaRead = TRUE;
      meta->Release();
    }
  }
  if (SUCCEEDED(hr) && keep) {
    *keep = reader;
    return S_OK;
  }
  if (SUCCEEDED(hr)) reader->Close();
  reader->Release();
  return FAILED(hr) ? hr : S_OK;
}

HRESULT CKaFileIOManager::identify(KAHFILE file, const U16& path, bool slow, KAFIOIDENTIFY* result,
                                   IKaReadFile** keep) try {
  KAFIOIDENTIFY local{};
  KAFIOIDENTIFY* out = result ? result : &local;
  *out = {};
  out->size = sizeof(KAFIOIDENTIFY);
  out->plugin = -1;
  if (!started_) return out->result = E_UNEXPECTED;
  const char* session = slow ? "IdentifyFileTypeSlow" : "IdentifyFileType";
  const std::string name8 = toUtf8(path);

  if (!slow) {
    BYTE head[kHeadBytes];
    DWORD got = 0;
    if (const HRESULT hr = readHead(file, head, &got); FAILED(hr)) return out->result = hr;
    if (got >= 12 && isHostFormat(head, got)) return out->result = KAERR_FIO_HOST_FORMAT;
    out->formatId = KaFio_SniffFormat(head, got);
  }

  HRESULT last = KAERR_FIO_UNSUPPORTED;
  std::vector<bool> tried(count(), false);
  const U16 extension = extensionOf(path);
  const bool useBlockList = KaFio_GetMetricBool(KAFIO_METRIC_BLOCK_LIST) &&
                            lowerAscii(fileNameOf(path)) != kCompoundOnlyName;
  const char* status =
      KaFio_GetMetricBool(KAFIO_METRIC_REPORT_BLOCKED) ? "Yes-Blacklisted" : "Yes-Internal Pref";

  // Asks plug-in i; true when it reads the file.
  const auto ask = [&](DWORD i, KAFIOPASS pass) {
    if (tried[i]) return false;
    tried[i] = true;
    if (isNullGuid(entry(i).reader)) return false;
    if (isRememberedBlocked(entry(i))) {
      // It took a surrogate down before: not asked again until its file changes.
      KAFIO_LOG(logger_, 1,
                " IdentifyFileType: mv8compound is bypassed:'%s', '%s' Plugin examined, status: %s",
                name8.c_str(), toUtf8(entry(i).name).c_str(), "Yes-Blacklisted");
      if (last == KAERR_FIO_UNSUPPORTED) last = KAERR_FIO_PLUGIN_BLOCKED;
      return false;
    }
    if (useBlockList && isBypassed(blockList(), entry(i), extension)) {
      KAFIO_LOG(logger_, 2,
                " IdentifyFileType: mv8compound is bypassed:'%s', '%s' Plugin examined, status: %s",
                name8.c_str(), toUtf8(entry(i).name).c_str(), status);
      return false;
    }
    const bool meta = pass == KAFIO_PASS_SIGNATURE && formatHasMetadata(out->formatId) &&
                      KaFio_GetMetricBool(KAFIO_METRIC_READ_META);
    const HRESULT hr = tryPlugin(i, path, keep, out, meta);
    if (SUCCEEDED(hr)) {
      out->plugin = LONG(i);
      out->pass = pass;
      return true;
    }
    if (!isDecline(hr)) last = hr;
    return false;
  };
  const auto found = [&](DWORD i) {
    lastUsed_ = LONG(i);
    return out->result = S_OK;
  };

  if (!slow && out->formatId) {
    const FormatRow* table = formatTable();
    for (size_t r = 0; r < kFormatRows; ++r) {
      if (table[r].formatId != out->formatId || rowPlugin_[r] < 0) continue;
      const DWORD i = DWORD(rowPlugin_[r]);
      if (!ask(i, KAFIO_PASS_SIGNATURE)) continue;
      KAFIO_LOG(logger_, 1, " IdentifyFileType: '%s' Plugin found from file signature for %s",
                toUtf8(entry(i).name).c_str(), name8.c_str());
      return found(i);
    }
  }
  for (DWORD i = 0; i < count(); ++i) {
    if (!listHasExtension(entry(i).readerExtensions, extension) || !ask(i, KAFIO_PASS_EXTENSION))
      continue;
    KAFIO_LOG(logger_, 1, " %s: '%s' Plugin found from file extension for %s", session,
              toUtf8(entry(i).name).c_str(), name8.c_str());
    return found(i);
  }
  if (const LONG lu = lastUsed_;
      lu >= 0 && DWORD(lu) < count() && ask(DWORD(lu), KAFIO_PASS_LAST_USED)) {
    if (slow)
      KAFIO_LOG(logger_, 1, "IdentifyFileTypeSlow:'%s' plugin found from the last used reader",
                toUtf8(entry(DWORD(lu)).name).c_str());
    else
      KAFIO_LOG(logger_, 1, " IdentifyFileType: '%s' Plugin found from last used reader for %s",
                toUtf8(entry(DWORD(lu)).name).c_str(), name8.c_str());
    return found(DWORD(lu));
  }
  if (KaFio_GetMetricBool(KAFIO_METRIC_LIST_PASS)) {
    for (DWORD i = 0; i < count(); ++i) {
      if (!ask(i, KAFIO_PASS_LIST)) continue;
      if (slow)
        KAFIO_LOG(logger_, 1, "IdentifyFileTypeSlow:'%s' plugin found from going through the list",
                  toUtf8(entry(i).name).c_str());
      else
        KAFIO_LOG(logger_, 1,
                  " IdentifyFileType: '%s' Plugin found from going through the list for %s",
                  toUtf8(entry(i).name).c_str(), name8.c_str());
      return found(i);
    }
  }
  if (slow)
    KAFIO_LOG(logger_, 1, "No plugin(s) found though IdentifyFiletypeSlow Session");
  else
    KAFIO_LOG(logger_, 1, "No Plugin Found through IdentifyFileType Session");
  return out->result = last;
} catch (const std::bad_alloc&) {
  return E_OUTOFMEMORY;
}

HRESULT CKaFileIOManager::IdentifyFileType(KAHFILE file, const KAWCHAR* path,
                                           KAFIOIDENTIFY* result) {
  if (!path) return E_POINTER;
  return identify(file, path, false, result, nullptr);
}

HRESULT CKaFileIOManager::IdentifyFileTypeSlow(KAHFILE file, const KAWCHAR* path,
                                               KAFIOIDENTIFY* result) {
  if (!path) return E_POINTER;
  return identify(file, path, true, result, nullptr);
}

HRESULT CKaFileIOManager::CreateReaderForPath(const KAWCHAR* path, DWORD flags,
                                              IKaReadFile** reader, LONG* plugin) {
  if (!path || !reader) return E_POINTER;
  *reader = nullptr;
  KAHFILE file;
  HRESULT hr = KaFile_Open(path, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, &file);
  if (FAILED(hr)) return hr;
  KAFIOIDENTIFY result{};
  IKaReadFile* raw = nullptr;
  hr = identify(file, path, false, &result, &raw);
  KaFile_Close(file);
  if (FAILED(hr)) return hr;
  if (plugin) *plugin = result.plugin;
  hr = KaFio_WrapObject(raw, IID_IKaReadFile, static_cast<IKaFileIOManager*>(this),
                        UINT64(result.plugin), flags, reinterpret_cast<void**>(reader));
  raw->Release();
  return hr;
}

}  // namespace ostra::fileio
