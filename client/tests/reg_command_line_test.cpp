#include <gmock/gmock.h>

#include "client/tests/cli_fixture.h"
#include "platform/registry.h"
#include "platform/testing/fault.h"

namespace {

using testing::HasSubstr;

class RegCommandLine : public CliTest {
 protected:
  Result Reg(std::vector<std::string> words) {
    words.insert(words.begin(), {"--root", m_directory, "reg"});
    return Run(words);
  }
};

TEST_F(RegCommandLine, SetsListsAndDeletes) {
  EXPECT_EQ(Reg({"set", "HKLM\\SOFTWARE\\A", "Text", "a b"}).exit, 0);
  EXPECT_EQ(Reg({"set", "HKLM\\SOFTWARE\\A", "Number", "7", "--type", "REG_DWORD"}).exit, 0);
  const Result listed = Reg({"list", "HKLM\\SOFTWARE\\A"});
  EXPECT_EQ(listed.exit, 0) << listed.err;
  EXPECT_EQ(listed.out, "Number\tREG_DWORD\t7\nText\tREG_SZ\ta b\n");
  EXPECT_EQ(Reg({"list", "HKLM\\SOFTWARE\\A", "--json"}).out,
            "{\"keys\":[],\"values\":[{\"name\":\"Number\",\"type\":\"REG_DWORD\",\"data\":7},"
            "{\"name\":\"Text\",\"type\":\"REG_SZ\",\"data\":\"a b\"}]}\n");
  EXPECT_EQ(Reg({"delete", "HKLM\\SOFTWARE\\A", "Number"}).exit, 0);
  EXPECT_EQ(Reg({"list", "HKLM\\SOFTWARE\\A"}).out, "Text\tREG_SZ\ta b\n");
  EXPECT_EQ(Reg({"delete", "HKLM\\SOFTWARE\\A"}).exit, 0);
  EXPECT_EQ(Reg({"list", "HKLM\\SOFTWARE\\A"}).exit, 3);
  EXPECT_FALSE(platform::IsRegistryStoreOpen());
}

TEST_F(RegCommandLine, MakesNoStoreForALook) {
  const Result result = Reg({"list", "HKLM\\SOFTWARE"});
  EXPECT_EQ(result.exit, 3);
  EXPECT_THAT(result.err, HasSubstr("no key store: " + m_directory + "/registry.db"));
  EXPECT_FALSE(std::filesystem::exists(Path("registry.db")));
  EXPECT_EQ(Run({"--root", Path("none"), "reg", "set", "HKLM\\A", "x", "y"}).exit, 3);
  EXPECT_FALSE(std::filesystem::exists(Path("none")));
}

TEST_F(RegCommandLine, TellsAStateDirectoryThatItMayNotLookInto) {
  Write("registry.db", "of another account");
  const auto plan = platform::FaultPlan::Ask([&](int, platform::Operation operation, std::string_view detail) {
    const bool isThere = (operation == platform::Operation::kFileExists && detail == Path("registry.db")) ||
                         (operation == platform::Operation::kDirectoryExists && detail == m_directory);
    return isThere ? platform::ERROR_ACCESS_DENIED : platform::ERROR_SUCCESS;
  });
  for (const char* change : {"set", "list"}) {
    std::vector<std::string> words = {change, "HKLM\\SOFTWARE"};
    if (words.front() == "set") words.insert(words.end(), {"name", "data"});
    const Result result = Reg(words);
    EXPECT_EQ(result.exit, 4) << change;
    EXPECT_THAT(result.err, HasSubstr(m_directory + ": can't be looked into"));
  }
}

TEST_F(RegCommandLine, NamesAStoreThatIsNone) {
  Write("registry.db",
        "nothing of the kind, but longer than a header of a hundred bytes would be, to be sure of it all\n");
  const Result result = Reg({"list", "HKLM\\SOFTWARE"});
  EXPECT_EQ(result.exit, 1);
  EXPECT_THAT(result.err, HasSubstr("registry.db"));
}

TEST_F(RegCommandLine, EndsWith2ForBadWords) {
  EXPECT_EQ(Reg({}).exit, 2);
  EXPECT_EQ(Reg({"list"}).exit, 2);
  EXPECT_EQ(Reg({"set", "HKLM\\A", "x"}).exit, 2);
  EXPECT_EQ(Reg({"set", "NOWHERE\\A", "x", "y"}).exit, 2);
}

}  // namespace
