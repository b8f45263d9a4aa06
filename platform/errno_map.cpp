#include <cerrno>

#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"

HRESULT KaHresultFromErrno(int err) noexcept {
  switch (err) {
    case 0: return S_OK;
    case ENOENT:
    case ENOTDIR:
    case ENXIO:
    case ELOOP: return KAERR_NOT_FOUND;
    case ENOSPC:
    case EDQUOT:
    case EFBIG: return KAERR_DISK_FULL;
    case EACCES:
    case EPERM:
    case EROFS: return E_ACCESSDENIED;
    case ENOMEM: return E_OUTOFMEMORY;
    case EBADF: return E_HANDLE;
    case EEXIST: return KAERR_ALREADY_EXISTS;
    case EINVAL:
    case EISDIR: return E_INVALIDARG;
    case ENOSYS:
    case ENOTSUP: return E_NOTIMPL;
    case EBUSY:
    case ETXTBSY: return KAERR_SHARING_VIOLATION;
    case EMFILE:
    case ENFILE: return KAERR_TOO_MANY_FILES;
    case ENAMETOOLONG: return KAERR_BAD_NAME;
    case EFAULT: return E_POINTER;
    case ECANCELED: return KAERR_CANCELLED;
    default: return E_FAIL;
  }
}

HRESULT KaHresultFromLastError() noexcept { return KaHresultFromErrno(errno); }
