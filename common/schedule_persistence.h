// common/schedule_persistence.h: the table of a schedule's fields, and the forms that walk it.
//
// One row names a field, its property name and its type tag; the byte form and the property form follow from the tag.
// Bytes are big-endian: class identifier, version, schedule identifier, then the rows without names or separators.
// Threads: as the schedule's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <variant>
#include <vector>

#include "common/DayOfWeek.h"
#include "common/property_value.h"
#include "common/schedule_dates.h"
#include "common/zepSchedIUnknown.h"
#include "foundation/include/zfcbytes.h"
#include "foundation/include/zfcdate.h"
#include "foundation/include/zfcstring.h"
#include "foundation/include/zfctime.h"
#include "foundation/include/zfctimespan.h"

class CSchedule;

namespace qx {

using StringMap = std::map<ZepFoundation::wcstring, ZepFoundation::wcstring>;

// The field of a row; its type is the one that the row's tag asks for.
using PersistField =
    std::variant<std::monostate, ZepFoundation::wcstring*, ZepFoundation::CDate*, ZepFoundation::WTime*,
                 ZepFoundation::WTimeSpan*, zepByte*, std::int16_t*, std::uint16_t*, std::int32_t*, std::uint32_t*,
                 DateSet*, std::vector<std::int16_t>*, StringMap*, CDayOfWeek*>;

// A row without a name or without a field is passed over.
struct PersistRow {
  const char16_t* name = nullptr;
  ZepTag tag = 0;
  PersistField field;
};

class SchedulePersistence {
 public:
  explicit SchedulePersistence(CSchedule& schedule) : m_schedule(schedule) {}

  // The schedule's rows in the order of every form.
  [[nodiscard]] std::vector<PersistRow> Rows() const;

  // The rows' bytes. A failure is the stream's state.
  void SaveToStream(ZepFoundation::bostream& out, std::span<const PersistRow> rows) const;
  // Versions 2.x. A row whose bytes end early keeps its field as it was, and the next row is tried. Counts from the
  // stream reserve no memory.
  void LoadFromStream(ZepFoundation::bistream& in, std::span<const PersistRow> rows) const;
  // Version 1.x: flags of 32 bits, no custom data, days of the week as pairs counted from 1, and an hour off each time
  // when daylight saving is in force now. A day or a week out of range throws std::out_of_range; those ahead are set.
  void LoadFromStreamV1(ZepFoundation::bistream& in, std::span<const PersistRow> rows) const;

  // Every row as a property; what the bag answers isn't looked at.
  void SaveToBag(zepIPropertyBag& bag, std::span<const PersistRow> rows) const;
  // A property that can't be read, or that the bag hasn't (its value comes back as it went in), leaves its field as it
  // was.
  void LoadFromBag(zepIPropertyBag& bag, std::span<const PersistRow> rows) const;

  // The operations of the persistence interfaces (zepSchedIUnknown.h).
  [[nodiscard]] ZRESULT Save(zepIPropertyBag* bag, zepByte clearDirty) const;
  [[nodiscard]] ZRESULT Load(zepIPropertyBag* bag) const;
  [[nodiscard]] ZRESULT Save(zepIStream* stream, zepByte clearDirty) const;
  [[nodiscard]] ZRESULT Load(zepIStream* stream) const;
  [[nodiscard]] ZRESULT Save(void* memory, zepByte clearDirty, std::uint32_t size) const;
  [[nodiscard]] ZRESULT Load(void* memory, std::uint32_t size) const;
  [[nodiscard]] ZRESULT StreamSizeMax(std::uint32_t* size) const;
  [[nodiscard]] ZRESULT MemorySizeMax(std::uint32_t* size) const;

 private:
  void WriteAll(ZepFoundation::bostream& out) const;
  void ReadAll(ZepFoundation::bistream& in, ZRESULT& result) const;
  void ReadBag(zepIPropertyBag& bag, ZRESULT& result) const;

  CSchedule& m_schedule;
};

}  // namespace qx
