// foundation/include/zfcbytes.h: binary streams over a stream buffer, each with a byte order of its own.
//
// Integers pass in the stream's order, two's complement, in the width of their type; characters and character arrays
// pass as they are. Errors are the stream's state, as in the standard streams: test it after a sequence of operations
// and before a value is used. Nothing throws unless the caller has enabled exceptions of the stream: what a buffer
// throws sets the bad bit.
// Threads: a stream belongs to one thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <ios>
#include <streambuf>
#include <string_view>
#include <vector>

#include "foundation/include/zfcexport.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

class bostream;

struct CByteOrder {  // the order of bytes in a stream
  enum ByteOrder : std::int32_t {
    kUndetermined = 0,  // only in m_sNativeByteOrder, before it was needed
    kNative = 1,        // replaced by the host's order when a stream is made
    kLittleEndian = 2,
    kBigEndian = 3,
  };
  // The host's order; determined on the first call.
  [[nodiscard]] static ByteOrder Native();
  static std::atomic<ByteOrder> m_sNativeByteOrder;
};

// Reads binary values.
class bistream : virtual public std::ios {
 public:
  //   buffer  borrowed for the stream's life; null makes a stream in the bad state
  //   order   kNative is replaced by the host's order, any other value kept
  bistream(std::streambuf* buffer, CByteOrder::ByteOrder order);

  // Before input: flushes a tied stream. False, with the failure bit set, when the state isn't good.
  bool ipfx();
  // Has the buffer synchronise; a failure sets the bad bit. Returns 0 or -1.
  int sync();
  // Bytes from the buffer's start to its end; the position is unchanged afterwards. -1 when the buffer can't be
  // positioned.
  virtual std::streamoff size();

  // Reads exactly `count` bytes. On a shortfall what came is in `buffer` and its number in gcount(), and the failure
  // bit is set.
  bistream& read(char* buffer, std::int32_t count);
  // Deliberate: the number of bytes that the last read() got when it fell short, 0 when it got all.
  [[nodiscard]] std::int32_t gcount() const { return m_gcount; }
  // The next byte as 0 to 255, taken or left; end of file (-1) at the end. get() sets the failure bit there.
  int get();
  int peek();
  bistream& putback(char c);

  // Bytes up to and including a zero byte, without any limit: the caller answers for the size of `target`. A text that
  // ends otherwise gets no zero byte.
  // Deliberate: a byte of value 255 is stored and ends the text with the failure bit, as the end of the stream does.
  bistream& operator>>(char* target);
  // The rest of this stream into another one, or once behind itself; the failure bit when there was nothing to copy.
  bistream& operator>>(std::streambuf& target);
  bistream& operator>>(bostream& target);

  // After a short read the value is 0 or what the read bytes make of it.
  bistream& operator>>(char& value);
  bistream& operator>>(signed char& value);
  bistream& operator>>(unsigned char& value);
  bistream& operator>>(std::int16_t& value);
  bistream& operator>>(std::uint16_t& value);
  bistream& operator>>(std::int32_t& value);
  bistream& operator>>(std::uint32_t& value);
  bistream& operator>>(std::int64_t& value);
  bistream& operator>>(std::uint64_t& value);

  [[nodiscard]] CByteOrder::ByteOrder byte_order() const { return m_byteOrder; }

 private:
  template <class T>
  bistream& Extract(T& value);

  CByteOrder::ByteOrder m_byteOrder;
  std::int32_t m_gcount = 0;
};

// Writes binary values.
class bostream : virtual public std::ios {
 public:
  // As bistream's.
  bostream(std::streambuf* buffer, CByteOrder::ByteOrder order);

  // Before output: flushes a tied stream; false when the state isn't good.
  bool opfx();
  // After output: flushes when the stream is unit-buffered.
  void osfx();
  virtual std::streamoff size();

