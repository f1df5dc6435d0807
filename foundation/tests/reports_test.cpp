// foundation/tests/reports_test.cpp
#include "foundation/include/zfcreport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>

#include "foundation/include/zfcconfig.h"
#include "foundation/tests/registry_store.h"
#include "platform/debug_output.h"
#include "platform/host.h"
#include "platform/testing/fault.h"
#include "platform/text.h"

namespace ZepFoundation {
namespace {

using platform::FaultPlan;
using platform::Operation;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

std::string g_reported;

class Reports : public WithRegistryStore {
 protected:
  Reports() {
    g_reported.clear();
    m_before = platform::SetDebugSink([](std::string_view text) { g_reported += text; });
  }
  ~Reports() override {
    platform::SetDebugSink(m_before);
    CErrorReport::SetReportFileName(wcstring());
  }
  static std::string SystemError(const char16_t* text, unsigned int code) {
    std::ostringstream out;
    PrintSystemError(text, code, out);
    return out.str();
  }
  static void ListMessageLibrary(const char16_t* name, const std::string& path) {
    CPath value(u"Client Exec\\ErrorStr");
    value += CPathElement(name);
    ASSERT_EQ(CConfigInfo::Instance().SetSystemValue(value, wcstring(platform::WideFromUtf8(path))), 1);
  }
  static std::string ExceptionReport(std::uint32_t code, void* address) {
    EXCEPTION_RECORD record{code, 0, nullptr, address};
    EXCEPTION_POINTERS pointers{&record, nullptr};
    std::ostringstream out;
    CStackWalk::GenerateExceptionReport(&pointers, out);
    return out.str();
  }

