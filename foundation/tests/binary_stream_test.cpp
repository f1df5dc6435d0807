#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <limits>
#include <sstream>
#include <string>

#include "foundation/include/zfcbytes.h"
#include "platform/debug_output.h"

namespace ZepFoundation {
namespace {

constexpr auto kBig = CByteOrder::kBigEndian;
constexpr auto kLittle = CByteOrder::kLittleEndian;

std::string Bytes(std::initializer_list<int> values) {
  std::string bytes;
  for (int value : values) bytes.push_back(static_cast<char>(value));
  return bytes;
}

TEST(BinaryStream, WritesA32BitValueInTheStreamsOrder) {
  bostrstream big(kBig);
  big << std::uint32_t{0x01020304};
  EXPECT_EQ(big.view(), Bytes({1, 2, 3, 4}));
  bostrstream little(kLittle);
  little << std::uint32_t{0x01020304};
  EXPECT_EQ(little.view(), Bytes({4, 3, 2, 1}));
}

TEST(BinaryStream, WritesEachIntegerInTheWidthOfItsType) {
  bostrstream out(kBig);
  out << 'a' << static_cast<signed char>(-1) << static_cast<unsigned char>(2) << std::int16_t{-2} << std::uint16_t{0x0304}
      << std::int32_t{-3} << std::int64_t{-4} << std::uint64_t{0x0102030405060708};
  EXPECT_EQ(out.view(), Bytes({'a', 0xFF, 2, 0xFF, 0xFE, 3, 4, 0xFF, 0xFF, 0xFF, 0xFD, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                               0xFF, 0xFF, 0xFC, 1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(BinaryStream, ReadsBackWhatItWroteInEitherOrder) {
  for (auto order : {kBig, kLittle, CByteOrder::kNative}) {
    bostrstream out(order);
    out << std::int16_t{-2} << std::uint16_t{40000} << std::int32_t{std::numeric_limits<std::int32_t>::min()}
        << std::uint32_t{4000000000} << std::int64_t{-5} << std::uint64_t{1} << 'x';
    bistrstream in(out.view().data(), static_cast<std::streamsize>(out.view().size()), order);
    std::int16_t a = 0;
    std::uint16_t b = 0;
    std::int32_t c = 0;
    std::uint32_t d = 0;
    std::int64_t e = 0;
    std::uint64_t f = 0;
    char g = 0;
    in >> a >> b >> c >> d >> e >> f >> g;
    EXPECT_TRUE(in.good());
    EXPECT_EQ(a, -2);
    EXPECT_EQ(b, 40000);
    EXPECT_EQ(c, std::numeric_limits<std::int32_t>::min());
    EXPECT_EQ(d, 4000000000);
    EXPECT_EQ(e, -5);
    EXPECT_EQ(f, 1u);
    EXPECT_EQ(g, 'x');
  }
}

TEST(BinaryStream, TakesTheHostsOrderForTheNativeOne) {
  bostrstream native(CByteOrder::kNative);
  EXPECT_EQ(native.byte_order(), CByteOrder::Native());
  EXPECT_EQ(native.byte_order(), std::endian::native == std::endian::little ? kLittle : kBig);
  bistrstream in("", 0, CByteOrder::kNative);
  EXPECT_EQ(in.byte_order(), CByteOrder::Native());
}

TEST(BinaryStream, FailsAfterStoringTheByte255OfAText) {
  const std::string bytes = Bytes({0x41, 0xFF, 0x42, 0});
  bistrstream in(bytes.data(), static_cast<std::streamsize>(bytes.size()), kBig);
  char text[8];
  std::memset(text, 'z', sizeof(text));
  in >> text;
  EXPECT_TRUE(in.fail());
  EXPECT_EQ(text[0], 'A');
  EXPECT_EQ(text[1], '\xFF');
  EXPECT_EQ(text[2], 'z');
}

TEST(BinaryStream, ReadsATextWithItsZeroByte) {
  bistrstream in("ab\0c", 4, kBig);
  char text[8];
  std::memset(text, 'z', sizeof(text));
  in >> text;
  EXPECT_TRUE(in.good());
  EXPECT_STREQ(text, "ab");
  EXPECT_EQ(in.get(), 'c');
}

TEST(BinaryStream, FailsWhereATextHasNoEnd) {
  bistrstream in("ab", 2, kBig);
  char text[8] = {};
  in >> text;
  EXPECT_TRUE(in.fail());
  EXPECT_STREQ(text, "ab");
}

TEST(BinaryStream, LeavesThePositionAloneWhenItIsAskedForItsSize) {
  bistrstream in("abcdef", 6, kBig);
  EXPECT_EQ(in.get(), 'a');
  EXPECT_EQ(in.get(), 'b');
  EXPECT_EQ(in.size(), 6);
  EXPECT_EQ(in.get(), 'c');
  bostrstream out(kBig);
  out << std::uint32_t{1} << std::uint32_t{2};
  EXPECT_EQ(out.size(), 8);
  out << std::uint16_t{3};
  EXPECT_EQ(out.size(), 10);
  EXPECT_EQ(out.view().substr(8), Bytes({0, 3}));
}

TEST(BinaryStream, HasNoSizeWithoutABuffer) {
  bistream in(nullptr, kBig);
  EXPECT_EQ(in.size(), -1);
  EXPECT_EQ(in.get(), -1);
  EXPECT_TRUE(in.bad());
  bostream out(nullptr, kBig);
  EXPECT_EQ(out.size(), -1);
  out.put('a');
  EXPECT_TRUE(out.bad());
}

TEST(BinaryStream, SetsFailureAndBadBitsForAReadWithoutABuffer) {
  bistream in(nullptr, kBig);
  char c = 'z';
  in.read(&c, 1);
  EXPECT_EQ(in.rdstate(), std::ios::failbit | std::ios::badbit);
  EXPECT_EQ(in.gcount(), 0);
  EXPECT_EQ(c, 'z');
  bistrstream source("a", 1, kBig);
  bostream out(nullptr, kBig);
  source >> out;
  EXPECT_TRUE(source.fail());
  bostrstream target(kBig);
  target << in;
  EXPECT_TRUE(target.fail());
}

// Counts how often it is synchronised, and fails when told to.
class SyncedBuffer : public std::stringbuf {
 public:
  int sync() override {
    ++m_synced;
    return m_fails ? -1 : 0;
  }
  int m_synced = 0;
  bool m_fails = false;
};

TEST(BinaryStream, SynchronisesItsBufferAndSetsTheBadBitWhereThatFails) {
  SyncedBuffer buffer;
  bistream in(&buffer, kBig);
  bostream out(&buffer, kBig);
  EXPECT_EQ(in.sync(), 0);
  out.flush();
  EXPECT_EQ(buffer.m_synced, 2);
  EXPECT_TRUE(in.good() && out.good());
  buffer.m_fails = true;
  EXPECT_EQ(in.sync(), -1);
  out.flush();
  EXPECT_TRUE(in.bad());
  EXPECT_TRUE(out.bad());
  EXPECT_EQ(bistream(nullptr, kBig).sync(), -1);
}

TEST(BinaryStream, FlushesAfterEachWriteWhenItIsUnitBuffered) {
  SyncedBuffer buffer;
  bostream out(&buffer, kBig);
  out << std::uint32_t{1};
  EXPECT_EQ(buffer.m_synced, 0);
  out.setf(std::ios::unitbuf);
  out << std::uint32_t{2} << 'a';
  EXPECT_EQ(buffer.m_synced, 2);
  std::stringbuf source("all of it");
  out << source;
  EXPECT_EQ(buffer.m_synced, 3);
}

TEST(BinaryStream, FlushesATiedStreamAheadOfInputAndOutput) {
  SyncedBuffer tied;
  std::ostream other(&tied);
  bistrstream in("ab", 2, kBig);
  in.tie(&other);
  in.get();
  EXPECT_EQ(tied.m_synced, 1);
  bostrstream out(kBig);
  out.tie(&other);
  out.put('a');
  EXPECT_EQ(tied.m_synced, 2);
}

TEST(BinaryStream, TakesWhatALimitedTargetHolds) {
  bistrstream in("abcdef", 6, kBig);
  char room[4];
  bostrstream out(room, sizeof room, kBig);
  in >> out;
  EXPECT_EQ(out.view(), "abcd");
  EXPECT_FALSE(in.fail());
  bistrstream rest("gh", 2, kBig);
  rest >> out;
  EXPECT_TRUE(rest.fail()) << "nothing was copied";
}

TEST(BinaryStream, TakesNoMoreOfItsSourceOnceTheTargetIsFull) {
  const std::string text(2000, 'q');
  bistrstream in(text.data(), static_cast<std::streamsize>(text.size()), kBig);
  char room[4];
  bostrstream out(room, sizeof room, kBig);
  in >> out;
  EXPECT_EQ(in.get(), 'q');
}

TEST(BinaryStream, KeepsTheCountOfAReadThatRunsOverTheEnd) {
  bistrstream in("abc", 3, kBig);
  char buffer[8] = {};
  in.read(buffer, 8);
  EXPECT_TRUE(in.fail());
  EXPECT_FALSE(in.bad());
  EXPECT_EQ(in.gcount(), 3);
  EXPECT_STREQ(buffer, "abc");
  in.clear();
  in.rdbuf()->pubseekpos(0, std::ios::in);
  in.read(buffer, 2);
  EXPECT_EQ(in.gcount(), 0) << "of the last one";
}

TEST(BinaryStream, CountsNothingWhenAReadGetsAll) {
  bistrstream in("abc", 3, kBig);
  char buffer[3];
  in.read(buffer, 3);
  EXPECT_TRUE(in.good());
  EXPECT_EQ(in.gcount(), 0);
  in.read(buffer, 0);
  in.read(buffer, -1);
  EXPECT_TRUE(in.good());
}

TEST(BinaryStream, ReadsNothingOnceItHasFailed) {
  bistrstream in("abc", 3, kBig);
  in.setstate(std::ios::failbit);
  char c = 'z';
  in.read(&c, 1);
  EXPECT_EQ(c, 'z');
  EXPECT_EQ(in.gcount(), 0);
  in.clear();
  EXPECT_EQ(in.get(), 'a');
}

TEST(BinaryStream, GivesEveryByteBySingleReads) {
  const std::string bytes = Bytes({0xFF, 0, 7});
  bistrstream in(bytes.data(), 3, kBig);
  EXPECT_EQ(in.peek(), 255);
  EXPECT_EQ(in.get(), 255);
  EXPECT_EQ(in.get(), 0);
  EXPECT_EQ(in.get(), 7);
  in.putback('\x07');
  EXPECT_EQ(in.get(), 7);
  EXPECT_TRUE(in.good());
  EXPECT_EQ(in.get(), -1);
  EXPECT_TRUE(in.fail());
}

TEST(BinaryStream, RefusesToPutBackWhatMayNotBeWritten) {
  bistrstream in("ab", 2, kBig);
  in.get();
  in.putback('z');
  EXPECT_TRUE(in.bad());
}

TEST(BinaryStream, PutsAnotherByteBackWhereItMayBeWritten) {
  bstrstreambuf buffer;
  bostream(&buffer, kBig).write("ab", 2);
  bistream in(&buffer, kBig);
  in.get();
  in.putback('z');
  EXPECT_EQ(in.get(), 'z');
  EXPECT_EQ(in.get(), 'b');
}

TEST(BinaryStream, CopiesTheRestOfOneStreamIntoAnother) {
  std::string text(1300, 'q');
  text += "end";
  bistrstream in(text.data(), static_cast<std::streamsize>(text.size()), kBig);
  in.get();
  bostrstream out(kBig);
  in >> out;
  EXPECT_TRUE(in.good());
  EXPECT_EQ(out.view(), text.substr(1));
  in >> out;
  EXPECT_TRUE(in.fail());

  std::stringbuf source("xyz");
  bostrstream second(kBig);
  second << source;
  EXPECT_EQ(second.view(), "xyz");
  EXPECT_TRUE(second.good());
  second << source;
  EXPECT_TRUE(second.fail());
}

TEST(BinaryStream, CopiesFromABinaryStreamAndIntoAPlainBuffer) {
  bistrstream in("abc", 3, kBig);
  std::stringbuf target;
  in >> target;
  EXPECT_EQ(target.str(), "abc");
  bistrstream again("def", 3, kBig);
  bostrstream out(kBig);
  out << again;
  EXPECT_EQ(out.view(), "def");
}

TEST(BinaryStream, CopiesABufferIntoItselfOnce) {
  char room[64];
  bstrstreambuf buffer(room, sizeof room);
  bostream out(&buffer, kBig);
  bistream in(&buffer, kBig);
  out.write("abc", 3);
  EXPECT_EQ(in.get(), 'a');
  out << buffer;  // what is left to read
  EXPECT_TRUE(out.good());
  EXPECT_EQ(buffer.view(), "abcbc");
  in >> buffer;
  EXPECT_TRUE(in.good());
  EXPECT_EQ(buffer.view(), "abcbcbc");
}

struct Broken {};
// Has nothing and takes nothing, and throws instead of saying so.
class ThrowingBuffer : public std::streambuf {
 protected:
  int_type underflow() override { throw Broken(); }
  int_type overflow(int_type) override { throw Broken(); }
  int_type pbackfail(int_type) override { throw Broken(); }
  int sync() override { throw Broken(); }
  pos_type seekoff(off_type, std::ios_base::seekdir, std::ios_base::openmode) override { throw Broken(); }
};

template <class Stream>
struct BrokenUse {
  const char* name;
  void (*ask)(Stream&);
};
template <class Stream>
void ExpectTheBadBit(const BrokenUse<Stream>& c) {
  ThrowingBuffer buffer;
  Stream stream(&buffer, kBig);
  EXPECT_NO_THROW(c.ask(stream)) << c.name;
  EXPECT_TRUE(stream.bad()) << c.name;
  stream.clear();
  stream.exceptions(std::ios::badbit);
  EXPECT_THROW(c.ask(stream), Broken) << c.name;
  EXPECT_TRUE(stream.bad()) << c.name;
}

const BrokenUse<bistream> kBrokenInputs[] = {
    {"read", [](bistream& in) { char c; in.read(&c, 1); }},
    {"integer", [](bistream& in) { std::uint32_t value; in >> value; }},
    {"get", [](bistream& in) { EXPECT_EQ(in.get(), -1); }},
    {"peek", [](bistream& in) { EXPECT_EQ(in.peek(), -1); }},
    {"putback", [](bistream& in) { in.putback('a'); }},
    {"text", [](bistream& in) { char text[4]; in >> text; }},
    {"copy", [](bistream& in) { std::stringbuf target; in >> target; }},
    {"sync", [](bistream& in) { EXPECT_EQ(in.sync(), -1); }},
    {"size", [](bistream& in) { EXPECT_EQ(in.size(), -1); }},
};
TEST(BinaryStream, MakesTheBadBitOfWhatItsBufferThrowsUponReading) {
  for (const auto& c : kBrokenInputs) ExpectTheBadBit(c);
}

const BrokenUse<bostream> kBrokenOutputs[] = {
    {"write", [](bostream& out) { out.write("a", 1); }},
    {"integer", [](bostream& out) { out << std::uint32_t{1}; }},
    {"copy", [](bostream& out) { std::stringbuf source("abc"); out << source; }},
    {"flush", [](bostream& out) { out.flush(); }},
    {"size", [](bostream& out) { EXPECT_EQ(out.size(), -1); }},
};
TEST(BinaryStream, MakesTheBadBitOfWhatItsBufferThrowsUponWriting) {
  for (const auto& c : kBrokenOutputs) ExpectTheBadBit(c);
}

TEST(BinaryStream, EndsLinesAndTexts) {
  bostrstream out(kBig);
  out << endl << ends << flush;
  EXPECT_EQ(out.view(), Bytes({'\n', 0}));
  EXPECT_TRUE(out.good());
}

TEST(BinaryStream, SetsTheBadBitWhereAFixedBufferIsFull) {
  char buffer[5] = {};
  bostrstream out(buffer, sizeof(buffer), kBig);
  out << std::uint32_t{0x01020304};
  EXPECT_TRUE(out.good());
  out << std::uint32_t{0x05060708};
  EXPECT_TRUE(out.bad());
  EXPECT_EQ(out.view().substr(0, 4), Bytes({1, 2, 3, 4}));
}

TEST(BinaryStream, SetsTheBadBitForANegativeCount) {
  bostrstream out(kBig);
  out.write("abc", -1);
  EXPECT_TRUE(out.bad());
  EXPECT_EQ(out.view(), "");
}

TEST(MemoryBuffer, GrowsAndKeepsWhatWasWritten) {
  bostrstream out(kBig);
  std::string expected;
  for (int i = 0; i < 5000; ++i) {
    out.put(static_cast<char>(i));
    expected.push_back(static_cast<char>(i));
  }
  EXPECT_TRUE(out.good());
  EXPECT_EQ(out.view(), expected);
}

TEST(MemoryBuffer, ReadsWhatWasWrittenToIt) {
  bstrstreambuf buffer;
  bostream out(&buffer, kBig);
  bistream in(&buffer, kBig);
  out << std::uint16_t{0x4142};
  EXPECT_EQ(in.get(), 'A');
  out << std::uint16_t{0x4344};
  EXPECT_EQ(in.get(), 'B');
  EXPECT_EQ(in.get(), 'C');
  EXPECT_EQ(in.size(), 4);
  EXPECT_EQ(in.get(), 'D');
  EXPECT_EQ(in.get(), -1);
}

std::string g_debugText;
void KeepDebugText(std::string_view text) { g_debugText += text; }

TEST(MemoryBuffer, TellsTheDebuggerWhenTheReadLimitIsMet) {
  g_debugText.clear();
  const platform::DebugSink before = platform::SetDebugSink(&KeepDebugText);
  bistrstream in("a", 1, kBig);
  EXPECT_EQ(in.get(), 'a');
  EXPECT_EQ(in.get(), -1);
  EXPECT_EQ(g_debugText, "");
  in.clear();
  in.rdbuf()->SetReadLimit(true);
  EXPECT_EQ(in.get(), -1);
  EXPECT_TRUE(in.fail());
  platform::SetDebugSink(before);
  EXPECT_EQ(g_debugText, "bstrstream: READ LIMIT ENGAGED!!!\n");
}

TEST(MemoryBuffer, RefusesPositionsOutsideWhatIsThere) {
  bistrstream in("abc", 3, kBig);
  bstrstreambuf* buffer = in.rdbuf();
  EXPECT_EQ(buffer->pubseekoff(-1, std::ios::beg, std::ios::in), std::streampos(-1));
  EXPECT_EQ(buffer->pubseekoff(4, std::ios::beg, std::ios::in), std::streampos(-1));
  EXPECT_EQ(buffer->pubseekoff(std::numeric_limits<std::streamoff>::min(), std::ios::cur, std::ios::in), std::streampos(-1));
  EXPECT_EQ(buffer->pubseekoff(0, std::ios::beg, std::ios::out), std::streampos(-1));
  EXPECT_EQ(buffer->pubseekoff(-1, std::ios::end, std::ios::in), std::streampos(2));
  EXPECT_EQ(in.get(), 'c');
}

TEST(MemoryBuffer, HasNoOnePositionToMoveBothFrom) {
  bstrstreambuf buffer;
  bostream(&buffer, kBig).write("abc", 3);
  const auto both = std::ios::in | std::ios::out;
  EXPECT_EQ(buffer.pubseekoff(1, std::ios::cur, both), std::streampos(-1));
  EXPECT_EQ(buffer.pubseekoff(1, std::ios::beg, both), std::streampos(1));
  EXPECT_EQ(buffer.sgetc(), 'b');
  EXPECT_EQ(buffer.sputc('x'), 'x');
  EXPECT_EQ(buffer.view(), "axc");
}

}  // namespace
}  // namespace ZepFoundation
