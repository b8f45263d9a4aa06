// errno values to the kernel's result codes, so that a failing system call reads like
// the matching Windows error would (see KaErrorHandler_TranslateWin32Error). Every code
// returned here has a reason text.
#include <cerrno>

#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"

HRESULT KaHresultFromErrno(int err) noexcept {
  switch (err) {
    case 0:
      return S_OK;
    case ENOENT:
    case ENOTDIR:
    case ENXIO:
    case ELOOP:
      return KAERR_NOT_FOUND;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return KAERR_DISK_FULL;
    case EACCES:
    case EPERM:
    case EISDIR:
      return E_ACCESSDENIED;  // opening a folder as a file is refused, not invalid
    case EROFS:
      return KAERR_WRITE_PROTECTED;
    case ENOMEM:
    case ENOBUFS:
      return E_OUTOFMEMORY;
    case EBADF:
      return E_HANDLE;
    case EEXIST:
      return KAERR_ALREADY_EXISTS;
    case EINVAL:
    case E2BIG:
      return E_INVALIDARG;
    case ENOSYS:
    case ENOTSUP:
      return E_NOTIMPL;
#if EOPNOTSUPP != ENOTSUP
    case EOPNOTSUPP:
      return E_NOTIMPL;
#endif
    case EBUSY:
    case ETXTBSY:
      return KAERR_SHARING_VIOLATION;
    case ENOLCK:
    case EDEADLK:
      return KAERR_LOCKED;
    case EMFILE:
    case ENFILE:
      return KAERR_TOO_MANY_FILES;
    case ENAMETOOLONG:
      return KAERR_PATH_TOO_LONG;
    case EFAULT:
      return E_POINTER;
    case ECANCELED:
      return KAERR_CANCELLED;
    case EOVERFLOW:
      return KAERR_FILE_TOO_LARGE;
    case ETIMEDOUT:
      return KAERR_TIMEOUT;
    case EAGAIN:
      return KAERR_BUSY;
    case ENODEV:
      return KAERR_INVALID_DRIVE;
    case EXDEV:
      return KA_FAIL_CODE(0x035);  // rename across file systems
    case ENOTEMPTY:
      return KA_FAIL_CODE(0x036);  // a folder that still holds files
    case ESPIPE:
      return KAERR_SEEK_FAILED;
    case EPIPE:
      return KAERR_WRITE_FAILED;
    case ENETDOWN:
    case ENETUNREACH:
    case EHOSTUNREACH:
    case ECONNREFUSED:
      return KAERR_NETWORK_PATH;
    default:
      return E_FAIL;  // EIO and the rest: the reason is not known more precisely
  }
}

HRESULT KaHresultFromLastError() noexcept { return KaHresultFromErrno(errno); }