  // Writes `count` bytes; a shortfall or a state that isn't good sets the bad bit, and so does a negative count.
  bostream& write(const char* buffer, std::streamsize count);
  bostream& write(const signed char* buffer, std::streamsize count);
  bostream& write(const unsigned char* buffer, std::streamsize count);
  bostream& put(char c);
  bostream& put(unsigned char c);
  bostream& flush();

  // All that the source still has, the stream's own buffer once; the failure bit when that is nothing.
  bostream& operator<<(std::streambuf& source);
  bostream& operator<<(bistream& source);

  bostream& operator<<(char value);
  bostream& operator<<(signed char value);
  bostream& operator<<(unsigned char value);
  bostream& operator<<(std::int16_t value);
  bostream& operator<<(std::uint16_t value);
  bostream& operator<<(std::int32_t value);
  bostream& operator<<(std::uint32_t value);
  bostream& operator<<(std::int64_t value);
  bostream& operator<<(std::uint64_t value);
  bostream& operator<<(bostream& (*manipulator)(bostream&)) { return manipulator(*this); }

  [[nodiscard]] CByteOrder::ByteOrder byte_order() const { return m_byteOrder; }

 private:
  template <class T>
  bostream& Insert(T value);

  CByteOrder::ByteOrder m_byteOrder;
};

// A newline byte and a flush; a zero byte; a flush.
bostream& endl(bostream& stream);
bostream& ends(bostream& stream);
bostream& flush(bostream& stream);

// Memory as a stream buffer: an own one that grows, or one of the caller, which must live as long as this.
class bstrstreambuf : public std::streambuf {
 public:
  // Own memory: what was written can be read. It grows by doubling, from at least 32 bytes.
  bstrstreambuf();
  // `size` bytes to read, never written to.
  bstrstreambuf(const char* buffer, std::streamsize size);
  // `size` bytes to write, and to read what was written.
  bstrstreambuf(char* buffer, std::streamsize size);

  bstrstreambuf(const bstrstreambuf&) = delete;
  bstrstreambuf& operator=(const bstrstreambuf&) = delete;

  // With the limit set, a read beyond the end is told to the debugger output and is an end of stream. Clear in a new
  // object.
  void SetReadLimit(bool limit) { m_readLimit = limit; }

  // What is there from the buffer's start to the farthest byte written, or all of a buffer to read. Valid to the next
  // write.
  [[nodiscard]] std::string_view view();

 protected:
  int_type underflow() override;
  int_type overflow(int_type c) override;
  int_type pbackfail(int_type c) override;
  pos_type seekoff(off_type offset, std::ios_base::seekdir from, std::ios_base::openmode which) override;
  pos_type seekpos(pos_type position, std::ios_base::openmode which) override;

 private:
  enum class Kind : std::uint8_t { kGrowing, kReadOnly, kFixed };

  // The end of what can be read.
  char* End();
  bool Grow();
  void SetPut(char* begin, char* next, char* end);

  Kind m_kind;
  std::uint8_t m_readLimit = 0;
  std::vector<char> m_storage;
  char* m_written = nullptr;  // behind the farthest byte written
};

// Reads from the caller's memory.
class bistrstream : public bistream {
 public:
  //   buffer  borrowed for the stream's life
  //   size    in bytes; a negative one counts as 0
  bistrstream(const char* buffer, std::streamsize size, CByteOrder::ByteOrder order);
  [[nodiscard]] bstrstreambuf* rdbuf() { return &m_buffer; }

 private:
  bstrstreambuf m_buffer;
};

// Writes to memory.
class bostrstream : public bostream {
 public:
  // To memory of its own.
  explicit bostrstream(CByteOrder::ByteOrder order);
  // To the caller's memory; what goes beyond it sets the bad bit.
  bostrstream(char* buffer, std::streamsize size, CByteOrder::ByteOrder order);
  [[nodiscard]] bstrstreambuf* rdbuf() { return &m_buffer; }
  // What was written; valid to the next write.
  [[nodiscard]] std::string_view view() { return m_buffer.view(); }

 private:
  bstrstreambuf m_buffer;
};

}  // namespace ZepFoundation
