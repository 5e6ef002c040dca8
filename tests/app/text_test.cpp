#include "apps/tolvane/MediaFileCheck.h"
#include "apps/tolvane/Text.h"

#include "tests/support/TemporaryDirectory.h"

#include <fstream>
#include <gtest/gtest.h>

using namespace tolvane;

TEST(Text, NumbersForPeople) {
  EXPECT_EQ(bytesText(-1), "?");
  EXPECT_EQ(bytesText(999), "999 B");
  EXPECT_EQ(bytesText(1000), "1.0 kB");
  EXPECT_EQ(bytesText(999'960), "1.0 MB") << "never 1000.0 kB";
  EXPECT_EQ(bytesText(3'449'000'000), "3.4 GB");
  EXPECT_EQ(timeText(7), "0:07");
  EXPECT_EQ(timeText(3723), "1:02:03");
}

TEST(Text, WhatComesFromOutsideCannotSteerATerminal) {
  EXPECT_EQ(oneLine("a\nb\x1b[2J\x7f"), "a?b?[2J?");
  EXPECT_EQ(oneLine("\xC2\x9B"
                    "31m"),
            "?31m");
  EXPECT_EQ(oneLine("Käse"), "Käse");
  EXPECT_EQ(fitted("Käsebrot", 4), "Käs…");
  EXPECT_EQ(columns(fitted("Käsebrot", 4)), 4u);
}

TEST(MediaFileCheck, ACutOffBoxShows) {
  support::TemporaryDirectory directory;
  const std::string whole("\0\0\0\x0Cstyp\1\2\3\4\0\0\0\x0Amdat\1\2", 22);
  auto fault = [&](const std::string& content) {
    std::string path = directory.path() + "/file";
    std::ofstream(path, std::ios::binary) << content;
    return mediaFileFault(path);
  };
  EXPECT_EQ(fault(whole), "");
  EXPECT_NE(fault(whole.substr(0, 21)), "");
  EXPECT_NE(fault(whole.substr(0, 15)), "") << "cut within a box's head";
  EXPECT_EQ(fault(whole.substr(0, 12)), "") << "cut between boxes does not show";
  EXPECT_NE(fault(""), "");
  EXPECT_EQ(fault("WEBVTT\n"), "") << "other formats do not tell";
  EXPECT_EQ(fault(std::string("\0\0\0\1ftyp\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 16)).empty(), false);
}
