// Console input, progress counters, signal handlers and the growing arrays.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "core/console.h"
#include "core/run.h"
#include "driver/main.h"
#include "support.h"

namespace {

using test::FakeStdin;

TEST(GetUserInput, ReadsOneLineAndCutsAtTheBufferSize) {
  test::FreshRunParameters();
  FakeStdin input("1,3\nabcdefghij\n");
  char buffer[6];
  ASSERT_EQ(GetUserInput(buffer, sizeof buffer), 0);
  EXPECT_STREQ(buffer, "1,3\n");
  ASSERT_EQ(GetUserInput(buffer, sizeof buffer), 0);
  EXPECT_STREQ(buffer, "abcde");
  ASSERT_EQ(GetUserInput(buffer, sizeof buffer), 0);
  EXPECT_STREQ(buffer, "fghij");  // the rest stayed in standard input
  ASSERT_EQ(GetUserInput(buffer, sizeof buffer), 0);
  EXPECT_STREQ(buffer, "\n");
  ASSERT_EQ(GetUserInput(buffer, sizeof buffer), 0);
  EXPECT_STREQ(buffer, "");  // end of input
}

TEST(GetUserInput, AnAbortEndsTheWaitWithWhatWasTyped) {
  test::FreshRunParameters();
  tGps.bAbort = 1;
  FakeStdin input("never read\n");
  char buffer[16] = "junk";
  ASSERT_EQ(GetUserInput(buffer, sizeof buffer), 0);
  EXPECT_STREQ(buffer, "");
}

TEST(Signals, InterruptSetsAbortOrRestartAndTerminateSetsAbort) {
  test::FreshRunParameters();
  testing::internal::CaptureStdout();
  KestrixIntExit(SIGINT);
  EXPECT_EQ(tGps.bAbort, 1);
  EXPECT_EQ(restartTask, 0);
  tGps.bAbort = 0;
  tGps.bRestartOnInterrupt = 1;
  KestrixIntExit(SIGINT);
  EXPECT_EQ(tGps.bAbort, 0);
  EXPECT_EQ(restartTask, 1);
  restartTask = 0;
  auto previous = std::signal(SIGTERM, KestrixSigExit);
  KestrixSigExit(SIGTERM);
  EXPECT_EQ(tGps.bAbort, 1);
  EXPECT_EQ(std::signal(SIGTERM, previous), SIG_DFL);  // the second SIGTERM ends the process
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "\nKestrixIntExit(): Got signal 2\n\nKestrixIntExit(): Got signal 2\n"
            "\nKestrixSigExit(): Got signal 15\n");
}

TEST(Signals, AnInterruptedProgramStopsWaitingForInput) {
  // A prompt is reached only by later commands; the handler and the input
  // loop are checked together here through the real signal.
  test::FreshRunParameters();
  auto previous = std::signal(SIGALRM, KestrixIntExit);
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  int saved = dup(STDIN_FILENO);
  dup2(p[0], STDIN_FILENO);
  testing::internal::CaptureStdout();
  alarm(1);
  char buffer[8];
  EXPECT_EQ(GetUserInput(buffer, sizeof buffer), 0);
  std::string out = testing::internal::GetCapturedStdout();
  dup2(saved, STDIN_FILENO);
  close(saved);
  close(p[0]);
  close(p[1]);
  std::signal(SIGALRM, previous);
  EXPECT_EQ(tGps.bAbort, 1);
  EXPECT_STREQ(buffer, "");
  EXPECT_EQ(out, "\nKestrixIntExit(): Got signal 14\n");
}

TEST(Progress, OverwritesInPlaceOrScrolls) {
  test::FreshRunParameters();
  testing::internal::CaptureStdout();
  {
    ProgressCounter bytes("Bytes: ", 0);
    bytes.Update(12);
    bytes.Update(12345);
    bytes.Finish(7);
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Bytes: 0\b12\b\b12345\b\b\b\b\b7\n");

  tGps.bScroll = 1;
  testing::internal::CaptureStdout();
  {
    ProgressCounter points("Points: ", 0);
    points.Update(3);
    points.Finish(4);
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Points: 0\nPoints: 3\nPoints: 4\n");
}

TEST(Progress, UpdatesAreThrottledByTheInterval) {
  test::FreshRunParameters();
  testing::internal::CaptureStdout();
  {
    ProgressCounter bytes("Bytes: ", 60u * 1000000u);
    for (int i = 1; i < 1000; ++i) bytes.Update(i);
    bytes.Finish(1000);
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Bytes: 0\b1000\n");
}

TEST(GrowingArrays, StartAtTheirSizesAndDouble) {
  test::FreshRunParameters();
  for (int32_t i = 0; i < 2500; ++i) {
    TrackPoint p{0, static_cast<uint32_t>(i), i, -i, 10 * i, i};
    ASSERT_EQ(AppendTrackPoint(p), 0);
    if (i == 0) {
      EXPECT_EQ(tGps.nTrackCapacity, 1000);
    }
  }
  EXPECT_EQ(tGps.nTrackCapacity, 4000);
  EXPECT_EQ(tGps.nTrackPoints, 2500);
  EXPECT_EQ(tGps.pTrackPoints[1999].lLongitude, -1999);

  Waypoint w{};
  for (int i = 0; i < 101; ++i) ASSERT_EQ(AppendWaypoint(w), 0);
  EXPECT_EQ(tGps.nWaypointCapacity, 200);

  std::string text(45000, 'r');
  ASSERT_EQ(AppendRawLog(reinterpret_cast<const uint8_t*>(text.data()), 45000), 0);
  EXPECT_EQ(tGps.nRawLogSize, 80000);
  EXPECT_EQ(tGps.nRawLogLength, 45000);
}

}  // namespace
