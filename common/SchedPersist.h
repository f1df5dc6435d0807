// common/SchedPersist.h: the forms in which a schedule is saved: a property bag, a byte stream, a memory block.
//
// One table of rows names each field, its property name and its type tag; every form walks it in the same order.
// Threads: as the schedule.
#pragma once

#include <cstdint>

#include "common/zepSchedIUnknown.h"

class CSchedule;

namespace qx {

// "Object Version" of what is written: 2.50, the major number in the high 16 bits.
inline constexpr std::uint32_t kScheduleObjectVersion = 0x20032;
inline constexpr std::uint32_t kScheduleVersion101 = 0x10100;
inline constexpr std::uint32_t kScheduleVersion200 = 0x20000;
inline constexpr std::uint32_t kScheduleVersion210 = 0x2000A;

// The most that one load from a stream reads, in bytes.
inline constexpr std::uint32_t kStreamReadLimit = 2048;

// Two interfaces ask for the greatest size under one name and mean different things; these bases give each a name.
class PersistStreamInitBase : public zepIPersistStreamInit {
 public:
  ZRESULT GetSizeMax(std::uint32_t* size) final { return StreamSizeMax(size); }
  // An estimate of the stream form's size.
  virtual ZRESULT StreamSizeMax(std::uint32_t* size) = 0;

 protected:
  ~PersistStreamInitBase() = default;
};

class PersistMemoryBase : public zepIPersistMemory {
 public:
  ZRESULT GetSizeMax(std::uint32_t* size) final { return MemorySizeMax(size); }
  // The memory form's exact size.
  virtual ZRESULT MemorySizeMax(std::uint32_t* size) = 0;

 protected:
  ~PersistMemoryBase() = default;
};

// Reads and writes a schedule's fields by the table of rows.
class SchedulePersistence;

}  // namespace qx