  platform::DebugSink m_before;
};

// --- assertions ---

TEST_F(Reports, AnAssertionTellsMessagePlaceAndStackAndGoesOn) {
  ZFCDBG_Assert("some.cpp", 17, u"it should be so");
  EXPECT_THAT(g_reported, StartsWith("KORVANE ZepFCL Classes Assertion\nit should be so\nsome.cpp: line 17\n"));
  EXPECT_THAT(g_reported, ContainsRegex("\n[0-9A-F]{8,}  [0-9A-F]{8,}  __libc_start_main[^ \n]*\\+[0-9A-F]+\n"));
}

TEST_F(Reports, AnAssertionWithACodeTellsItsText) {
  ZFCDBG_Assert("some.cpp", 17, u"no", 5);
  EXPECT_THAT(g_reported, StartsWith("KORVANE ZepFCL Classes Assertion\nno\nsome.cpp: line 17\nAccess is denied.\n"));
}

TEST_F(Reports, AnAssertionTakesNullForEmptyTexts) {
  ZFCDBG_Assert(nullptr, 1, nullptr);
  EXPECT_THAT(g_reported, StartsWith("KORVANE ZepFCL Classes Assertion\n\n: line 1\n"));
}

TEST_F(Reports, AReportKeepsItsTextsAndBeginsWithTheFileWhereOneIsSet) {
  CErrorReport without(u"title", u"message", u"source");
  EXPECT_EQ(without.str(), "");
  EXPECT_EQ(without.Title(), u"title");
  EXPECT_EQ(without.Message(), u"message");
  EXPECT_EQ(without.Source(), u"source");
  CErrorReport::SetReportFileName(u"/tmp/report");
  EXPECT_EQ(CErrorReport::ReportFileName(), u"/tmp/report");
  EXPECT_EQ(CErrorReport(u"", u"", u"").str(), "Report file at /tmp/report\n");
}

TEST_F(Reports, AppendsReportsToTheReportFile) {
  const wcstring name(WideName("report.txt"));
  CErrorReport::SetReportFileName(name);
  ZFCDBG_Assert("a.cpp", 1, u"first");
  ZFCDBG_Assert("b.cpp", 2, u"second");
  const std::string contents = Contents("report.txt");
  EXPECT_EQ(contents, g_reported);
  EXPECT_THAT(contents, AllOf(StartsWith("Report file at "), HasSubstr("first\na.cpp: line 1\n"),
                              HasSubstr("second\nb.cpp: line 2\n")));
}

TEST_F(Reports, TellsThatTheReportFileCannotBeWritten) {
  CErrorReport::SetReportFileName(wcstring(WideName("none/report.txt")));
  EXPECT_FALSE(CErrorReport(u"", u"", u"").Deliver());
  CErrorReport::SetReportFileName(wcstring(WideName("report.txt")));
  for (const Operation operation : {Operation::kCreateFile, Operation::kSetFilePointer, Operation::kWriteFile}) {
    const FaultPlan plan = FaultPlan::FailCall(operation, 1, platform::ERROR_DISK_FULL);
    EXPECT_FALSE(CErrorReport(u"", u"", u"").Deliver()) << OperationName(operation);
  }
  EXPECT_TRUE(CErrorReport(u"", u"", u"").Deliver());
}

// --- error texts ---

TEST_F(Reports, AnErrorTextIsTheSystemsSentence) {
  EXPECT_EQ(SystemError(u"Opening: ", 2), "Opening: The system cannot find the file specified.\n");
  EXPECT_EQ(SystemError(nullptr, 0), "The operation completed successfully.\n");
}

TEST_F(Reports, AnErrorTextComesFromAListedLibraryWhereTheSystemHasNone) {
  ListMessageLibrary(u"1 missing", "/none/libnone.so");
  ListMessageLibrary(u"2 silent", QX_PROBE_DIR "/libqx_message_probe_silent.so");
  ListMessageLibrary(u"3 texts", QX_PROBE_DIR "/libqx_message_probe_texts.so");
  ASSERT_EQ(CConfigInfo::Instance().SetSystemValue(CPath(u"Client Exec\\ErrorStr\\0 number"), 1u), 1);
  EXPECT_EQ(SystemError(u"Failed: ", 0xE0000001), "Failed: The volume is on fire.\n");
  EXPECT_EQ(SystemError(u"Failed: ", 0xE0000002), "Failed: Could not format message: 3758096386\n");
  EXPECT_EQ(SystemError(u"Failed: ", 5), "Failed: Access is denied.\n");
}

TEST_F(Reports, AnErrorTextTellsThatNobodyKnowsTheCode) {
  EXPECT_EQ(SystemError(u"Failed: ", 0xE0000001), "Failed: Could not format message: 3758096385\n");
}

// --- exceptions ---

struct StatusCase {
  std::uint32_t code;
  const char* name;
};
const StatusCase kStatusCases[] = {
    {0xC0000005, "ACCESS_VIOLATION"},
    {0x80000002, "DATATYPE_MISALIGNMENT"},
    {0x80000003, "BREAKPOINT"},
    {0x80000004, "SINGLE_STEP"},
    {0xC000008C, "ARRAY_BOUNDS_EXCEEDED"},
    {0xC000008D, "FLT_DENORMAL_OPERAND"},
    {0xC000008E, "FLT_DIVIDE_BY_ZERO"},
    {0xC000008F, "FLT_INEXACT_RESULT"},
    {0xC0000090, "FLT_INVALID_OPERATION"},
    {0xC0000091, "FLT_OVERFLOW"},
    {0xC0000092, "FLT_STACK_CHECK"},
    {0xC0000093, "FLT_UNDERFLOW"},
    {0xC0000094, "INT_DIVIDE_BY_ZERO"},
    {0xC0000095, "INT_OVERFLOW"},
    {0xC0000096, "PRIV_INSTRUCTION"},
    {0xC0000006, "IN_PAGE_ERROR"},
    {0xC000001D, "ILLEGAL_INSTRUCTION"},
    {0xC0000025, "NONCONTINUABLE_EXCEPTION"},
    {0xC00000FD, "STACK_OVERFLOW"},
    {0xC0000026, "INVALID_DISPOSITION"},
    {0x80000001, "GUARD_PAGE"},
    {0xC0000008, "INVALID_HANDLE"},
    {5, "Access is denied."},
    {0xE0000001, ""},
};
TEST_F(Reports, AnExceptionReportNamesTheStatus) {
  for (const StatusCase& c : kStatusCases) {
    char line[80];
    std::snprintf(line, sizeof line, "Exception code: %08X %s\n", c.code, c.name);
    EXPECT_THAT(ExceptionReport(c.code, nullptr),
                StartsWith(std::string("//=====================================================\n") + line));
  }
}

TEST_F(Reports, AnExceptionReportTellsTheModuleOfTheFaultAndTheStack) {
  std::u16string program;
  ASSERT_EQ(platform::ProgramFilePath(program), 0u);
  const std::string own = ExceptionReport(0xC0000005, reinterpret_cast<void*>(&g_reported));
  EXPECT_THAT(own, ContainsRegex("\nFault address:  [0-9A-F]{8,} [0-9]{2}:[0-9A-F]{8} /"));
  EXPECT_THAT(own, HasSubstr(" " + platform::Utf8FromWide(program) + "\n"));
  EXPECT_TRUE(own.ends_with("\n\n"));
  EXPECT_THAT(ExceptionReport(0xC0000005, nullptr), HasSubstr("\nFault address:  00000000 00:00000000 \n"));
}

TEST_F(Reports, AnExceptionReportOfNothingIsEmpty) {
  std::ostringstream out;
  CStackWalk::GenerateExceptionReport(nullptr, out);
  EXCEPTION_POINTERS pointers;
  CStackWalk::GenerateExceptionReport(&pointers, out);
  EXPECT_EQ(out.str(), "");
}

// --- stacks ---

// The C library exports the name of what calls main().
TEST_F(Reports, AStackNamesTheFunctionsThatAreExported) {
  std::ostringstream out;
  CStackWalk::PrintStack(out);
  EXPECT_THAT(out.str(), ContainsRegex("\n[0-9A-F]{8,}  [0-9A-F]{8,}  __libc_start_main[^ \n]*\\+[0-9A-F]+\n"));
  EXPECT_THAT(out.str(),
              ContainsRegex("[0-9A-F]{8,}  [0-9A-F]{8,}  Could not find symbol [0-9]{4}:[0-9A-F]{8} /[^\n]*\n"));
  EXPECT_THAT(out.str(), Not(HasSubstr("Address   Frame")));
  EXPECT_EQ(g_reported, "");
}

TEST_F(Reports, AStackNamesModulesWhereTheSymbolsCannotBeOpened) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kLoadLibrary, 1, platform::ERROR_MOD_NOT_FOUND);
  std::ostringstream out;
  CStackWalk::PrintStack(out);
  EXPECT_EQ(g_reported, "IMAGEHLP.DLL or its exported procs not found");
  EXPECT_THAT(out.str(), StartsWith("Address   Frame     Logical addr  Module\n"));
  EXPECT_THAT(out.str(), ContainsRegex("\n[0-9A-F]{8,}  [0-9A-F]{8,}  [0-9]{4}:[0-9A-F]{8} /[^\n]*\n"));
  EXPECT_THAT(out.str(), Not(HasSubstr("Could not find symbol")));
}

TEST_F(Reports, SymbolsAreSearchedBesideTheProgramAndWhereTheEnvironmentSays) {
  std::u16string program;
  ASSERT_EQ(platform::ProgramFilePath(program), 0u);
  const std::u16string directory = program.substr(0, program.rfind(u'/'));
  for (const char* name : {"_NT_SYMBOL_PATH", "_NT_ALTERNATE_SYMBOL_PATH", "SYSTEMROOT"}) ::unsetenv(name);
  EXPECT_EQ(CStackWalk::SymbolPath().str(), directory + u";.");
  ::setenv("SYSTEMROOT", "/system", 1);
  EXPECT_EQ(CStackWalk::SymbolPath().str(), directory + u";.;/system");
  ::setenv("_NT_SYMBOL_PATH", "/symbols", 1);
  ::setenv("_NT_ALTERNATE_SYMBOL_PATH", "/more", 1);
  EXPECT_EQ(CStackWalk::SymbolPath().str(), directory + u";.;/symbols;/more;/system");
  for (const char* name : {"_NT_SYMBOL_PATH", "_NT_ALTERNATE_SYMBOL_PATH", "SYSTEMROOT"}) ::unsetenv(name);
}

}  // namespace
}  // namespace ZepFoundation
