// The fault switch of the system-call seam.
#include "utils/posix.h"

#include <gtest/gtest.h>

#include "support/test_support.h"

TEST(PosixSeam, FailsTheKthCallWithTheGivenErrnoAndCountsCalls) {
  j480test::TempDir dir;
  std::string path = dir.file("x");
  j480test::write_file(path, "abc");
  px_fault_arm(3, ENOSPC);
  EXPECT_EQ(px_access(path.c_str(), F_OK), 0);
  EXPECT_EQ(px_access(path.c_str(), F_OK), 0);
  errno = 0;
  EXPECT_EQ(px_access(path.c_str(), F_OK), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(px_access(path.c_str(), F_OK), 0);  // one-shot unless sticky
  EXPECT_EQ(g_px_faults.calls, 4);
  px_fault_disarm();
}

TEST(PosixSeam, StickyFaultFailsEveryLaterCall) {
  px_fault_arm(1, EIO, PX_FAULT_FAIL, true);
  EXPECT_EQ(px_fopen("/nonexistent-but-irrelevant", "r"), nullptr);
  EXPECT_EQ(px_access("/", F_OK), -1);
  EXPECT_EQ(errno, EIO);
  px_fault_disarm();
  EXPECT_EQ(px_access("/", F_OK), 0);
}

TEST(PosixSeamDeathTest, KillActionEndsTheProcessBeforeTheCall) {
  j480test::TempDir dir;
  std::string path = dir.file("never");
  EXPECT_EXIT(
      {
        px_fault_arm(1, 0, PX_FAULT_KILL);
        px_mkdir(path.c_str(), 0777);
      },
      ::testing::KilledBySignal(SIGKILL), "");
  EXPECT_FALSE(j480test::exists(path));
}
