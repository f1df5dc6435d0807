// platform/error_codes.h: the numeric system codes that statuses and log lines carry.
//
// The values are those of the published system error list (winerror.h); a POSIX host's errno is translated into them in
// the one place where the call is made. Every platform call that can fail returns an ErrorCode by value.
#pragma once

#include <cstdint>

namespace platform {

using ErrorCode = std::uint32_t;

inline constexpr ErrorCode ERROR_SUCCESS = 0;
inline constexpr ErrorCode ERROR_INVALID_FUNCTION = 1;
inline constexpr ErrorCode ERROR_FILE_NOT_FOUND = 2;
inline constexpr ErrorCode ERROR_PATH_NOT_FOUND = 3;
inline constexpr ErrorCode ERROR_TOO_MANY_OPEN_FILES = 4;
inline constexpr ErrorCode ERROR_ACCESS_DENIED = 5;
inline constexpr ErrorCode ERROR_INVALID_HANDLE = 6;
inline constexpr ErrorCode ERROR_NOT_ENOUGH_MEMORY = 8;
inline constexpr ErrorCode ERROR_INVALID_DATA = 13;
inline constexpr ErrorCode ERROR_OUTOFMEMORY = 14;
inline constexpr ErrorCode ERROR_WRITE_PROTECT = 19;
inline constexpr ErrorCode ERROR_SHARING_VIOLATION = 32;
inline constexpr ErrorCode ERROR_LOCK_VIOLATION = 33;
inline constexpr ErrorCode ERROR_HANDLE_EOF = 38;
inline constexpr ErrorCode ERROR_NOT_SUPPORTED = 50;
inline constexpr ErrorCode ERROR_FILE_EXISTS = 80;
inline constexpr ErrorCode ERROR_INVALID_PARAMETER = 87;
inline constexpr ErrorCode ERROR_NO_PROC_SLOTS = 89;
inline constexpr ErrorCode ERROR_DISK_FULL = 112;
inline constexpr ErrorCode ERROR_INSUFFICIENT_BUFFER = 122;
inline constexpr ErrorCode ERROR_INVALID_NAME = 123;
inline constexpr ErrorCode ERROR_MOD_NOT_FOUND = 126;
inline constexpr ErrorCode ERROR_PROC_NOT_FOUND = 127;
inline constexpr ErrorCode ERROR_DIR_NOT_EMPTY = 145;
inline constexpr ErrorCode ERROR_BAD_PATHNAME = 161;
inline constexpr ErrorCode ERROR_BUSY = 170;
inline constexpr ErrorCode ERROR_ALREADY_EXISTS = 183;
inline constexpr ErrorCode ERROR_BAD_EXE_FORMAT = 193;
inline constexpr ErrorCode ERROR_FILENAME_EXCED_RANGE = 206;
inline constexpr ErrorCode ERROR_FILE_TOO_LARGE = 223;
inline constexpr ErrorCode ERROR_MORE_DATA = 234;
inline constexpr ErrorCode ERROR_NO_MORE_ITEMS = 259;
inline constexpr ErrorCode ERROR_DIRECTORY = 267;
inline constexpr ErrorCode ERROR_NOACCESS = 998;
inline constexpr ErrorCode ERROR_INVALID_FLAGS = 1004;
inline constexpr ErrorCode ERROR_NO_TOKEN = 1008;
inline constexpr ErrorCode ERROR_BADDB = 1009;
inline constexpr ErrorCode ERROR_REGISTRY_CORRUPT = 1015;
inline constexpr ErrorCode ERROR_REGISTRY_IO_FAILED = 1016;
inline constexpr ErrorCode ERROR_KEY_DELETED = 1018;
inline constexpr ErrorCode ERROR_KEY_HAS_CHILDREN = 1020;
inline constexpr ErrorCode ERROR_NO_UNICODE_TRANSLATION = 1113;
inline constexpr ErrorCode ERROR_IO_DEVICE = 1117;
inline constexpr ErrorCode ERROR_CONNECTION_REFUSED = 1225;
inline constexpr ErrorCode ERROR_CONNECTION_ABORTED = 1236;
inline constexpr ErrorCode ERROR_TIMEOUT = 1460;
inline constexpr ErrorCode ERROR_NOT_CONNECTED = 2250;
inline constexpr ErrorCode ERROR_REQUEST_REFUSED = 4320;

// The status of a failed system call in its usual 32-bit form: a code above 0 has its low 16 bits put under 0x80070000,
// any other value stays as it is.
[[nodiscard]] constexpr std::uint32_t StatusFromErrorCode(ErrorCode code) {
  return static_cast<std::int32_t>(code) > 0 ? (code & 0xFFFFu) | 0x80070000u : code;
}

// The code for an errno value of this host; 0 for 0, ERROR_INVALID_FUNCTION for one without a counterpart.
[[nodiscard]] ErrorCode ErrorCodeFromErrno(int error);

}  // namespace platform
