// platform/bus_message.h: messages of the bus: typed reading of those that came in, typed writing of those to be sent.
//
// A reader or writer belongs to the thread of its connection. Strings on the bus are UTF-8 without NUL; views that a
// reader gives live as long as the reader's message. Type texts as in bus_value.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bus_value.h"
#include "platform/error_codes.h"

namespace platform {

// A message that came in: a call, a reply or a signal, with a cursor over its values. Move only; empty by default.
//
// Reading: each Read and Enter looks at the next value of the innermost entered container and moves behind it. One that
// meets another type returns ERROR_INVALID_DATA (13), or ERROR_NO_MORE_ITEMS (259) at the end, and moves nothing, so
// the caller can name what it was reading. On an empty reader everything is at its end.
//   for (rc = reader.EnterArray("{sv}"); rc == 0 && !reader.AtEnd();) { EnterDictEntry("sv") ... Exit(); }  Exit();
class MessageReader {
 public:
  MessageReader() = default;
  MessageReader(MessageReader&& other) noexcept;
  MessageReader& operator=(MessageReader&& other) noexcept;
  ~MessageReader();

  // The unique name of the sender; empty on a connection without a bus.
  [[nodiscard]] std::string_view Sender() const;
  [[nodiscard]] std::string_view Path() const;
  [[nodiscard]] std::string_view Interface() const;
  [[nodiscard]] std::string_view Member() const;
  // The type text of the whole body.
  [[nodiscard]] std::string_view Signature() const;
  // The effective user of the sender, as the bus daemon knows it (one call to it), or of the peer without a bus.
  [[nodiscard]] ErrorCode SenderUser(std::uint32_t& userId) const;

  struct Next {
    BusKind kind = BusKind::kEnd;
    std::string_view contents;  // of an array its element type, of struct, entry and variant the types inside
  };
  [[nodiscard]] Next PeekType() const;
  // Whether nothing is left in the innermost container.
  [[nodiscard]] bool AtEnd() const;

  [[nodiscard]] ErrorCode EnterArray(std::string_view elementType);
  [[nodiscard]] ErrorCode EnterStruct(std::string_view contents);
  [[nodiscard]] ErrorCode EnterDictEntry(std::string_view contents);
  [[nodiscard]] ErrorCode EnterVariant(std::string_view contents);
  // Leaves the innermost container; what was left of it is skipped.
  //   returns  0; ERROR_INVALID_FUNCTION (1) when no container was entered
  [[nodiscard]] ErrorCode Exit();

  [[nodiscard]] ErrorCode ReadBool(bool& value);
  [[nodiscard]] ErrorCode ReadInt16(std::int16_t& value);
  [[nodiscard]] ErrorCode ReadUint16(std::uint16_t& value);
  [[nodiscard]] ErrorCode ReadInt32(std::int32_t& value);
  [[nodiscard]] ErrorCode ReadUint32(std::uint32_t& value);
  [[nodiscard]] ErrorCode ReadInt64(std::int64_t& value);
  [[nodiscard]] ErrorCode ReadUint64(std::uint64_t& value);
  // A string or an object path; the view lives as long as this message.
  [[nodiscard]] ErrorCode ReadString(std::string_view& value);
  // A whole array of numbers at once.
  //   values  its first elements, as many as fit; the rest of the span stays
  //   count   set on success: the elements of the array, more than were taken where the span is shorter
  [[nodiscard]] ErrorCode ReadArray(std::span<std::int16_t> values, std::size_t& count);
  [[nodiscard]] ErrorCode ReadArray(std::span<std::int32_t> values, std::size_t& count);
  [[nodiscard]] ErrorCode ReadArray(std::span<std::uint32_t> values, std::size_t& count);
  // Any one complete value.
  [[nodiscard]] ErrorCode ReadValue(BusValue& value);
  // Moves behind one complete value.
  [[nodiscard]] ErrorCode Skip();
  // Back to the first value, out of all containers.
  void Rewind();

 private:
  friend struct BusInternals;
  [[nodiscard]] ErrorCode Outcome(int result) const;
  [[nodiscard]] ErrorCode Enter(char type, std::string_view contents);
  template <typename T>
  [[nodiscard]] ErrorCode ReadNumber(char type, T& value);
  template <typename T>
  [[nodiscard]] ErrorCode ReadNumbers(char type, std::span<T> values, std::size_t& count);
  [[nodiscard]] ErrorCode ReadContainer(std::string type, Next next, BusValue& value);
  void* m_message = nullptr;  // one reference of the library's message
  int m_depth = 0;            // entered containers
};

// A message being built. Move only; empty by default, then every Append fails. The first failure sticks, later calls do
// nothing, and the message can't be sent: look at Result() at the end.
class MessageWriter {
 public:
  MessageWriter() = default;
  MessageWriter(MessageWriter&& other) noexcept;
  MessageWriter& operator=(MessageWriter&& other) noexcept;
  ~MessageWriter();

  void AppendBool(bool value);
  void AppendInt16(std::int16_t value);
  void AppendUint16(std::uint16_t value);
  void AppendInt32(std::int32_t value);
  void AppendUint32(std::uint32_t value);
  void AppendInt64(std::int64_t value);
  void AppendUint64(std::uint64_t value);
  // UTF-8 without NUL; anything else fails with ERROR_NO_UNICODE_TRANSLATION (1113).
  void AppendString(std::string_view value);
  // The same for a text that the caller knows to be valid: UTF-8 without NUL and without noncharacters. Nobody looks at
  // it again, so the bus would end the connection for any other.
  void AppendValid(std::string_view value);
  // A whole array of numbers at once.
  void AppendArray(std::span<const std::int16_t> values);
  void AppendArray(std::span<const std::int32_t> values);
  void AppendArray(std::span<const std::uint32_t> values);
  void AppendValue(const BusValue& value);

  void OpenArray(std::string_view elementType);
  void OpenStruct(std::string_view contents);
  void OpenDictEntry(std::string_view contents);
  void OpenVariant(std::string_view contents);
  void Close();  // the innermost open container

  // One entry of an open a{sv}.
  void AppendEntry(std::string_view key, const BusValue& value);

  // Bytes of the body so far as they will travel, padding included, the message header (a few hundred bytes) not.
  [[nodiscard]] std::size_t BytesSoFar() const { return m_bytes; }
  // 0, or the first failure.
  [[nodiscard]] ErrorCode Result() const { return m_result; }

 private:
  friend struct BusInternals;
  bool Begin();
  void Note(int result);
  void Count(std::size_t align, std::size_t size);
  template <typename T>
  void AppendNumber(char type, T value);
  template <typename T>
  void AppendNumbers(char type, std::span<const T> values);
  template <typename Held>
  bool AppendHeldNumber(char letter, Held held);
  void AppendText(char type, std::string_view value);
  bool AppendContainer(std::string_view type, const std::vector<BusValue>& inside);
  void Open(char type, std::string_view contents);
  void* m_message = nullptr;
  ErrorCode m_result = ERROR_SUCCESS;
  std::size_t m_bytes = 0;
  std::string m_scratch;
};

}  // namespace platform
