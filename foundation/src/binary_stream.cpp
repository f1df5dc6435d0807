#include <algorithm>
#include <array>
#include <bit>
#include <limits>
#include <new>
#include <ostream>
#include <stdexcept>
#include <type_traits>

#include "foundation/include/zfcbytes.h"
#include "platform/debug_output.h"

namespace ZepFoundation {

namespace {

using Traits = std::streambuf::traits_type;

constexpr std::size_t kCopyBlock = 512;
constexpr std::size_t kLeastAllocation = 32;

CByteOrder::ByteOrder OrderOfStream(CByteOrder::ByteOrder order) {
  const CByteOrder::ByteOrder native = CByteOrder::Native();
  return order == CByteOrder::kNative ? native : order;
}

template <class T>
T Swapped(T value) {
  auto bytes = std::bit_cast<std::array<unsigned char, sizeof(T)>>(value);
  std::reverse(bytes.begin(), bytes.end());
  return std::bit_cast<T>(bytes);
}

template <class T>
T InOrder(T value, CByteOrder::ByteOrder order) {
  if constexpr (sizeof(T) == 1) return value;
  return order == CByteOrder::Native() ? value : Swapped(value);
}

// Has `ask` work on a stream's buffer. What that throws becomes the bad bit, and leaves only where the caller has
// enabled exceptions for it, as with the standard streams.
template <class Ask>
auto Asked(std::ios& stream, std::invoke_result_t<Ask> failed, Ask ask) {
  try {
    return ask();
  } catch (...) {
    try {
      stream.setstate(std::ios::badbit);
    } catch (const std::ios::failure&) {  // what the buffer threw says more
    }
    if ((stream.exceptions() & std::ios::badbit) != 0) throw;
    return failed;
  }
}

// What is left to read; 0 where the buffer can't be positioned.
std::streamsize LeftIn(std::streambuf& buffer) {
  const std::streampos failed(std::streamoff(-1));
  const std::streampos position = buffer.pubseekoff(0, std::ios_base::cur, std::ios_base::in);
  if (position == failed) return 0;
  const std::streampos end = buffer.pubseekoff(0, std::ios_base::end, std::ios_base::in);
  buffer.pubseekpos(position, std::ios_base::in);
  return end == failed ? 0 : end - position;
}

// Copies until the source ends or the target takes no more; gives the number of bytes that arrived. A buffer that is
// copied behind itself would never end: it gives what it holds at the beginning.
std::streamsize Copy(std::streambuf& from, std::streambuf& to) {
  std::array<char, kCopyBlock> block;
  std::streamsize left = &from == &to ? LeftIn(from) : std::numeric_limits<std::streamsize>::max();
  std::streamsize copied = 0;
  while (left > 0) {
    const std::streamsize got = from.sgetn(block.data(), std::min<std::streamsize>(left, block.size()));
    if (got <= 0) break;
    const std::streamsize put = to.sputn(block.data(), got);
    copied += put;
    left -= got;
    if (put != got) break;
  }
  return copied;
}

std::streamoff SizeOf(std::streambuf* buffer, std::ios_base::openmode which) {
  const std::streampos failed(std::streamoff(-1));
  if (buffer == nullptr) return -1;
  const std::streampos position = buffer->pubseekoff(0, std::ios_base::cur, which);
  if (position == failed) return -1;
  const std::streampos begin = buffer->pubseekoff(0, std::ios_base::beg, which);
  const std::streampos end = buffer->pubseekoff(0, std::ios_base::end, which);
  buffer->pubseekpos(position, which);
  return begin == failed || end == failed ? -1 : end - begin;
}

}  // namespace

// --- bistream ---

bistream::bistream(std::streambuf* buffer, CByteOrder::ByteOrder order) : m_byteOrder(OrderOfStream(order)) {
  init(buffer);
}

bool bistream::ipfx() {
  if (good() && tie() != nullptr) tie()->flush();
  if (!good()) setstate(failbit);
  return good();
}

int bistream::sync() {
  if (std::ios::rdbuf() == nullptr) return -1;
  if (Asked(*this, -1, [this] { return std::ios::rdbuf()->pubsync(); }) != -1) return 0;
  setstate(badbit);
  return -1;
}

std::streamoff bistream::size() {
  return Asked(*this, -1, [this] { return SizeOf(std::ios::rdbuf(), in); });
}

bistream& bistream::read(char* buffer, std::int32_t count) {
  m_gcount = 0;
  if (!ipfx()) return *this;
  const std::streamsize wanted = std::max<std::int32_t>(count, 0);
  const std::streamsize got = Asked(*this, 0, [&] { return std::ios::rdbuf()->sgetn(buffer, wanted); });
  if (got == wanted) return *this;
  m_gcount += static_cast<std::int32_t>(got);
  setstate(failbit);
  return *this;
}

int bistream::get() {
  if (!ipfx()) return Traits::eof();
  const int c = Asked(*this, Traits::eof(), [this] { return std::ios::rdbuf()->sbumpc(); });
  if (c == Traits::eof()) setstate(failbit);
  return c;
}

int bistream::peek() {
  return ipfx() ? Asked(*this, Traits::eof(), [this] { return std::ios::rdbuf()->sgetc(); }) : Traits::eof();
}

bistream& bistream::putback(char c) {
  if (!ipfx()) return *this;
  const int put = Asked(*this, Traits::eof(), [&] { return std::ios::rdbuf()->sputbackc(c); });
  if (put == Traits::eof()) setstate(badbit);
  return *this;
}

bistream& bistream::operator>>(char* target) {
  if (!ipfx()) return *this;
  for (;;) {
    const int c = Asked(*this, Traits::eof(), [this] { return std::ios::rdbuf()->sbumpc(); });
    if (c != Traits::eof()) *target++ = static_cast<char>(c);
    if (c == 0) return *this;
    // Deliberate: the byte 255 isn't told from the end of the stream.
    if (c == Traits::eof() || c == 255) {
      setstate(failbit);
      return *this;
    }
  }
}

bistream& bistream::operator>>(std::streambuf& target) {
  if (!ipfx() || Asked(*this, 0, [&] { return Copy(*std::ios::rdbuf(), target); }) == 0) setstate(failbit);
  return *this;
}

bistream& bistream::operator>>(bostream& target) {
  if (target.std::ios::rdbuf() == nullptr) {
    setstate(failbit);
    return *this;
  }
  return *this >> *target.std::ios::rdbuf();
}

template <class T>
bistream& bistream::Extract(T& value) {
  std::array<char, sizeof(T)> bytes{};
  read(bytes.data(), sizeof(T));
  value = InOrder(std::bit_cast<T>(bytes), m_byteOrder);
  return *this;
}

bistream& bistream::operator>>(char& value) { return Extract(value); }
bistream& bistream::operator>>(signed char& value) { return Extract(value); }
bistream& bistream::operator>>(unsigned char& value) { return Extract(value); }
bistream& bistream::operator>>(std::int16_t& value) { return Extract(value); }
bistream& bistream::operator>>(std::uint16_t& value) { return Extract(value); }
bistream& bistream::operator>>(std::int32_t& value) { return Extract(value); }
bistream& bistream::operator>>(std::uint32_t& value) { return Extract(value); }
bistream& bistream::operator>>(std::int64_t& value) { return Extract(value); }
bistream& bistream::operator>>(std::uint64_t& value) { return Extract(value); }

// --- bostream ---

bostream::bostream(std::streambuf* buffer, CByteOrder::ByteOrder order) : m_byteOrder(OrderOfStream(order)) {
  init(buffer);
}

bool bostream::opfx() {
  if (good() && tie() != nullptr) tie()->flush();
  return good();
}

void bostream::osfx() {
  if ((flags() & unitbuf) != 0) flush();
}

std::streamoff bostream::size() {
  return Asked(*this, -1, [this] { return SizeOf(std::ios::rdbuf(), out); });
}

bostream& bostream::write(const char* buffer, std::streamsize count) {
  if (count < 0 || !opfx()) {
    setstate(badbit);
    return *this;
  }
  if (Asked(*this, -1, [&] { return std::ios::rdbuf()->sputn(buffer, count); }) != count) setstate(badbit);
  osfx();
  return *this;
}

bostream& bostream::write(const signed char* buffer, std::streamsize count) {
  return write(reinterpret_cast<const char*>(buffer), count);
}

bostream& bostream::write(const unsigned char* buffer, std::streamsize count) {
  return write(reinterpret_cast<const char*>(buffer), count);
}

bostream& bostream::put(char c) { return write(&c, 1); }
bostream& bostream::put(unsigned char c) { return write(&c, 1); }

bostream& bostream::flush() {
  if (std::ios::rdbuf() == nullptr) return *this;
  if (Asked(*this, -1, [this] { return std::ios::rdbuf()->pubsync(); }) == -1) setstate(badbit);
  return *this;
}

bostream& bostream::operator<<(std::streambuf& source) {
  if (!opfx() || Asked(*this, 0, [&] { return Copy(source, *std::ios::rdbuf()); }) == 0) setstate(failbit);
  osfx();
  return *this;
}

bostream& bostream::operator<<(bistream& source) {
  if (source.std::ios::rdbuf() == nullptr) {
    setstate(failbit);
    return *this;
  }
  return *this << *source.std::ios::rdbuf();
}

template <class T>
bostream& bostream::Insert(T value) {
  const auto bytes = std::bit_cast<std::array<char, sizeof(T)>>(InOrder(value, m_byteOrder));
  return write(bytes.data(), sizeof(T));
}

bostream& bostream::operator<<(char value) { return Insert(value); }
bostream& bostream::operator<<(signed char value) { return Insert(value); }
bostream& bostream::operator<<(unsigned char value) { return Insert(value); }
bostream& bostream::operator<<(std::int16_t value) { return Insert(value); }
bostream& bostream::operator<<(std::uint16_t value) { return Insert(value); }
bostream& bostream::operator<<(std::int32_t value) { return Insert(value); }
bostream& bostream::operator<<(std::uint32_t value) { return Insert(value); }
bostream& bostream::operator<<(std::int64_t value) { return Insert(value); }
bostream& bostream::operator<<(std::uint64_t value) { return Insert(value); }

bostream& endl(bostream& stream) { return stream.put('\n').flush(); }
bostream& ends(bostream& stream) { return stream.put('\0'); }
bostream& flush(bostream& stream) { return stream.flush(); }

// --- bstrstreambuf ---

bstrstreambuf::bstrstreambuf() : m_kind(Kind::kGrowing) {}

bstrstreambuf::bstrstreambuf(const char* buffer, std::streamsize size) : m_kind(Kind::kReadOnly) {
  // The put area stays empty and a put back only moves: nothing is ever written through this pointer.
  char* begin = const_cast<char*>(buffer);
  setg(begin, begin, begin + std::max<std::streamsize>(size, 0));
}

bstrstreambuf::bstrstreambuf(char* buffer, std::streamsize size) : m_kind(Kind::kFixed) {
  setg(buffer, buffer, buffer);
  setp(buffer, buffer + std::max<std::streamsize>(size, 0));
  m_written = buffer;
}

char* bstrstreambuf::End() {
  if (m_kind == Kind::kReadOnly) return egptr();
  if (pptr() > m_written) m_written = pptr();
  return m_written;
}

std::string_view bstrstreambuf::view() {
  const char* begin = m_kind == Kind::kReadOnly ? eback() : pbase();
  return begin == nullptr ? std::string_view() : std::string_view(begin, static_cast<std::size_t>(End() - begin));
}

bstrstreambuf::int_type bstrstreambuf::underflow() {
  char* const end = End();
  if (gptr() >= end) {
    if (m_readLimit != 0) platform::DebugOutput("bstrstream: READ LIMIT ENGAGED!!!\n");
    return traits_type::eof();
  }
  setg(eback(), gptr(), end);
  return traits_type::to_int_type(*gptr());
}

void bstrstreambuf::SetPut(char* begin, char* next, char* end) {
  setp(begin, end);
  for (std::ptrdiff_t left = next - begin; left > 0;) {  // pbump() takes an int
    const int step = static_cast<int>(std::min<std::ptrdiff_t>(left, std::numeric_limits<int>::max()));
    pbump(step);
    left -= step;
  }
}

bool bstrstreambuf::Grow() {
  const std::ptrdiff_t written = End() - pbase();
  const std::ptrdiff_t next = pptr() - pbase();
  const std::ptrdiff_t read = gptr() - eback();
  try {
    m_storage.resize(std::max(kLeastAllocation, m_storage.size() * 2));
  } catch (const std::bad_alloc&) {
    return false;
  } catch (const std::length_error&) {
    return false;
  }
  char* const begin = m_storage.data();
  SetPut(begin, begin + next, begin + m_storage.size());
  m_written = begin + written;
  setg(begin, begin + read, m_written);
  return true;
}

bstrstreambuf::int_type bstrstreambuf::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
  if (pptr() == epptr() && (m_kind != Kind::kGrowing || !Grow())) return traits_type::eof();
  *pptr() = traits_type::to_char_type(c);
  pbump(1);
  return c;
}

