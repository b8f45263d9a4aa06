#include "fio_manager.h"

namespace ostra::cli {

ManagerRun::~ManagerRun() {
  if (manager) manager->Release();
}

HRESULT startManager(bool rescan, bool keepLog, ManagerRun* run) {
  IKaFileIOMgrForApp* app = nullptr;
  HRESULT hr = KaFio_CreateManager(IID_IKaFileIOMgrForApp, reinterpret_cast<void**>(&app));
  if (FAILED(hr)) return hr;
  KAFIOMGRINIT init{sizeof init, 0, u"ostra", nullptr, nullptr, 0};
  hr = app->Initialize(&init);
  if (SUCCEEDED(hr) && keepLog)
    app->SetLogSink(
        [](void* context, DWORD, const char*, int, const char* text) {
          static_cast<std::vector<std::string>*>(context)->emplace_back(text);
        },
        &run->log);
  if (SUCCEEDED(hr)) hr = rescan ? app->Rescan() : app->Start();
  if (SUCCEEDED(hr))
    hr = app->QueryInterface(IID_IKaFileIOManager, reinterpret_cast<void**>(&run->manager));
  app->Release();
  return hr;
}

std::string passName(DWORD pass) {
  switch (pass) {
    case KAFIO_PASS_SIGNATURE:
      return "signature";
    case KAFIO_PASS_EXTENSION:
      return "extension";
    case KAFIO_PASS_LAST_USED:
      return "last used";
    case KAFIO_PASS_LIST:
      return "list";
    default:
      return "none";
  }
}

}  // namespace ostra::cli
