// The host's side of a surrogate process: starting it, the channel and shared memory to
// it, calls with a time-out, and what happened when it went (crash, abort, hang). The
// proxies that stand for the surrogate's objects in the host are made by
// makeSurrogateFactory; every other proxy comes from calls on it.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "fileio/internal/manager.h"
#include "fileio/internal/surrogate_protocol.h"
#include "ostra/kaipc.h"

namespace ostra::fileio {

// Told when a call cost the surrogate its life: the plug-in, the call and the reason.
using SurrogateFailure =
    std::function<void(const KAFIOPLUGINENTRY& plugin, const char* call, const char* reason)>;

class SurrogateHost {
 public:
  SurrogateHost(LONG index, std::vector<U16> hosted, SurrogateFailure onFailure,
                const CKaLogger* logger);
  ~SurrogateHost();

  // Starts the process unless it runs; S_FALSE when it was running already.
  HRESULT start(HANDLE* process);
  LONG index() const { return index_; }
  // The process generation objects belong to; a restart makes older objects stale.
  unsigned generation() const { return generation_; }

  // One call. `plugin` is the plug-in the object belongs to (for the block list);
  // `generation` the generation the object was made in (0: any, starting if needed).
  // The reply payload goes to `out` when given.
  HRESULT call(const KAFIOPLUGINENTRY& plugin, unsigned generation, const char* name,
               surrogate::Request rq, const void* payload, surrogate::Reply* reply,
               std::vector<BYTE>* out, const void* bulkIn = nullptr, size_t bulkInBytes = 0,
               void* bulkOut = nullptr, size_t bulkOutBytes = 0);

 private:
  HRESULT startLocked(HANDLE* process);
  HRESULT ensureShared(size_t bytes);
  void failLocked(const KAFIOPLUGINENTRY& plugin, const char* call, HRESULT why);

  const LONG index_;
  const std::vector<U16> hosted_;
  SurrogateFailure onFailure_;
  const CKaLogger* logger_;
  std::mutex lock_;
  HANDLE process_ = nullptr;
  KAHIPC channel_ = nullptr;
  KAHSHARED shared_ = nullptr;
  std::atomic<unsigned> generation_{0};  // changed under lock_, read by proxies without it
};

// The name of the surrogate program beside the host's executable.
inline constexpr const KAWCHAR* kSurrogateProgram = u"ostra-surrogate";

// A proxy for the plug-in's factory in the surrogate (loading it there).
HRESULT makeSurrogateFactory(SurrogateHost* host, const KAFIOPLUGINENTRY& plugin,
                             IKaFioPluginFactory** factory);

}  // namespace ostra::fileio