bstrstreambuf::int_type bstrstreambuf::pbackfail(int_type c) {
  if (gptr() == eback()) return traits_type::eof();
  if (traits_type::eq_int_type(c, traits_type::eof())) {
    gbump(-1);
    return traits_type::not_eof(c);
  }
  // Another byte than the one that was read: only memory that may be written takes it.
  if (m_kind == Kind::kReadOnly && traits_type::to_int_type(gptr()[-1]) != c) return traits_type::eof();
  gbump(-1);
  if (m_kind != Kind::kReadOnly) *gptr() = traits_type::to_char_type(c);
  return c;
}

bstrstreambuf::pos_type bstrstreambuf::seekoff(off_type offset, std::ios_base::seekdir from,
                                               std::ios_base::openmode which) {
  const pos_type failed(off_type(-1));
  const bool get = (which & std::ios_base::in) != 0;
  const bool put = (which & std::ios_base::out) != 0 && m_kind != Kind::kReadOnly;
  if (!get && !put) return failed;
  if (get && put && from == std::ios_base::cur) return failed;  // the two positions differ
  char* const end = End();
  char* const begin = m_kind == Kind::kReadOnly ? eback() : pbase();
  const off_type length = end - begin;
  off_type base = 0;
  if (from == std::ios_base::end) base = length;
  if (from == std::ios_base::cur) base = get ? gptr() - eback() : pptr() - pbase();
  if (offset < -base || offset > length - base) return failed;
  const off_type target = base + offset;
  if (get) setg(begin, begin + target, end);
  if (put) SetPut(begin, begin + target, epptr());
  return target;
}

bstrstreambuf::pos_type bstrstreambuf::seekpos(pos_type position, std::ios_base::openmode which) {
  return seekoff(off_type(position), std::ios_base::beg, which);
}

// --- memory streams ---

// The buffer is a member and comes to life after the base, so it is put in afterwards.
bistrstream::bistrstream(const char* buffer, std::streamsize size, CByteOrder::ByteOrder order)
    : bistream(nullptr, order), m_buffer(buffer, size) {
  std::ios::rdbuf(&m_buffer);
}

bostrstream::bostrstream(CByteOrder::ByteOrder order) : bostream(nullptr, order) { std::ios::rdbuf(&m_buffer); }

bostrstream::bostrstream(char* buffer, std::streamsize size, CByteOrder::ByteOrder order)
    : bostream(nullptr, order), m_buffer(buffer, size) {
  std::ios::rdbuf(&m_buffer);
}

}  // namespace ZepFoundation
