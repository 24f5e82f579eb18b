#include "ctl/connectivity.h"

#include "temp_folder.h"

#include <gtest/gtest.h>
#include <zlib.h>

namespace {

std::string line(int second, const std::string& tagged) {
  return "2026-01-02 03:04:" + std::string(second < 10 ? "0" : "") + std::to_string(second) + ' ' + tagged +
         '\n';
}

TEST(CtlConnectivity, StateBeganWithTheFirstLineOfItsRun) {
  connectivity found{};
  EXPECT_TRUE(
      scan_backwards(line(1, "S: disconnected") + line(2, "S: connected") + line(3, "S: connected"), &found));
  EXPECT_TRUE(found.known);
  EXPECT_TRUE(found.connected);
  EXPECT_EQ(found.since, "2026-01-02 03:04:02");
}

TEST(CtlConnectivity, OtherLinesDoNotEndARun) {
  connectivity found{};
  const std::string log = line(1, "S: connected") + line(2, "S: disconnected") +
                          line(3, "E: SSL_read < 0 errno: 'x'.") + "connected\n\n" +
                          line(4, "S: connected or not") + line(5, "S: disconnected");
  EXPECT_TRUE(scan_backwards(log, &found));
  EXPECT_FALSE(found.connected);
  EXPECT_EQ(found.since, "2026-01-02 03:04:02");
}

TEST(CtlConnectivity, RunGoesOnInOlderPieces) {
  connectivity found{};
  EXPECT_FALSE(scan_backwards(line(5, "S: connected"), &found));
  EXPECT_FALSE(scan_backwards("", &found));
  EXPECT_FALSE(scan_backwards(line(3, "S: connected") + line(4, "S: connected"), &found));
  EXPECT_TRUE(scan_backwards(line(1, "S: connected") + line(2, "S: disconnected"), &found));
  EXPECT_TRUE(found.connected);
  EXPECT_EQ(found.since, "2026-01-02 03:04:03");
}

TEST(CtlConnectivity, LastLineNeedsNoEnd) {
  connectivity found{};
  scan_backwards("2026-01-02 03:04:05 S: connected", &found);
  EXPECT_TRUE(found.known && found.connected);
}

TEST(CtlConnectivity, TextWithoutStatesTellsNothing) {
  for (const char* text : {"", "\n\n\n", "S: connected\n", "2026-01-02 03:04:05 E: connected\n", "x"}) {
    connectivity found{};
    EXPECT_FALSE(scan_backwards(text, &found)) << text;
    EXPECT_FALSE(found.known) << text;
  }
}

TEST(CtlConnectivity, CompressedGenerationsAreRead) {
  const temp_folder folder;
  const std::string log = folder / "log";
  write_text_file(log, line(9, "S: connected"));
  write_text_file(log + ".1", line(8, "S: connected"));
  gzFile older = gzopen((log + ".2.gz").c_str(), "wb");
  const std::string text = line(6, "S: disconnected") + line(7, "S: connected");
  gzwrite(older, text.data(), static_cast<unsigned>(text.size()));
  gzclose(older);
  EXPECT_EQ(read_connectivity(log).since, "2026-01-02 03:04:07");
}

TEST(CtlConnectivity, MissingLogIsNotKnown) {
  EXPECT_FALSE(read_connectivity("/nowhere/log").known);
}

}  // namespace
