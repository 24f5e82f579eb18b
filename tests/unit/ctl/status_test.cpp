#include "ctl/status.h"

#include <gtest/gtest.h>

namespace {

TEST(CtlStatus, EverythingIsShown) {
  const agent_status status{true, 77, "release-1", true, false, true, "2026-01-02 03:04:05"};
  EXPECT_EQ(status_as_text(status), "agent:       running, pid 77\n"
                                    "version:     release-1\n"
                                    "registered:  yes\n"
                                    "claimed:     no\n"
                                    "connected:   yes since 2026-01-02 03:04:05\n");
  EXPECT_EQ(status_as_json(status),
            R"({"running":true,"pid":77,"version":"release-1","registered":true,"claimed":false,)"
            R"("connected":true,"since":"2026-01-02 03:04:05"})"
            "\n");
}

TEST(CtlStatus, WhatIsNotKnownIsNull) {
  EXPECT_EQ(status_as_text({}), "agent:       not running\n"
                                "version:     not known\n"
                                "registered:  no\n"
                                "claimed:     no\n"
                                "connected:   no\n");
  EXPECT_EQ(status_as_json({}), R"({"running":false,"pid":null,"version":null,"registered":false,)"
                                R"("claimed":false,"connected":false,"since":null})"
                                "\n");
}

}  // namespace
