#include "control/control_listener_command.h"

#include "cloud/http_helper.h"
#include "control_fixture.h"

namespace {

using ControlPauseTest = control_fixture;

// A claim or a discovery push that another thread carries out starts a session of its own accord.
TEST_F(ControlPauseTest, APauseAlsoStopsASessionThatIsStartedBeforeRequestsAreHeldBack) {
  keep_connection = 1;
  int stops = 0;
  fakes.when_stopped = [&] {
    if (++stops == 1) start_broker_thread(&settings);
  };
  EXPECT_EQ(command_pause_connections(), 0);
  EXPECT_EQ(keep_connection, 0);
  EXPECT_EQ(http_requests_paused(), 1);
  EXPECT_EQ(stops, 2);
}

TEST_F(ControlPauseTest, APauseStopsOnceWhereNothingComesBetween) {
  keep_connection = 1;
  int stops = 0;
  fakes.when_stopped = [&] { ++stops; };
  EXPECT_EQ(command_pause_connections(), 0);
  EXPECT_EQ(stops, 1);
}

}  // namespace
