#include "service/service_options.h"

#include <gtest/gtest.h>

#include <vector>

namespace qx {
namespace {

struct WordCase {
  int line;
  const char* words;
  CommandWord word;
};

TEST(CommandLine, TheFirstWordBehindACutThatMatchesWins) {
  const WordCase kCases[] = {
      {__LINE__, "-RegServer", CommandWord::kRegServer},
      {__LINE__, "/regserver", CommandWord::kRegServer},
      {__LINE__, "-REGSERVER", CommandWord::kRegServer},
      {__LINE__, "--RegServer", CommandWord::kRegServer},
      {__LINE__, "-UnregServer", CommandWord::kUnregServer},
      {__LINE__, "/UNREGSERVER", CommandWord::kUnregServer},
      {__LINE__, "-Service", CommandWord::kService},
      {__LINE__, "/service", CommandWord::kService},
      {__LINE__, "x -Service", CommandWord::kService},
      {__LINE__, "-x/Service", CommandWord::kService},
      {__LINE__, "-RegServer -Service", CommandWord::kService},
      {__LINE__, "-Service x", CommandWord::kNone},
      {__LINE__, "-Service ", CommandWord::kNone},
      {__LINE__, "- Service", CommandWord::kNone},
      {__LINE__, "Service", CommandWord::kNone},
      {__LINE__, "-Services", CommandWord::kNone},
      {__LINE__, "-", CommandWord::kNone},
      {__LINE__, "", CommandWord::kNone},
  };
  for (const WordCase& c : kCases) EXPECT_EQ(FindCommandWord(c.words), c.word) << "line " << c.line;
}

ServiceOptions Parsed(const std::vector<const char*>& arguments) {
  ServiceOptions options;
  std::string error;
  EXPECT_TRUE(ParseServiceArguments(arguments, options, error)) << error;
  return options;
}

TEST(CommandLine, OwnOptionsAreTakenOutAndTheRestIsJoinedByBlanks) {
  const ServiceOptions options = Parsed({"-Reg", "--root", "/a-Service/b", "--bus=unix:path=/x", "Server",
                                         "--foreground", "--registry-only", "--destdir", "/d", "/q"});
  EXPECT_EQ(options.root, "/a-Service/b");
  EXPECT_EQ(options.busAddress, "unix:path=/x");
  EXPECT_EQ(options.destdir, "/d");
  EXPECT_TRUE(options.foreground);
  EXPECT_TRUE(options.registryOnly);
  EXPECT_EQ(options.words, "-Reg Server /q");
  EXPECT_FALSE(options.version);
  EXPECT_FALSE(options.help);
}

TEST(CommandLine, APathWithAWordInItIsNoWord) {
  EXPECT_EQ(FindCommandWord(Parsed({"--root", "/srv/service"}).words), CommandWord::kNone);
  EXPECT_EQ(FindCommandWord(Parsed({"--root=/srv/service", "-RegServer"}).words), CommandWord::kRegServer);
}

// A script's unset variable must not become the default.
TEST(CommandLine, AnEmptyValueIsRefused) {
  struct Case {
    std::vector<const char*> arguments;
    const char* error;
  };
  const Case cases[] = {{{"--root", ""}, "option --root needs a value"},
                        {{"--root="}, "option --root needs a value"},
                        {{"-UnregServer", "--root=", "x"}, "option --root needs a value"},
                        {{"--bus", "", "--foreground"}, "option --bus needs a value"}};
  for (const Case& c : cases) {
    ServiceOptions options;
    std::string error;
    EXPECT_FALSE(ParseServiceArguments(c.arguments, options, error)) << c.error;
    EXPECT_EQ(error, c.error);
  }
  EXPECT_EQ(Parsed({"--destdir", "", "-Service"}).destdir, "") << "the root, as packagers have it";
  EXPECT_EQ(Parsed({"--destdir=", "-Service"}).words, "-Service");
}

TEST(CommandLine, AnOptionWithoutItsValueIsRefused) {
  for (const char* option : {"--root", "--bus", "--destdir"}) {
    ServiceOptions options;
    std::string error;
    const char* const arguments[] = {option};
    EXPECT_FALSE(ParseServiceArguments(arguments, options, error));
    EXPECT_EQ(error, "option " + std::string(option) + " needs a value");
  }
}

}  // namespace
}  // namespace qx
