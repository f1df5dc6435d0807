#include "platform/fault_point.h"

#include <cerrno>

namespace platform {

std::atomic<bool> detail::g_faultSeamArmed{false};

std::string_view OperationName(Operation operation) {
  static constexpr std::string_view kNames[] = {
#define QX_PLATFORM_OPERATION_NAME(name) #name,
      QX_PLATFORM_OPERATIONS(QX_PLATFORM_OPERATION_NAME)
#undef QX_PLATFORM_OPERATION_NAME
  };
  const auto index = static_cast<std::size_t>(operation);
  return index < static_cast<std::size_t>(Operation::kCount) ? kNames[index] : std::string_view("?");
}

ErrorCode ErrorCodeFromErrno(int error) {
  struct Row {
    int error;
    ErrorCode code;
  };
  static constexpr Row kRows[] = {
      {0, ERROR_SUCCESS},
      {ENOENT, ERROR_FILE_NOT_FOUND},
      {ENOTDIR, ERROR_PATH_NOT_FOUND},
      {EACCES, ERROR_ACCESS_DENIED},
      {EPERM, ERROR_ACCESS_DENIED},
      {EISDIR, ERROR_ACCESS_DENIED},
      {ELOOP, ERROR_PATH_NOT_FOUND},
      {EROFS, ERROR_WRITE_PROTECT},
      {EBADF, ERROR_INVALID_HANDLE},
      {EMFILE, ERROR_TOO_MANY_OPEN_FILES},
      {ENFILE, ERROR_TOO_MANY_OPEN_FILES},
      {ENOMEM, ERROR_NOT_ENOUGH_MEMORY},
      {EAGAIN, ERROR_NO_PROC_SLOTS},
      {EEXIST, ERROR_ALREADY_EXISTS},
      {EINVAL, ERROR_INVALID_PARAMETER},
      {ENAMETOOLONG, ERROR_FILENAME_EXCED_RANGE},
      {E2BIG, ERROR_FILENAME_EXCED_RANGE},
      {ENOSPC, ERROR_DISK_FULL},
      {EDQUOT, ERROR_DISK_FULL},
      {EFBIG, ERROR_DISK_FULL},
      {ENOTEMPTY, ERROR_DIR_NOT_EMPTY},
      {EBUSY, ERROR_BUSY},
      {ETXTBSY, ERROR_SHARING_VIOLATION},
      {ENOEXEC, ERROR_BAD_EXE_FORMAT},
      {EIO, ERROR_IO_DEVICE},
      {ENOSYS, ERROR_NOT_SUPPORTED},
  };
  for (const Row& row : kRows) {
    if (row.error == error) return row.code;
  }
  return ERROR_INVALID_FUNCTION;
}

}  // namespace platform
