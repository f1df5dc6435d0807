#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "foundation/include/zfcbytes.h"
#include "foundation/include/zfcguid.h"
#include "foundation/include/zfcstring.h"
#include "foundation/include/zfcutf8.h"

namespace ZepFoundation {
namespace {

template <class T>
std::string Written(const T& value, CByteOrder::ByteOrder order) {
  bostrstream stream(order);
  value.BinaryOut(stream);
  EXPECT_TRUE(stream.good());
  return std::string(stream.view());
}

std::string Bytes(std::string_view literal) {
  return std::string(literal);
}

// Reads `bytes` into a value; tells whether the stream stayed good.
template <class T>
bool Read(T& value, const std::string& bytes, CByteOrder::ByteOrder order) {
  bistrstream stream(bytes.data(), static_cast<std::streamsize>(bytes.size()), order);
  value.BinaryIn(stream);
  return stream.good();
}

TEST(BinaryText, AnEmptyWideStringIsFourZeroBytes) {
  EXPECT_EQ(Written(wcstring(), CByteOrder::kBigEndian), Bytes({"\0\0\0\0", 4}));
  EXPECT_EQ(Written(cstring(), CByteOrder::kBigEndian), Bytes({"\0\0\0\0", 4}));
  EXPECT_EQ(Written(CZepUTF8(), CByteOrder::kBigEndian), Bytes({"\0\0\0\0", 4}));
}

TEST(BinaryText, OnlyTheCountOfAWideStringIsSwapped) {
  const wcstring text(u"a\u20AC");
  EXPECT_EQ(Written(text, CByteOrder::kBigEndian), Bytes({"\0\0\0\x02"
                                                          "a\0\xAC\x20",
                                                          8}));
  EXPECT_EQ(Written(text, CByteOrder::kLittleEndian), Bytes({"\x02\0\0\0"
                                                             "a\0\xAC\x20",
                                                             8}));
}

TEST(BinaryText, NarrowAndUtf8TextCountBytes) {
  EXPECT_EQ(Written(cstring("ab"), CByteOrder::kBigEndian), Bytes({"\0\0\0\x02"
                                                                   "ab",
                                                                   6}));
  EXPECT_EQ(Written(CZepUTF8(u"\u20AC", 1), CByteOrder::kLittleEndian), Bytes({"\x03\0\0\0\xE2\x82\xAC", 7}));
}

TEST(BinaryText, WhatIsWrittenIsReadAgain) {
  const std::u16string longText(10000, u'\u20AC');
  for (const auto order : {CByteOrder::kBigEndian, CByteOrder::kLittleEndian}) {
    for (const std::u16string& text : {std::u16string(), std::u16string(u"a\0b", 3), longText}) {
      wcstring wide(u"old");
      EXPECT_TRUE(Read(wide, Written(wcstring(text), order), order));
      EXPECT_EQ(wide.str(), text);
      cstring narrow("old");
      const std::string bytes(text.size(), 'x');
      EXPECT_TRUE(Read(narrow, Written(cstring(bytes), order), order));
      EXPECT_EQ(narrow, bytes.c_str());
      CZepUTF8 utf8(u"old", 3);
      const CZepUTF8 source(text.data(), text.size());
      EXPECT_TRUE(Read(utf8, Written(source, order), order));
      EXPECT_TRUE(utf8 == source);
    }
  }
}

TEST(BinaryText, AShortReadKeepsWholeUnitsAndFails) {
  wcstring wide(u"old");
  EXPECT_FALSE(Read(wide,
                    Bytes({"\0\0\0\x03"
                           "a\0b\0c",
                           9}),
                    CByteOrder::kBigEndian));
  EXPECT_EQ(wide, u"ab");
  cstring narrow("old");
  EXPECT_FALSE(Read(narrow,
                    Bytes({"\0\0\0\x03"
                           "ab",
                           6}),
                    CByteOrder::kBigEndian));
  EXPECT_EQ(narrow, "ab");
  EXPECT_FALSE(Read(wide, Bytes({"\0\0\0", 3}), CByteOrder::kBigEndian));
  EXPECT_EQ(wide, u"");
}

TEST(BinaryText, AHugeCountReservesNothing) {
  wcstring wide;
  EXPECT_FALSE(Read(wide,
                    Bytes({"\xFF\xFF\xFF\xFF"
                           "a\0",
                           6}),
                    CByteOrder::kBigEndian));
  EXPECT_EQ(wide, u"a");
  cstring narrow;
  EXPECT_FALSE(Read(narrow,
                    Bytes({"\x7F\xFF\xFF\xFF"
                           "a",
                           5}),
                    CByteOrder::kBigEndian));
  EXPECT_EQ(narrow, "a");
  CZepUTF8 utf8(u"old", 3);
  EXPECT_FALSE(Read(utf8,
                    Bytes({"\xFF\xFF\xFF\xFF"
                           "a",
                           5}),
                    CByteOrder::kBigEndian));
  EXPECT_EQ(utf8.Utf8().first, 0u);
}

TEST(BinaryText, ANegativeCountOfANarrowStringIsEmpty) {
  const std::string bytes =
      Bytes({"\xFF\xFF\xFF\xFF"
             "ab",
             6});
  cstring narrow("old");
  EXPECT_TRUE(Read(narrow, bytes, CByteOrder::kBigEndian));
  EXPECT_EQ(narrow, "");
}

TEST(BinaryText, ReadingUtf8DropsTextAndCache) {
  CZepUTF8 text(u"old", 3);
  (void)text.Ansi();
  EXPECT_TRUE(Read(text, Bytes({"\0\0\0\0", 4}), CByteOrder::kBigEndian));
  EXPECT_EQ(text.Utf8().second, nullptr);
  EXPECT_EQ(text.cachedKind(), CZepUTF8::kUnknownKind);
}

TEST(BinaryText, TheFormWithoutACountEndsAtAZeroUnitOrTheStreamsEnd) {
  const std::string bytes = Bytes({"\0a\0b\0\0\0c\0d", 10});
  bistrstream stream(bytes.data(), static_cast<std::streamsize>(bytes.size()), CByteOrder::kBigEndian);
  wcstring text(u"old");
  text.BinaryIn2(stream);
  EXPECT_EQ(text, u"ab");
  EXPECT_TRUE(stream.good());
  text.BinaryIn2(stream);
  EXPECT_EQ(text, u"cd");
  EXPECT_FALSE(stream.good());
}

TEST(BinaryGuid, FieldsFollowTheStreamAndTheLastEightBytesDoNot) {
  const CGUID guid(u"{01020304-0506-0708-090A-0B0C0D0E0F10}");
  EXPECT_EQ(Written(guid, CByteOrder::kBigEndian),
            Bytes("\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C\x0D\x0E\x0F\x10"));
  EXPECT_EQ(Written(guid, CByteOrder::kLittleEndian),
            Bytes("\x04\x03\x02\x01\x06\x05\x08\x07\x09\x0A\x0B\x0C\x0D\x0E\x0F\x10"));
  for (const auto order : {CByteOrder::kBigEndian, CByteOrder::kLittleEndian}) {
    CGUID read;
    EXPECT_TRUE(Read(read, Written(guid, order), order));
    EXPECT_EQ(read, guid);
  }
}

TEST(BinaryGuid, AShortReadGivesAllZero) {
  CGUID guid;
  EXPECT_FALSE(Read(guid, "123456789012345", CByteOrder::kBigEndian));
  EXPECT_EQ(guid.Valid(), 1);
}

}  // namespace
}  // namespace ZepFoundation
