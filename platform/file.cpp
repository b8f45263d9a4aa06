// Files over POSIX descriptors. KAHFILE is the descriptor itself, so a caller that opened
// a file with open(2) can hand it to every chunk function.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "ostra/kaerror.h"
#include "ostra/kaplatform.h"
#include "platform/internal/sysops.h"
#include "platform/internal/text.h"

using ostra::platform::sysOps;

namespace {

// Seconds between 1601-01-01 and 1970-01-01.
constexpr INT64 kUnixEpochInFileTime = 11644473600LL;

HRESULT openPath(const char* path, DWORD access, DWORD share, DWORD disposition, DWORD flags,
                 KAHFILE* out) {
  if (!out) return E_POINTER;
  *out = KA_INVALID_HFILE;
  if (!path || !*path) return E_INVALIDARG;
  int oflags = O_CLOEXEC;
  const bool rd = access & GENERIC_READ, wr = access & GENERIC_WRITE;
  oflags |= (rd && wr) ? O_RDWR : wr ? O_WRONLY : O_RDONLY;
  switch (disposition) {
    case CREATE_NEW:
      oflags |= O_CREAT | O_EXCL;
      break;
    case CREATE_ALWAYS:
      oflags |= O_CREAT | O_TRUNC;
      break;
    case OPEN_EXISTING:
      break;
    case OPEN_ALWAYS:
      oflags |= O_CREAT;
      break;
    case TRUNCATE_EXISTING:
      if (!wr) return E_INVALIDARG;
      oflags |= O_TRUNC;
      break;
    default:
      return E_INVALIDARG;
  }
  if ((oflags & (O_CREAT | O_TRUNC)) && !wr) return E_INVALIDARG;
  int fd;
  do {
    fd = sysOps().open(path, oflags, 0666);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return KaHresultFromLastError();
  struct stat st;
  if (sysOps().fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
    sysOps().close(fd);
    return E_ACCESSDENIED;
  }
  // Sharing is advisory: a writer that does not share writing takes an exclusive lock,
  // readers that do not share writing a shared one, so two such handles refuse each other.
  if (!(share & FILE_SHARE_WRITE)) {
    const int op = wr ? LOCK_EX : LOCK_SH;
    if (flock(fd, op | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
      sysOps().close(fd);
      return KAERR_SHARING_VIOLATION;
    }
  }
#ifdef POSIX_FADV_SEQUENTIAL
  if (flags & FILE_FLAG_SEQUENTIAL_SCAN) posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  if (flags & FILE_FLAG_RANDOM_ACCESS) posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM);
#endif
  *out = fd;
  return S_OK;
}

}  // namespace

HRESULT KaFile_Open(const KAWCHAR* path, DWORD access, DWORD share, DWORD disposition, DWORD flags,
                    KAHFILE* out) noexcept {
  try {
    if (!path) {
      if (out) *out = KA_INVALID_HFILE;
      return E_INVALIDARG;
    }
    const std::string p = ostra::text::utf16ToUtf8(path);
    return openPath(p.c_str(), access, share, disposition, flags, out);
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

HRESULT KaFile_OpenUtf8(const char* path, DWORD access, DWORD share, DWORD disposition, DWORD flags,
                        KAHFILE* out) noexcept {
  return openPath(path, access, share, disposition, flags, out);
}

HRESULT KaFile_Close(KAHFILE file) noexcept {
  if (file < 0) return E_HANDLE;
  // The descriptor is released even when close reports an error (EINTR included).
  return sysOps().close(file) == 0 ? S_OK : KaHresultFromLastError();
}

HRESULT KaFile_Read(KAHFILE file, void* buffer, DWORD count, DWORD* read) noexcept {
  if (read) *read = 0;
  if (file < 0) return E_HANDLE;
  if (!buffer && count) return E_POINTER;
  DWORD total = 0;
  while (total < count) {
    const int64_t n = sysOps().read(file, static_cast<char*>(buffer) + total, count - total);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (read) *read = total;
      return KaHresultFromLastError();
    }
    if (n == 0) break;
    total += DWORD(n);
  }
  if (read) *read = total;
  return S_OK;
}

HRESULT KaFile_Write(KAHFILE file, const void* buffer, DWORD count, DWORD* written) noexcept {
  if (written) *written = 0;
  if (file < 0) return E_HANDLE;
  if (!buffer && count) return E_POINTER;
  DWORD total = 0;
  while (total < count) {
    const int64_t n = sysOps().write(file, static_cast<const char*>(buffer) + total, count - total);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (written) *written = total;
      return KaHresultFromLastError();
    }
    if (n == 0) {
      if (written) *written = total;
      return KAERR_DISK_FULL;
    }
    total += DWORD(n);
  }
  if (written) *written = total;
  return S_OK;
}

HRESULT KaFile_Seek(KAHFILE file, INT64 distance, DWORD method, INT64* newPosition) noexcept {
  if (file < 0) return E_HANDLE;
  const int whence = method == FILE_BEGIN     ? SEEK_SET
                     : method == FILE_CURRENT ? SEEK_CUR
                     : method == FILE_END     ? SEEK_END
                                              : -1;
  if (whence < 0) return E_INVALIDARG;
  const int64_t pos = sysOps().seek(file, distance, whence);
  if (pos < 0) return KaHresultFromLastError();
  if (newPosition) *newPosition = pos;
  return S_OK;
}

HRESULT KaFile_GetPosition(KAHFILE file, INT64* position) noexcept {
  return KaFile_Seek(file, 0, FILE_CURRENT, position);
}

HRESULT KaFile_SetEndOfFile(KAHFILE file) noexcept {
  if (file < 0) return E_HANDLE;
  const int64_t pos = sysOps().seek(file, 0, SEEK_CUR);
  if (pos < 0) return KaHresultFromLastError();
  int rc;
  do {
    rc = sysOps().truncate(file, pos);
  } while (rc != 0 && errno == EINTR);
  return rc == 0 ? S_OK : KaHresultFromLastError();
}

HRESULT KaFile_GetSize(KAHFILE file, UINT64* size) noexcept {
  if (!size) return E_POINTER;
  *size = 0;
  if (file < 0) return E_HANDLE;
  struct stat st;
  if (sysOps().fstat(file, &st) != 0) return KaHresultFromLastError();
  *size = UINT64(st.st_size);
  return S_OK;
}

HRESULT KaFile_GetModifiedTime(KAHFILE file, INT64* fileTime) noexcept {
  if (!fileTime) return E_POINTER;
  *fileTime = 0;
  if (file < 0) return E_HANDLE;
  struct stat st;
  if (sysOps().fstat(file, &st) != 0) return KaHresultFromLastError();
  *fileTime = (INT64(st.st_mtim.tv_sec) + kUnixEpochInFileTime) * 10000000LL +
              INT64(st.st_mtim.tv_nsec) / 100;
  return S_OK;
}

HRESULT KaFile_Flush(KAHFILE file) noexcept {
  if (file < 0) return E_HANDLE;
  return fsync(file) == 0 ? S_OK : KaHresultFromLastError();
}

HRESULT KaFile_DeleteUtf8(const char* path) noexcept {
  if (!path || !*path) return E_INVALIDARG;
  return unlink(path) == 0 ? S_OK : KaHresultFromLastError();
}

HRESULT KaFile_Delete(const KAWCHAR* path) noexcept {
  try {
    if (!path) return E_INVALIDARG;
    return KaFile_DeleteUtf8(ostra::text::utf16ToUtf8(path).c_str());
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}
