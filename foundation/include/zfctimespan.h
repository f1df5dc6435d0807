// foundation/include/zfctimespan.h: WTimeSpan, a signed duration in milliseconds.
//
// Threads: a value belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "foundation/include/zfcexport.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

class bistream;
class bostream;

// The values have virtual operations and are never deleted through a base, so they carry no virtual destructor.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

class WTimeSpan {
 public:
  WTimeSpan() = default;
  // `magnitude` in milliseconds.
  WTimeSpan(std::uint64_t magnitude, bool negative) : m_magnitude(magnitude), m_negative(negative) {}

  // Sign, days, ":", hours, ":", minutes and seconds of two digits, ".", milliseconds of three.
  virtual void Print(std::ostream& stream) const;
  // One sign character, then five decimal numbers (days, hours, minutes, seconds, milliseconds), each but the last with
  // one character behind it that isn't looked at. A stream that fails leaves the span as it was.
  virtual void Read(std::istream& stream);
  // The magnitude in 64 bits, then one byte of sign; a stream that fails leaves the span as it was.
  virtual void BinaryOut(bostream& stream) const;
  virtual void BinaryIn(bistream& stream);

  // As above but without padding.
  //   text  room for 64 bytes, written with its NUL
  void Print(char* text) const;

  // The parts of the magnitude; null pointers are passed over. The sign is IsNegative().
  void GetSpan(int* days, int* hours, int* minutes, int* seconds, int* milliseconds) const;
  // Whole years of 365.25 days.
  [[nodiscard]] std::uint64_t GetTotalYears() const;
  [[nodiscard]] int GetDayPortion() const;
  [[nodiscard]] int GetHourPortion() const;
  [[nodiscard]] int GetMinutePortion() const;
  [[nodiscard]] int GetSecondPortion() const;
  [[nodiscard]] int GetMilliSecondPortion() const;

  // Milliseconds.
  [[nodiscard]] std::uint64_t GetMagnitude() const { return m_magnitude; }
  [[nodiscard]] bool IsNegative() const { return m_negative != 0; }

  // Adds a signed number of milliseconds as += does; 0 does nothing.
  void IncrementMilliSeconds(int milliseconds);

  WTimeSpan operator+(const WTimeSpan& other) const;
  WTimeSpan operator-(const WTimeSpan& other) const;
  // Deliberate: a result of zero keeps this span's sign.
  WTimeSpan& operator+=(const WTimeSpan& other);
  WTimeSpan& operator-=(const WTimeSpan& other);
  // Deliberate: a negative zero is below a positive one.
  bool operator<(const WTimeSpan& other) const;

 private:
  std::uint64_t m_magnitude = 0;
  std::uint8_t m_negative = 0;
};

#pragma GCC diagnostic pop

}  // namespace ZepFoundation
