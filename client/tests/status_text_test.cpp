#include "client/status_text.h"

#include <gtest/gtest.h>

#include "client/cli_output.h"

namespace {

TEST(StatusText, HasASentenceForEveryCode) {
  struct Case {
    Status status;
    const char* text;
    int exit;
  };
  const Case cases[] = {
      {0, "0x00000000 Done.", 0},
      {1, "0x00000001 The operation failed.", 1},
      {0x80040200, "0x80040200 A job with this ID already exists.", 1},
      {0x80040202, "0x80040202 The schedule's registry data can't be read.", 3},
      {0x80040203, "0x80040203 The schedule's registry data can't be written.", 1},
      {0x80040204, "0x80040204 The \"Schedules\" key can't be opened for deleting.", 1},
      {0x80040205, "0x80040205 An immutable value was to be changed.", 1},
      {0x80040206, "0x80040206 The modification failed in the registry.", 1},
      {0x80040207, "0x80040207 The registry can't be listed.", 1},
      {0x80040209, "0x80040209 The schedule is invalid, for an unknown reason.", 5},
      {0x8004020A, "0x8004020A No run day rule defined.", 5},
      {0x8004020B, "0x8004020B There is an include/exclude date overlap.", 5},
      {0x8004020C, "0x8004020C The Restart interval exceeds the size of the time-window.", 5},
      {0x8004020D, "0x8004020D The schedule has no registry key.", 3},
      {0x8004020F, "0x8004020F The directory of the XML path doesn't exist.", 1},
      {0x80040210, "0x80040210 The rules lie wholly in the past.", 5},
      {0x80040211, "0x80040211 No nodes were given.", 1},
      {0x80040212, "0x80040212 The names of the nodes lack \"localhost\".", 1},
      {0x80040214, "0x80040214 The schedule can't be found or read for deleting.", 3},
      {0x80000006, "0x80000006 The rules of the schedule can't be read or used.", 1},
      {0x80040299, "0x80040299 Unknown status.", 1},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(qx::FormatStatus(c.status), c.text);
    EXPECT_EQ(qx::ExitCodeOf(c.status), c.exit) << c.text;
    EXPECT_EQ(qx::DescribeStatus(c.status).hint.empty(), c.status == 0) << c.text;
  }
}

TEST(StatusText, SaysWhatTheSystemSaysOfItsOwnCodes) {
  EXPECT_EQ(qx::DescribeStatus(0x8007FFFF).sentence, "A system call failed with code 65535.");
  const std::string denied = qx::DescribeStatus(0x80070005).sentence;
  EXPECT_NE(denied, qx::DescribeStatus(0x80070002).sentence);
  EXPECT_EQ(denied.find("failed with code"), std::string::npos) << denied;
  EXPECT_EQ(qx::ExitCodeOf(0x80070005), 4);
  EXPECT_EQ(qx::ExitCodeOf(0x80070070), 1);
}

}  // namespace
